#include "tools/check/browser.hpp"

#include <fmt/core.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <exception>

#include "chromium/browser.hpp"

namespace check {
namespace asio = boost::asio;
namespace json = boost::json;
namespace {

using Clock = std::chrono::steady_clock;

// A letter that no font has is drawn as a box; one that looks like it is missing.
constexpr const char* which_letters_are_missing = R"((() => {
  const canvas = document.createElement('canvas');
  canvas.width = canvas.height = 48;
  const context = canvas.getContext('2d');
  context.font = '32px sans-serif';
  context.textBaseline = 'top';
  const drawn = text => {
    context.clearRect(0, 0, 48, 48);
    context.fillText(text, 4, 4);
    return canvas.toDataURL();
  };
  const nothing = [drawn(' '), drawn('\u{F0000}'), drawn('\u{10FFFD}')];
  const samples = {Latin: 'g', Cyrillic: 'ж', Greek: 'λ', Arabic: 'ع', Hebrew: 'ש', Devanagari: 'अ', Thai: 'ก',
                   Chinese: '中', Japanese: 'あ', Korean: '한', emoji: '😀'};
  return Object.keys(samples).filter(name => nothing.includes(drawn(samples[name])));
})())";

void judge_fonts(Checklist& list, const json::value& missing) {
  std::string names;
  bool has_latin = true;
  for (const auto& name : missing.as_array()) {
    has_latin = has_latin && name.as_string() != "Latin";
    names += (names.empty() ? "" : ", ") + std::string(name.as_string());
  }
  if (!has_latin) {
    return list.failure("fonts", "none: text would be missing from screenshots",
                        "install fonts, such as fonts-liberation");
  }
  if (names.empty()) return list.ok("fonts", "all scripts that were tried");
  list.warning("fonts", "pages would show boxes for: " + names,
               "install fonts for the languages of your pages, such as fonts-noto-core, fonts-noto-cjk and "
               "fonts-noto-color-emoji");
}

asio::awaitable<vision::Bytes> look(Checklist& list, std::string executable, View view, std::string& subject) {
  const auto start = Clock::now();
  const auto since = [](Clock::time_point earlier) {
    return std::chrono::duration<double, std::milli>(Clock::now() - earlier).count();
  };
  vision::chromium::LaunchOptions options;
  options.executable(executable);
  const auto browser = co_await vision::chromium::launch(options);
  list.ok("browser", fmt::format("{} started in {:.0f} ms", executable, since(start)));
  vision::chromium::PageOptions page_options;
  page_options.viewport(view.width, view.height).device_pixel_ratio(view.ratio);
  const auto page = co_await browser->new_page(page_options);
  subject = "picture";
  const auto shot_start = Clock::now();
  vision::ScreenshotOptions screenshot_options;
  vision::Bytes picture = co_await page->screenshot(screenshot_options);
  list.ok("picture", fmt::format("a screenshot of an empty page took {:.0f} ms", since(shot_start)));
  const std::string expression = which_letters_are_missing;
  const json::value missing = co_await page->evaluate(expression);
  judge_fonts(list, missing);
  co_await browser->close();
  co_return picture;
}

}  // namespace

vision::Bytes check_browser(Checklist& list, const std::string& executable, const View& view) {
  asio::io_context io;
  vision::Bytes picture;
  std::string subject = "browser";
  std::exception_ptr failure;
  asio::co_spawn(io, look(list, executable, view, subject), [&](std::exception_ptr error, vision::Bytes result) {
    failure = error;
    picture = std::move(result);
  });
  io.run();
  try {
    if (failure) std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    list.failure(subject, error.what(),
                 subject == "picture" ? "try a smaller --viewport or --ratio"
                                      : "install chromium, or name it with --browser (LaunchOptions::executable); if "
                                        "the pipeline brings its own pages, use --no-browser");
  }
  return picture;
}

}  // namespace check
