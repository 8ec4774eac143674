#include "tests/chromium/browser_fixture.hpp"
#include "tests/http/scripted_server.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::chromium::test {
namespace {

using vision::test::proposal;
using vision::test::Reply;
using vision::test::response;
using vision::test::ScriptedServer;

std::string html(const std::string& body) {
  return response("200 OK", "<!doctype html><link rel=icon href='data:,'><body style='margin:0'>" + body,
                  "content-type: text/html\r\n");
}

/// Presses the button of the red page, and is content with any other picture.
struct RedPresser : vision::test::ScriptedModel {
  explicit RedPresser(Bytes red_page) : red(std::move(red_page)) {}
  asio::awaitable<json::value> create(const MessagesRequest& request) override {
    const bool sees_red = request.image().view() == red.view();
    pictures += sees_red ? "red " : "other ";
    bodies.push_back(request.body());
    const bool presses = sees_red && presses_left-- > 0;
    if (presses && presses_left == 0) co_await before_last_press();
    co_return json::parse(presses ? proposal("click", 0.9, R"(, "x_ratio": 0.5, "y_ratio": 0.5)")
                                  : proposal("declare_success", 0.9));
  }
  const Bytes red;
  std::string pictures;
  int presses_left = 2;
  std::function<asio::awaitable<void>()> before_last_press;
};

const std::string whole_window = " style='position:fixed;inset:0;width:100%;height:100%;border:0;outline:0;background:";

struct Way {
  const char* name;
  std::string red_page;  // a click navigates to TARGET
};
const Way ways[] = {
    {"a link", "<a href='TARGET'" + whole_window + "red'></a>"},
    {"a form", "<form action='TARGET'><button" + whole_window + "red'></button></form>"},
    {"a script", "<div onclick=\"location = 'TARGET'\"" + whole_window + "red'></div>"},
};

std::string refusal(const std::string& operation, const std::string& done) {
  return "BrowserError: " + operation +
         ": the page has changed to another document since the last screenshot; nothing was " + done;
}

enum class Answer { in_time, while_asked, never };

// The button that confirms on the first page deletes on the second one.
TEST(SlowNavigation, AMissionActsOnThePageThatItSaw) {
  vision::test::TestRegistry::instance();
  const vision::test::ScopedEnv log("KX_VISION_SHADOW_LOG", "/dev/null");
  VirtualTimeLoop world;
  world.passes = {};
  const ProfilesHere profiles;
  LaunchOptions options;
  options.argument("--remote-debugging-port=0");
  auto browser = run(launch(options));
  auto guest = run(connect("http://127.0.0.1:" + debugging_port(profiles)));
  auto other = run(browser->new_page());
  auto page = run(browser->new_page(PageOptions().viewport(320, 200).device_pixel_ratio(2)));
  auto attached = run(guest->attach(page->target_id()));
  const Way* way = ways;
  std::string target;
  bool asked = false;
  std::unique_ptr<runtime::OneShot> answers;
  ScriptedServer server(loop(), {{""}});
  server.choose = [&]() -> asio::awaitable<Reply> {
    if (!target.empty()) {
      std::string first = way->red_page;
      first.replace(first.find("TARGET"), 6, std::exchange(target, ""));
      co_return Reply{html(first)};
    }
    asked = true;
    co_await answers->wait();
    co_return Reply{html("<div onclick=\"document.title = 'deleted'\"" + whole_window + "blue'></div>")};
  };
  for (const Answer answer : {Answer::in_time, Answer::while_asked, Answer::never}) {
    for (way = ways; way != std::end(ways); ++way) {
      for (const char* const host : {"127.0.0.1", "localhost"}) {
        for (ChromiumPage* subject : {page.get(), attached.get()}) {
          SCOPED_TRACE(testing::Message() << way->name << " to " << host << ", " << static_cast<int>(answer));
          target = server.url(host) + "/next";
          answers = std::make_unique<runtime::OneShot>(loop().get_executor());
          run(page->navigate(server.url()));
          const auto model = std::make_shared<RedPresser>(run(subject->screenshot({})));
          model->before_last_press = [&]() -> asio::awaitable<void> {
            if (answer == Answer::never) co_return;
            world.passes = {};
            answers->set();
            auto next_page = (subject == page.get() ? attached : page)->evaluate("document.title");
            (void)co_await runtime::try_await(std::move(next_page));
            co_await subject->mouse().wheel(0, 0);  // so that it has heard of the next page
            world.passes = milliseconds(2500);
          };
          VisionClient client(model);
          ActLoopOptions mission({{"phase", 2}}, "site");
          mission.vision(client);
          asked = false;
          world.passes = {};
          Running<std::string> verdict(verdict_of(*subject, std::move(mission)));
          while (!asked) take_turn();
          world.passes = milliseconds(answer == Answer::in_time ? 2500 : 8000);
          // Long enough for a picture of the red page, if one were taken now.
          for (int i = 0; i < 3; ++i) run(other->screenshot({}));
          if (answer == Answer::in_time) answers->set();
          EXPECT_EQ(verdict.get(), answer == Answer::while_asked
                                       ? "escalate_to_cua: execute_action(click) failed at step 2: " +
                                             refusal("mouse.click", "clicked")
                                       : "declare_success: because");
          if (answer == Answer::never) {
            EXPECT_EQ(error_of(subject->screenshot(ScreenshotOptions().full_page(true))),
                      "TimeoutError: Page.getLayoutMetrics: Timeout 2000ms exceeded");
          }
          world.passes = {};
          answers->set();
          const char* const pictures[] = {"red other ", "red red ", "red red red "};
          EXPECT_EQ(model->pictures, pictures[static_cast<int>(answer)]);
          for (std::size_t i = 0; i < model->bodies.size(); ++i) {
            EXPECT_THAT(model->user_text(i), testing::HasSubstr("320\u00d7200 CSS pixels (DPR 2.0)"));
          }
          EXPECT_EQ(value_of(*page, "document.title"), "\"\"");
        }
      }
    }
  }
  run(browser->close());
}

class Navigation : public PageTest {};

TEST_F(Navigation, NoInputReachesADocumentThatCameAfterThePicture) {
  auto other = run(browser_->attach(page_->target_id()));  // what it does, page_ did not ask for
  const std::string next = page_url(
      "<script>done = ''; for (const t of ['click', 'keydown']) addEventListener(t, () => done += t)</script>");
  const auto leave = [&] {
    run(other->navigate(next));
    run(page_->evaluate("window.devicePixelRatio"));  // so that page_ has heard of it
  };
  const std::tuple<const char*, std::function<void()>, bool> rows[] = {
      {"left", leave, true},
      {"left, and refused before", [&] { leave(), error_of(page_->mouse().click(5, 5)); }, true},
      {"left, seen", [&] { leave(), run(page_->screenshot({})); }, false},
      {"left, evaluated", [&] { leave(), run(page_->evaluate("1")); }, false},
      {"left by our navigate()", [&] { run(page_->navigate(next)); }, false},
      {"left by our click", [&] { run(page_->mouse().click(5, 5)), leave(); }, false},
      {"moved",
       [&] { run(other->navigate(next)), run(page_->screenshot({})), run(other->evaluate("location = '#x'")); }, false},
  };
  const std::tuple<std::function<asio::awaitable<void>()>, const char*, const char*> inputs[] = {
      {[&] { return page_->mouse().click(5, 5); }, "mouse.click", "clicked"},
      {[&] { return page_->keyboard().type("a", {}); }, "keyboard.type", "typed"},
      {[&] { return page_->keyboard().press("a"); }, "keyboard.press", "pressed"},
  };
  for (const auto& [name, happens, refused] : rows) {
    for (const auto& [input, operation, done] : inputs) {
      SCOPED_TRACE(testing::Message() << name << ", " << operation);
      open("before");
      run(page_->screenshot({}));
      happens();
      EXPECT_EQ(error_of(input()), refused ? refusal(operation, done) : "no error");
      EXPECT_EQ(value_of(*page_, "done") == "\"\"", refused);
    }
  }
}

TEST_F(Navigation, AScreenshotSucceedsWhileDocumentsChange) {
  ScriptedServer server(loop(), {{html("<p>a page")}});
  for (const char* const host : {"127.0.0.1", "localhost"}) {
    for (int delay = 0; delay < 40; delay += 4) {
      run(page_->navigate(server.url()));
      run(page_->evaluate("setTimeout(() => location = '" + server.url(host) + "/next', " + std::to_string(delay) +
                          ")"));
      EXPECT_EQ(error_of(page_->screenshot({})), "no error") << delay;
    }
  }
  run(page_->navigate("about:blank"));  // which asks the server, about to end, for nothing more
}

TEST_F(Navigation, ALaterOneEndsAnEarlierOne) {
  asio::ip::tcp::acceptor silent(loop(), {asio::ip::address_v4::loopback(), 0});
  const std::string endless = "<img src='http://127.0.0.1:" + std::to_string(silent.local_endpoint().port()) + "'>";
  for (const bool both_endless : {false, true}) {
    ScriptedServer server(loop(), {{html("first" + endless)}, {html(both_endless ? "second" + endless : "second")}});
    asio::ip::tcp::socket image(loop());
    Running<void> first(page_->navigate(server.url() + "/first"));
    run(silent.async_accept(image, asio::use_awaitable));
    Running<void> second(page_->navigate(server.url() + "/second"));
    EXPECT_EQ(first.error(), "NavigationError: cannot load " + server.url() + "/first: replaced by a navigation to " +
                                 server.url() + "/second");
    if (both_endless) second.cancel();
    EXPECT_EQ(second.error() == "no error", !both_endless);
    run(page_->navigate("about:blank"));
  }
}

}  // namespace
}  // namespace vision::chromium::test
