#include <limits>

#include "chromium/input/key_layout.hpp"
#include "tests/chromium/browser_fixture.hpp"

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
  addEventListener(type, e => log.push([type, e.key, e.code, held(e)].filter(Boolean).join(' ')));
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
  EXPECT_EQ(log(), "mousedown 139 65 1 button|mouseup 139 65 0 button|click 139 65 0 button");
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
  EXPECT_EQ(value_of(*page_, "until(() => log.length >= 2)"), "true");
  click.cancel();
  press.cancel();
  click.error();
  press.error();
  run(page_->evaluate("count = type => log.filter(x => x.startsWith(type)).length"));
  EXPECT_EQ(value_of(*page_, "until(() => count('mouseup') && count('keyup') >= count('keydown'))"), "true");
}

std::string png_size(const Bytes& png) {
  EXPECT_EQ(png.view().substr(0, 8), "\x89PNG\r\n\x1a\n");
  EXPECT_EQ(png.view().substr(png.size() - 8, 4), "IEND");
  const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(png.view()[at]); };
  return std::to_string(byte(18) << 8 | byte(19)) + " x " + std::to_string(byte(22) << 8 | byte(23));
}

TEST_F(PageTest, ScreenshotsHaveTheRightSize) {
  const std::tuple<double, const char*, const char*> rows[] = {{1, "640 x 400", "640 x 1500"},
                                                               {2, "1280 x 800", "1280 x 3000"}};
  for (const auto& [ratio, viewport, whole] : rows) {
    auto page = run(browser_->new_page(PageOptions().viewport(640, 400).device_pixel_ratio(ratio)));
    run(page->navigate(page_url("<body style='margin:0;height:1500px;background:linear-gradient(red,blue)'>")));
    const Bytes small = run(page->screenshot({}));
    page->optimize_for_speed(true);
    const Bytes fast = run(page->screenshot({}));
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
  EXPECT_FALSE(run(opener->screenshot({})).empty());  // in front of the windows that were opened over it
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
  const std::string deep = std::string(100, '[') + "1" + std::string(100, ']');
  const std::pair<std::string, std::string> rows[] = {
      {"({a: [1, 2.5, 'x', null, true]})", R"({"a": [1, 2.5, "x", null, true]})"},
      {"Promise.resolve(7)", "7"},
      {"[NaN, 1/0].map(x => x)", "[null, null]"},
      {"12n", "12"},
      {"2n ** 70n", "null"},
      {"window", "null"},
      {"'\\ud800x\\\\ud800\u00fc\U0001F600'", R"("\ufffdx\\ud800\u00fc\ud83d\ude00")"},
      {"'\\xe4'.repeat(3e6).length", "3000000"},
      {deep, deep},
      {"noSuchName", "EvaluationError: ReferenceError: noSuchName is not defined"},
      {"(() => { throw 'plain' })()", "EvaluationError: plain"},
      {"Promise.reject(5)", "EvaluationError: 5"},
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

}  // namespace
}  // namespace vision::chromium::test
