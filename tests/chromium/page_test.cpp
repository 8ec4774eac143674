#include <boost/asio/write.hpp>
#include <limits>

#include "chromium/input/key_layout.hpp"
#include "tests/chromium/browser_fixture.hpp"
#include "tests/http/scripted_server.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::chromium::test {
namespace {

TEST(KeyLayout, NamesCodesCharactersAndChords) {
  const std::pair<const char*, const char*> rows[] = {
      {"a", "a KeyA 65 0 a;"},
      {"A", "A KeyA 65 0 A;"},
      {"\\", "\\ Backslash 220 0 \\;"},
      {"Enter", "Enter Enter 13 0 \r;"},
      {"NumpadEnter", "Enter NumpadEnter 13 3 \r;"},
      {"F24", "F24 F24 135 0 ;"},
      {"ShiftRight", "Shift ShiftRight 16 2 ;"},
      {"Control++", "Control ControlLeft 17 1 ;+ Equal 187 0 +;"},
      {"\n", "Enter Enter 13 0 \r;"},
      {"Return", "Enter Enter 13 0 \r;"},
      {"ctrl + a", "Control ControlLeft 17 1 ;a KeyA 65 0 a;"},
      {"Cmd+A", "Control ControlLeft 17 1 ;A KeyA 65 0 A;"},
      {"page_down", "PageDown PageDown 34 0 ;"},
      {" ", "  Space 32 0  ;"},
      {"-+_", "- Minus 189 0 -;_ Minus 189 0 _;"},
      {"Control+", "Unknown key: \"Control+\""},
      {"a+  +a", "Unknown key: \"  \""},
      {"1+2+3+4+5+6+7+8+9+0+1+2+3+4+5+6+7+8+9+0+1",
       "more than 16 keys in the chord \"1+2+3+4+5+6+7+8+9+0+1+2+3+4+5+6+7+8+9+0+...\""},
      {"ControlOrMeta+Shift+T", "Control ControlLeft 17 1 ;Shift ShiftLeft 16 1 ;T KeyT 84 0 T;"},
      {"\xc3\xbc", "Unknown key: \"\xc3\xbc\""},
  };
  for (const auto& [chord, expected] : rows) {
    std::string got;
    try {
      for (const Key& key : parse_chord(chord)) {
        const std::string numbers = std::to_string(key.virtual_code) + " " + std::to_string(key.location);
        got += key.key + " " + key.code + " " + numbers + " " + key.text + ";";
      }
    } catch (const std::invalid_argument& error) {
      got = error.what();
    }
    EXPECT_EQ(got, expected) << chord;
  }
  for (char c = ' '; c <= '~'; ++c) EXPECT_TRUE(find_key(std::string(1, c))) << c;  // all that a US keyboard types
}

// Records what reaches the page, in the page.
const std::string recorder = R"(<!doctype html><title>recorder</title><body style="margin:0;height:3000px">
<button id=button style="position:absolute;left:100px;top:50px;width:80px;height:30px">B</button>
<textarea id=area style="position:absolute;left:100px;top:100px;width:300px;height:60px"></textarea>
<script>
var log = [];
const held = e => (e.ctrlKey ? 'C' : '') + (e.shiftKey ? 'S' : '') + (e.altKey ? 'A' : '') + (e.metaKey ? 'M' : '');
for (const type of ['keydown', 'keypress', 'keyup'])
  addEventListener(type, e => log.push([type, e.key, e.code, held(e), e.repeat && 'again'].filter(Boolean).join(' ')));
addEventListener('pointerdown', e => log.push('pressure ' + e.pressure));
for (const type of ['mousedown', 'mouseup', 'click'])
  addEventListener(type, e => log.push([type, e.clientX, e.clientY, e.buttons, e.target.id].join(' ')));
addEventListener('wheel', e => log.push(['wheel', e.clientX, e.clientY, e.deltaX, e.deltaY].join(' ')));
area.addEventListener('input', e => log.push(['input', e.data ?? e.inputType].join(' ')));
const until = condition => new Promise(done => {
  const look = () => condition() ? done(true) : setTimeout(look, 5);
  look();
});
</script>)";

class Input : public PageTest {
 protected:
  void SetUp() override {
    PageTest::SetUp();
    open(recorder);
  }
  std::string log() { return run(page_->evaluate("log.splice(0).join('|')")).as_string().c_str(); }
  std::string area() { return run(page_->evaluate("area.value")).as_string().c_str(); }
  void focus_with(const std::string& text) {
    run(page_->evaluate("area.value = " + text::to_json(json::value(text)) + "; area.focus()"));
  }
};

TEST_F(Input, MouseClicksAndScrollsWhereItIs) {
  run(page_->mouse().wheel(0, 300));
  EXPECT_EQ(value_of(*page_, "until(() => scrollY === 300)"), "true");
  EXPECT_EQ(log(), "wheel 0 0 0 300") << "the mouse starts in the corner";
  run(page_->evaluate("scrollTo(0, 0)"));
  run(page_->mouse().click(139.5, 65));
  EXPECT_EQ(log(), "pressure 0.5|mousedown 139 65 1 button|mouseup 139 65 0 button|click 139 65 0 button");
  run(page_->mouse().wheel(0, 240));
  EXPECT_EQ(value_of(*page_, "until(() => scrollY === 240)"), "true");
  EXPECT_EQ(log(), "wheel 139 65 0 240");
  run(page_->mouse().wheel(0, 0));

  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(error_of(page_->mouse().click(1, nan)), "invalid_argument: mouse.click: y is nan, not a finite number");
  EXPECT_EQ(error_of(page_->mouse().wheel(-1.0 / 0.0, 0)),
            "invalid_argument: mouse.wheel: delta_x is -inf, not a finite number");
}

TEST_F(Input, TypesAnyText) {
  const std::pair<std::string, std::string> rows[] = {
      {"~`|\\{}[]\"'<>?", "~`|\\{}[]\"'<>?"},
      {"gr\u00fc\u00df \U0001F600 \u4f60", "gr\u00fc\u00df \U0001F600 \u4f60"},
      {"one\ntwo\r\nthree\rfour", "one\ntwo\nthree\nfour"},
      {"bad\xff\xc3(", "bad\ufffd\ufffd("},
      {"", ""},
  };
  for (const auto& [text, expected] : rows) {
    focus_with("");
    run(page_->keyboard().type(text, milliseconds(1)));
    EXPECT_EQ(area(), expected);
  }
}

TEST_F(Input, PressesKeysAndChords) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"Enter", "ab\n", "keydown Enter Enter|keypress Enter Enter|input insertLineBreak|keyup Enter Enter"},
      {"Shift+a", "abA",
       "keydown Shift ShiftLeft S|keydown A KeyA S|keypress A KeyA S|input A|keyup A KeyA S|keyup Shift ShiftLeft"},
      {"Control+Shift+T", "ab",
       "keydown Control ControlLeft C|keydown Shift ShiftLeft CS|keydown T KeyT CS|keyup T KeyT CS|keyup Shift "
       "ShiftLeft C|keyup Control ControlLeft"},
      {"F5", "ab", "keydown F5 F5|keyup F5 F5"},
      {"b+b", "abbb",
       "keydown b KeyB|keypress b KeyB|input b|keydown b KeyB again|keypress b KeyB again|input b|keyup b KeyB|keyup b "
       "KeyB"},
  };
  for (const auto& [chord, after, events] : rows) {
    focus_with("ab");
    run(page_->keyboard().press(chord));
    EXPECT_EQ(area(), after) << chord;
    EXPECT_EQ(log(), events) << chord;
  }
  run(page_->keyboard().press("ControlOrMeta+a"));
  run(page_->keyboard().type("new", milliseconds(0)));
  EXPECT_EQ(area(), "new");
  run(page_->evaluate("button.focus()"));
  run(page_->keyboard().press("Tab"));
  EXPECT_EQ(value_of(*page_, "document.activeElement.id"), "\"area\"");
  log();
  EXPECT_EQ(error_of(page_->keyboard().press("Control+Foo")), "invalid_argument: Unknown key: \"Foo\"");
  EXPECT_EQ(log(), "") << "nothing was pressed";
}

TEST_F(Input, NothingStaysPressedAfterACancel) {
  // The handler keeps the press from being answered.
  run(page_->evaluate("for (const t of ['mousedown', 'keydown']) addEventListener(t, e => alert())"));
  run(page_->evaluate("alert = () => { const end = performance.now() + 300; while (performance.now() < end); }"));
  Running<void> click(page_->mouse().click(5, 5));
  Running<void> press(page_->keyboard().press("Control+k"));
  run(page_->evaluate("count = type => log.filter(x => x.startsWith(type)).length"));
  EXPECT_EQ(value_of(*page_, "until(() => count('mousedown') && count('keydown'))"), "true");
  click.cancel();
  press.cancel();
  click.error();
  press.error();
  EXPECT_EQ(value_of(*page_, "until(() => count('mouseup') && count('keyup') >= count('keydown'))"), "true");
}

// Layouts for desktops depend on these.
TEST_F(PageTest, PagesSeeAMouseAndAScreenOfTheViewportsSize) {
  const std::tuple<int, int, double> rows[] = {{1280, 800, 1}, {900, 700, 2}, {4096, 100, 0.75}};
  for (const auto& [width, height, ratio] : rows) {
    auto page = run(browser_->new_page(PageOptions().viewport(width, height).device_pixel_ratio(ratio)));
    const std::string size = std::to_string(width) + ", " + std::to_string(height);
    EXPECT_EQ(value_of(*page,
                       "['(hover)', '(pointer: fine)', '(any-hover)', '(any-pointer: fine)', "
                       "`(device-width: ${innerWidth}px)`].map(query => matchMedia(query).matches)"),
              "[true, true, true, true, true]");
    EXPECT_EQ(value_of(*page,
                       "[innerWidth, innerHeight, outerWidth, outerHeight, screen.width, screen.height, "
                       "screen.availWidth, screen.availHeight]"),
              "[" + size + ", " + size + ", " + size + ", " + size + "]");
  }
}

TEST_F(Input, ClicksWhatAHoverPutsUnderTheMouse) {
  run(
      page_->evaluate("button.onmouseenter = () => requestAnimationFrame(() => requestAnimationFrame(() => "
                      "button.outerHTML = button.outerHTML.replace('button', 'b').replace('=\"button', '=\"other')))"));
  run(page_->mouse().click(139, 65));
  EXPECT_THAT(log(), testing::EndsWith("click 139 65 0 other"));
}

TEST_F(PageTest, NoClickGoesThroughAnOpenListOrPicker) {
  const std::string select = "<select style='width:190px'><option>one<option>two<option>three</select>";
  const std::tuple<std::string, const char*, bool> rows[] = {
      {select, "document", true},
      {"<input type=date>", "document", true},
      {"<input type=color>", "document", true},
      {"<span></span><script>(root = document.querySelector('span').attachShadow({mode: 'open'})).innerHTML = `" +
           select + "`</script>",
       "root", true},
      {"<iframe srcdoc=\"<style>*{margin:0;padding:0;width:190px}</style>" + select + "\"></iframe>",
       "frames[0].document", true},
      {"<style>select, ::picker(select) {appearance: base-select}</style>" + select, "document", false},
  };
  for (const auto& [control, root, refuses] : rows) {
    open(
        "<style>*{margin:0;padding:0;border:0;width:190px}</style><body style='height:700px' onclick='clicks++'>"
        "<script>clicks = 0</script>" +
        control);
    const std::string is_open = root + std::string(".querySelector('select:open, input:open')");
    const auto until = [&](const std::string& condition) {
      while (value_of(*page_, "!!(" + condition + ")") != "true") continue;
    };
    run(page_->mouse().click(180, 10));
    until(is_open);
    run(page_->evaluate("clicks = 0"));
    EXPECT_EQ(error_of(page_->mouse().click(50, 55)),
              refuses ? "BrowserError: mouse.click: a native list or picker is open, which no click reaches; use the "
                        "keyboard: type the entry and press Enter, or press Escape to close it"
                      : "no error")
        << control;
    EXPECT_EQ(value_of(*page_, "clicks"), refuses ? "0" : "1") << control;
    run(page_->keyboard().press("Escape"));
    until("!" + is_open);
    EXPECT_EQ(error_of(page_->mouse().click(50, 655)), "no error") << control;
  }
}

TEST(Click, DoesNotPressInAnotherDocument) {
  VirtualTimeLoop world;
  world.passes = {};
  asio::ip::tcp::acceptor server(loop(), {asio::ip::address_v4::loopback(), 0});
  auto browser = run(launch());
  auto page = run(browser->new_page());
  run(page->navigate(page_url("old")));
  run(page->evaluate("location = 'http://127.0.0.1:" + std::to_string(server.local_endpoint().port()) + "'; 0"));
  auto connection = run(server.async_accept(asio::use_awaitable));
  Running<void> click(page->mouse().click(5, 5));
  (void)run(browser->pages());  // and the browser has the click's first command
  const std::string answer =
      "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nConnection: close\r\n\r\n<title>new</title>";
  asio::write(connection, asio::buffer(answer));
  connection.close();
  EXPECT_EQ(click.error(), "BrowserError: mouse.click: the page has changed to another document; nothing was clicked");
  run(browser->close());
}

std::string png_size(const Bytes& png) {
  EXPECT_EQ(png.view().substr(0, 8), "\x89PNG\r\n\x1a\n");
  EXPECT_EQ(png.view().substr(png.size() - 8, 4), "IEND");
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(png.view()[at]); };
  return std::to_string(byte(18) << 8 | byte(19)) + " x " + std::to_string(byte(22) << 8 | byte(23));
}

TEST_F(PageTest, ScreenshotsHaveTheRightSize) {
  for (const auto& [width, height] : {std::pair(1, 1), std::pair(6000, 2)}) {
    auto page = run(browser_->new_page(PageOptions().viewport(width, height)));
    EXPECT_EQ(png_size(run(page->screenshot({}))), std::to_string(width) + " x " + std::to_string(height));
  }
  const std::tuple<double, const char*, const char*> rows[] = {{1, "640 x 400", "640 x 1500"},
                                                               {2, "1280 x 800", "1280 x 3000"}};
  for (const auto& [ratio, viewport, whole] : rows) {
    auto page = run(browser_->new_page(PageOptions().viewport(640, 400).device_pixel_ratio(ratio)));
    run(page->navigate(page_url("<body style='margin:0;height:1500px;background:linear-gradient(red,blue)'>")));
    const Bytes fast = run(page->screenshot({}));
    page->optimize_for_speed(false);
    const Bytes small = run(page->screenshot({}));
    EXPECT_EQ(png_size(small), viewport);
    EXPECT_EQ(png_size(fast), viewport);
    EXPECT_GT(fast.size(), small.size());
    EXPECT_EQ(png_size(run(page->screenshot(ScreenshotOptions().full_page(true)))), whole);
    EXPECT_EQ(text::to_json(*page->viewport_size()), R"({"width": 640, "height": 400})");
  }
  EXPECT_EQ(error_of(browser_->new_page(PageOptions().viewport(0, 5))),
            "invalid_argument: viewport 0 x 5: a side is from 1 to 10000000 pixels");
  EXPECT_EQ(error_of(browser_->new_page(PageOptions().device_pixel_ratio(0))),
            "invalid_argument: device pixel ratio 0.000000: must be finite and above 0");
}

TEST_F(PageTest, AFastPictureTooLargeForSomeEndpointsIsTakenSmall) {
  auto page = run(browser_->new_page(PageOptions().viewport(1600, 1000)));
  run(
      page->navigate(page_url("<body style='margin:0'><canvas id=noise width=1600 height=1000></canvas><script>"
                              "const context = noise.getContext('2d'), image = context.createImageData(1600, 1000);"
                              "image.data.forEach((_, i, all) => all[i] = i % 4 == 3 ? 255 : Math.random() * 256);"
                              "context.putImageData(image, 0, 0)</script>")));
  const Bytes first = run(page->screenshot({})), second = run(page->screenshot({}));
  page->optimize_for_speed(false);
  const Bytes small = run(page->screenshot({}));
  EXPECT_TRUE(first == small && second == small);
  page->optimize_for_speed(true);
  run(page->evaluate("document.body.innerHTML = '<p>small'; 0"));
  const Bytes after = run(page->screenshot({}));  // small at once, because of the last one
  EXPECT_GT(run(page->screenshot({})).size(), after.size());
}

TEST_F(PageTest, WindowsLookLikeThePageThatOpenedThemAreShownAndCloseWithIt) {
  auto opener = run(browser_->new_page(PageOptions().viewport(640, 400).device_pixel_ratio(2)));
  run(
      opener->navigate(page_url("<body onclick=\"window.open('about:blank'), window.open('about:blank', '', "
                                "'width=300,height=200')\" style='height:500px'>")));
  run(opener->mouse().click(50, 50));
  std::vector<std::shared_ptr<ChromiumPage>> windows;
  for (const auto& info : run(browser_->pages())) {
    const bool known = info.target_id == page_->target_id() || info.target_id == opener->target_id();
    if (!known) windows.push_back(run(browser_->attach(info.target_id)));
  }
  ASSERT_EQ(windows.size(), 2u);
  for (const auto& window : windows) {
    EXPECT_EQ(value_of(*window, "[innerWidth, innerHeight, devicePixelRatio]"), "[640, 400, 2]");
    EXPECT_EQ(text::to_json(*window->viewport_size()), R"({"width": 640, "height": 400})");
    EXPECT_FALSE(run(window->screenshot({})).empty());
  }
  run(opener->close());
  while (run(browser_->pages()).size() > 1) continue;
  EXPECT_EQ(run(browser_->pages())[0].target_id, page_->target_id());
}

TEST_F(PageTest, DialogsAreDismissed) {
  open(
      "<body onclick=\"out = [alert('a'), confirm('b'), prompt('c', 'd')]\" style='height:500px'>"
      "<script>onbeforeunload = e => e.preventDefault(); setTimeout(() => { alert('early'); early = true })</script>");
  while (value_of(*page_, "window.early === true") != "true") continue;  // a click beside a dialog may be dropped
  run(page_->mouse().click(50, 50));
  EXPECT_EQ(value_of(*page_, "out"), "[null, false, null]");
  open("<title>next</title>");  // past the question whether to leave
  EXPECT_EQ(value_of(*page_, "document.title"), "\"next\"");
}

// A host whose handlers keep the loop busy sees dialogs late.
TEST_F(PageTest, NoAnswerGoesToALaterDialog) {
  for (int i = 0; i < 6; ++i) {
    open("<body style='height:500px'><script>onbeforeunload = e => e.preventDefault()</script>");
    run(page_->mouse().click(50, 50));  // without one, the question whether to leave is not put
    Running<void> leaving(page_->navigate(page_url("<script>document.title = confirm('delete?')</script>")));
    const std::function<void()> busy = [&] {
      for (int n = 0; n < 20; ++n) processes_with("some work");
      if (!leaving.ended) asio::post(loop(), busy);
    };
    busy();
    EXPECT_EQ(leaving.error(), "no error");
    EXPECT_EQ(value_of(*page_, "document.title"), "\"false\"");
  }
}

TEST_F(PageTest, EvaluateGivesValuesAndErrors) {
  open("<meta http-equiv=Content-Security-Policy content=\"script-src 'none'; require-trusted-types-for 'script'\">");
  const std::string deep = std::string(100, '[') + "1" + std::string(100, ']');
  const std::pair<std::string, std::string> rows[] = {
      {"({a: [1, 2.5, 'x', null, true]})", R"({"a": [1, 2.5, "x", null, true]})"},
      {"Promise.resolve(7)", "7"},
      {"[NaN, 1/0, () => 1, , 5n]", "[null, null, null, null, 5]"},
      {"({kept: 1, symbol: Symbol(), big: 2n ** 63n, exact: 2n ** 63n - 1n, none: undefined})",
       R"({"kept": 1, "big": null, "exact": 9223372036854775807})"},
      {"[new Date(0), new URL('http://a/b'), new DOMPoint(1, 2), new Map([[1, 2]])]",
       R"(["1970-01-01T00:00:00.000Z", "http://a/b", {"x": 1, "y": 2, "z": 0, "w": 1}, {}])"},
      {"let a = 1; const b = 2; class C {}; a + b", "3"},
      {"let a = 3; const b = 4; class C {}; a + b", "7"},
      {"var kept = 5", "null"},
      {"kept", "5"},
      {"Array.prototype.toJSON = () => 'old'; [[1]]", "[[1]]"},
      {"12n", "12"},
      {"2n ** 70n", "null"},
      {"window", "null"},
      {"Symbol()", "null"},
      {"() => 1", "null"},
      {"'\\ud800x\\\\ud800\u00fc\U0001F600'", R"("\ufffdx\\ud800\u00fc\ud83d\ude00")"},
      {"'\\xe4'.repeat(3e6).length", "3000000"},
      {deep, deep},
      {"noSuchName", "EvaluationError: ReferenceError: noSuchName is not defined"},
      {"(() => { throw 'plain\\n\\x1b[1m' })()", R"(EvaluationError: plain\n\u001b[1m)"},
      {"Promise.reject(5)", "EvaluationError: 5"},
      {"Promise.reject(null)", "EvaluationError: null"},
      {"Promise.reject(true)", "EvaluationError: true"},
      {"Promise.reject()", "EvaluationError: undefined"},
      {"Promise.reject(Symbol('x'))", "EvaluationError: Symbol(x)"},
      {"Promise.reject(window)", "EvaluationError: Window"},
      {"'x'.repeat(9e6)", "BrowserError: the browser sent a message larger than 8 MiB"},
      {"1 +", "EvaluationError: SyntaxError: Unexpected end of input"},
      {"JSON.parse('['.repeat(270) + ']'.repeat(270))", "BrowserError: unreadable message from the browser: too deep"},
  };
  for (const auto& [expression, expected] : rows) {
    Running<json::value> evaluation(page_->evaluate(expression));
    const std::string error = evaluation.error();
    EXPECT_EQ(error == "no error" ? text::to_json(evaluation.get()) : error, expected) << expression;
  }
}

TEST(Screenshot, WaitsForWebFontsButNotForEver) {
  vision::test::ScriptedServer server(loop(), {{}});
  const std::string page = vision::test::response(
      "200 OK", "<!doctype html><link rel=icon href=data:,><iframe srcdoc='<p>text'></iframe><p>text");
  std::vector<std::unique_ptr<runtime::OneShot>> fonts;
  bool page_is_sent = false;
  server.choose = [&]() -> asio::awaitable<vision::test::Reply> {
    vision::test::Reply reply;
    if (!std::exchange(page_is_sent, true)) {
      reply.bytes = page;
      co_return reply;
    }
    runtime::OneShot& end = *fonts.emplace_back(std::make_unique<runtime::OneShot>(loop().get_executor()));
    co_await end.wait();
    reply.bytes = vision::test::response("404 Not Found", "");
    co_return reply;
  };
  auto browser = run(launch());
  auto opened = run(browser->new_page());
  run(opened->navigate(server.url()));
  run(
      opened->evaluate("shown = (page, font) => { page.document.head.innerHTML = `<style>"
                       "@font-face { font-family: W; src: url(${font}) } p { font: 40px W }</style>` }"));
  for (const std::string frame : {"window", "frames[0]"}) {
    fonts.clear();
    run(opened->evaluate("shown(" + frame + ", location.href + '" + frame + "')"));
    Running<Bytes> picture(opened->screenshot({}));
    while (fonts.empty()) take_turn();
    // By then, a picture that does not wait is taken.
    for (int i = 0; i < 20; ++i) value_of(*opened, "new Promise(requestAnimationFrame)");
    fonts[0]->set();
    EXPECT_TRUE(picture.get().view() == run(opened->screenshot({})).view()) << frame;
  }
  run(
      opened->evaluate("limits = []; const wait = setTimeout;"
                       "setTimeout = (done, limit, value) => { limits.push(limit); wait(done, 0, value) }"));
  run(opened->evaluate("shown(window, '/never')"));
  for (int i = 0; i < 3; ++i) run(opened->screenshot({}));
  EXPECT_EQ(value_of(*opened, "limits"), "[3000, 0, 0]");
  run(browser->close());
  for (const auto& font : fonts) font->set();
  while (server.open() > 0) take_turn();  // its connections refer to it
}

}  // namespace
}  // namespace vision::chromium::test
