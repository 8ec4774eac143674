// Drives pages of a Chromium with vision::chromium as the lines on standard input say,
// one JSON array each: ["page", WIDTH, HEIGHT, RATIO], which opens the page that the next
// lines mean, ["navigate", URL], ["click", X, Y], ["wheel", DX, DY], ["press", KEY],
// ["type", TEXT], ["evaluate", SCRIPT], ["screenshot", FULL_PAGE]. Answers each with a
// line: {"value": ...} (a picture as base64) or {"error": TEXT}.
//   page_driver URL
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/json/parse.hpp>
#include <iostream>

#include "chromium/browser.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"

using namespace vision;
namespace asio = boost::asio;
namespace json = boost::json;

namespace {

class Driver {
 public:
  explicit Driver(std::shared_ptr<chromium::Browser> browser) : browser_(std::move(browser)) {}

  asio::awaitable<json::value> perform(json::array line) {
    const std::string operation(line.at(0).as_string());
    const auto text = [&] { return std::string(line.at(1).as_string()); };
    const auto number = [&](std::size_t at) { return line.at(at).to_number<double>(); };
    if (operation == "page") {
      const auto options = chromium::PageOptions()
                               .viewport(static_cast<int>(number(1)), static_cast<int>(number(2)))
                               .device_pixel_ratio(number(3));
      page_ = co_await browser_->new_page(options);
    } else if (operation == "navigate") {
      co_await page_->navigate(text());
    } else if (operation == "click") {
      co_await page_->mouse().click(number(1), number(2));
    } else if (operation == "wheel") {
      co_await page_->mouse().wheel(number(1), number(2));
    } else if (operation == "press") {
      co_await page_->keyboard().press(text());
    } else if (operation == "type") {
      co_await page_->keyboard().type(text(), std::chrono::milliseconds(0));
    } else if (operation == "evaluate") {
      co_return co_await page_->evaluate(text());
    } else if (operation == "screenshot") {
      const auto options = ScreenshotOptions().full_page(line.at(1).as_bool());
      const Bytes picture = co_await page_->screenshot(options);
      co_return json::value(_b64(picture.view()));
    } else {
      throw std::invalid_argument("unknown operation: " + operation);
    }
    co_return json::value();
  }

 private:
  const std::shared_ptr<chromium::Browser> browser_;
  std::shared_ptr<chromium::ChromiumPage> page_;
};

asio::awaitable<void> answer_all(std::string url) {
  Driver driver(co_await chromium::connect(url));
  for (std::string line; std::getline(std::cin, line);) {
    json::array order = json::parse(line).as_array();
    auto outcome = co_await runtime::try_await(driver.perform(std::move(order)));
    json::object answer;
    if (outcome.has_value()) answer["value"] = std::move(outcome.value());
    if (outcome.error()) answer["error"] = text::describe(outcome.error()).message;
    std::cout << text::to_json(answer) << std::endl;
  }
}

}  // namespace

int main(int, char** arguments) {
  asio::io_context loop;
  asio::co_spawn(loop, answer_all(arguments[1]), [](std::exception_ptr error) {
    if (error) std::rethrow_exception(error);
  });
  loop.run();
}
