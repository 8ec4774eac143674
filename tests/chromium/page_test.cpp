#include <limits>

#include "tests/chromium/browser_fixture.hpp"

namespace vision::chromium::test {
namespace {

// Records what reaches the page, in the page.
const std::string recorder = R"(<!doctype html><title>recorder</title><body style="margin:0;height:3000px">
<button id=button style="position:absolute;left:100px;top:50px;width:80px;height:30px">B</button>
<textarea id=area style="position:absolute;left:100px;top:100px;width:300px;height:60px"></textarea>
<div id=list style="position:absolute;left:500px;top:100px;width:200px;height:200px;overflow:auto">
<div style="height:2000px"></div></div>
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
};

TEST_F(Input, MouseClicksAndScrollsWhereItIs) {
  run(page_->mouse().click(139.5, 65));
  EXPECT_EQ(log(), "mousedown 139 65 1 button|mouseup 139 65 0 button|click 139 65 0 button");

  run(page_->mouse().click(600, 150));
  log();
  run(page_->mouse().wheel(0, 240));
  EXPECT_EQ(value_of(*page_, "until(() => list.scrollTop === 240)"), "true");
  EXPECT_EQ(log(), "wheel 600 150 0 240");
  run(page_->mouse().wheel(0, 0));

  auto fresh = run(browser_->new_page());
  run(fresh->navigate(page_url(recorder)));
  run(fresh->mouse().wheel(0, 300));
  EXPECT_EQ(value_of(*fresh, "until(() => scrollY === 300)"), "true") << "the mouse starts in the corner";

  const double nan = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(error_of(page_->mouse().click(1, nan)), "invalid_argument: mouse.click: y is nan, not a finite number");
  EXPECT_EQ(error_of(page_->mouse().wheel(-1.0 / 0.0, 0)),
            "invalid_argument: mouse.wheel: delta_x is -inf, not a finite number");
}

TEST_F(Input, TypesAnyText) {
  const std::pair<std::string, std::string> cases[] = {
      {"Hello, World!", "Hello, World!"},
      {"~`|\\{}[]\"'<>?", "~`|\\{}[]\"'<>?"},
      {"gr\u00fc\u00df \U0001F600 \u4f60", "gr\u00fc\u00df \U0001F600 \u4f60"},
      {"one\ntwo\r\nthree\rfour", "one\ntwo\nthree\nfour"},
      {"bad\xff\xc3(", "bad\ufffd\ufffd("},
      {"", ""},
  };
  run(page_->evaluate("area.focus()"));
  for (const auto& [text, expected] : cases) {
    run(page_->evaluate("area.value = ''"));
    run(page_->keyboard().type(text, milliseconds(0)));
    EXPECT_EQ(area(), expected);
  }
  log();
  run(page_->evaluate("area.value = ''"));
  run(page_->keyboard().type("aB\u00fc", milliseconds(1)));
  EXPECT_EQ(log(),
            "keydown a KeyA|keypress a KeyA|input a|keyup a KeyA|keydown B KeyB|keypress B KeyB|input B|keyup B KeyB|"
            "input \u00fc");
}

TEST_F(Input, PressesKeysAndChords) {
  struct Case {
    const char* before;
    const char* chord;
    const char* after;
    const char* events;
  };
  const Case cases[] = {
      {"ab", "Enter", "ab\n", "keydown Enter Enter|keypress Enter Enter|input insertLineBreak|keyup Enter Enter"},
      {"ab", "Backspace", "a", "keydown Backspace Backspace|input deleteContentBackward|keyup Backspace Backspace"},
      {"", "Shift+a", "A",
       "keydown Shift ShiftLeft S|keydown A KeyA S|keypress A KeyA S|input A|keyup A KeyA S|keyup Shift ShiftLeft"},
      {"", "Shift+Digit1", "!",
       "keydown Shift ShiftLeft S|keydown ! Digit1 S|keypress ! Digit1 S|input !|keyup ! Digit1 S|keyup Shift "
       "ShiftLeft"},
      {"", "Control++", "",
       "keydown Control ControlLeft C|keydown + Equal C|keyup + Equal C|keyup Control ControlLeft"},
      {"", "Control+Shift+T", "",
       "keydown Control ControlLeft C|keydown Shift ShiftLeft CS|keydown T KeyT CS|keyup T KeyT CS|keyup Shift "
       "ShiftLeft C|keyup Control ControlLeft"},
      {"", "AltRight+x", "", "keydown Alt AltRight A|keydown x KeyX A|keyup x KeyX A|keyup Alt AltRight"},
      {"", "F5", "", "keydown F5 F5|keyup F5 F5"},
  };
  for (const auto& c : cases) {
    run(page_->evaluate("area.value = " + text::to_json(json::value(c.before)) + "; area.focus()"));
    run(page_->keyboard().press(c.chord));
    EXPECT_EQ(area(), c.after) << c.chord;
    EXPECT_EQ(log(), c.events) << c.chord;
  }
  run(page_->evaluate("area.value = 'to be replaced'"));
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
  EXPECT_EQ(
      value_of(*page_,
               "until(() => log.some(x => x.startsWith('mouseup')) && "
               "log.filter(x => x.startsWith('keyup')).length >= log.filter(x => x.startsWith('keydown')).length)"),
      "true");
}

std::pair<unsigned, unsigned> png_size(const Bytes& png) {
  EXPECT_EQ(png.view().substr(0, 8), "\x89PNG\r\n\x1a\n");
  EXPECT_EQ(png.view().substr(png.size() - 8, 4), "IEND");
  const auto number = [&](std::size_t at) {
    unsigned out = 0;
    for (std::size_t i = at; i < at + 4; ++i) out = out << 8 | static_cast<unsigned char>(png.view()[i]);
    return out;
  };
  return {number(16), number(20)};
}

TEST_F(PageTest, ScreenshotsHaveTheRightSize) {
  const std::pair<double, unsigned> ratios[] = {{1, 1}, {2, 2}};
  for (const auto& [ratio, factor] : ratios) {
    PageOptions options;
    options.viewport(640, 400).device_pixel_ratio(ratio);
    auto page = run(browser_->new_page(options));
    run(page->navigate(page_url("<body style='margin:0;height:1500px;background:linear-gradient(red,blue)'>")));
    const Bytes small = run(page->screenshot({}));
    page->optimize_for_speed(true);
    const Bytes fast = run(page->screenshot({}));
    EXPECT_EQ(png_size(small), std::pair(640 * factor, 400 * factor));
    EXPECT_EQ(png_size(fast), png_size(small));
    EXPECT_GT(fast.size(), small.size());
    EXPECT_EQ(png_size(run(page->screenshot(ScreenshotOptions().full_page(true)))),
              std::pair(640 * factor, 1500 * factor));
    EXPECT_EQ(text::to_json(*page->viewport_size()), R"({"width": 640, "height": 400})");
    EXPECT_EQ(value_of(*page, "[innerWidth, innerHeight, devicePixelRatio]"),
              "[640, 400, " + std::to_string(factor) + "]");
  }
  EXPECT_EQ(error_of(browser_->new_page(PageOptions().viewport(0, 5))),
            "invalid_argument: a viewport of 0 by 5 pixels");
}

TEST_F(PageTest, AHiddenPageIsShown) {
  open("<body onclick=\"window.open('about:blank')\" style='height:500px'>");
  run(page_->mouse().click(50, 50));
  std::shared_ptr<ChromiumPage> tab;
  for (const auto& info : run(browser_->pages())) {
    if (info.target_id != page_->target_id()) tab = run(browser_->attach(info.target_id));
  }
  ASSERT_TRUE(tab);
  EXPECT_FALSE(run(page_->screenshot({})).empty());  // in front of the tab that was opened over it
  EXPECT_EQ(value_of(*tab,
                     "new Promise(done => { const look = () => document.visibilityState === 'hidden' ? "
                     "done(true) : setTimeout(look, 5); look(); })"),
            "true");
  EXPECT_FALSE(run(tab->screenshot({})).empty());
  run(tab->close());
}

TEST_F(PageTest, DialogsAreDismissed) {
  open(
      "<body onclick=\"out = [alert('a'), confirm('b'), prompt('c', 'd')]\" style='height:500px'>"
      "<script>onbeforeunload = e => e.preventDefault(); setTimeout(() => alert('early'))</script>");
  run(page_->mouse().click(50, 50));
  EXPECT_EQ(value_of(*page_, "out"), "[null, false, null]");
  open("<title>next</title>");  // past the question whether to leave
  EXPECT_EQ(value_of(*page_, "document.title"), "\"next\"");
}

TEST_F(PageTest, EvaluateGivesValuesAndErrors) {
  std::string deep = "1";
  for (int i = 0; i < 100; ++i) deep = "[" + deep + "]";
  const std::pair<std::string, std::string> cases[] = {
      {"({a: [1, 2.5, 'x', null, true]})", R"({"a": [1, 2.5, "x", null, true]})"},
      {"Promise.resolve(7)", "7"},
      {"undefined", "null"},
      {"[NaN, 1/0].map(x => x)", "[null, null]"},
      {"NaN", "null"},
      {"-Infinity", "null"},
      {"-0", "0"},
      {"12n", "12"},
      {"2n ** 70n", "null"},
      {"() => 1", "null"},
      {"Symbol('s')", "null"},
      {"window", "null"},
      {"'\\ud800x\\\\ud800'", R"("\ufffdx\\ud800")"},
      {"'\u00fc\U0001F600'", R"("\u00fc\ud83d\ude00")"},
      {deep, deep},
      {"noSuchName", "EvaluationError: ReferenceError: noSuchName is not defined"},
      {"(() => { throw new TypeError('two\\nlines') })()", "EvaluationError: TypeError: two\nlines"},
      {"(() => { throw 'plain' })()", "EvaluationError: plain"},
      {"(() => { throw {a: 1} })()", "EvaluationError: Object"},
      {"Promise.reject(5)", "EvaluationError: 5"},
      {"1 +", "EvaluationError: SyntaxError: Unexpected end of input"},
  };
  for (const auto& [expression, expected] : cases) {
    Running<json::value> evaluation(page_->evaluate(expression));
    const std::string error = evaluation.error();
    EXPECT_EQ(error == "no error" ? text::to_json(evaluation.get()) : error, expected) << expression;
  }
  EXPECT_EQ(error_of(page_->evaluate("JSON.parse('['.repeat(270) + ']'.repeat(270))")),
            "BrowserError: unreadable message from the browser: too deep");
  EXPECT_EQ(value_of(*page_, "'\\xe4'.repeat(3e6).length"), "3000000");
}

}  // namespace
}  // namespace vision::chromium::test
