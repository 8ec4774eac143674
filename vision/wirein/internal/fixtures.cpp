#include "vision/wirein/internal/fixtures.hpp"

#include <atomic>
#include <boost/asio/this_coro.hpp>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/worker.hpp"
#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/numbers.hpp"
#include "vision/text/internal/utf8.hpp"
#include "vision/wirein/internal/file.hpp"

namespace vision {
namespace asio = boost::asio;
namespace {

std::atomic<std::uint64_t> losses = 0;

// A name from the caller may only ever be one path component.
void require_plain_name(std::string_view what, std::string_view name) {
  using namespace std::string_view_literals;
  if (name.empty() || name == "." || name == ".." || name.find_first_of("/\0"sv) != std::string_view::npos) {
    throw std::invalid_argument(std::string(what) + " is not a plain file name: \"" + std::string(name) + "\"");
  }
}

asio::awaitable<std::string> write_fixture(Bytes image, std::string hotspot_id, std::optional<std::string> run_id) {
  require_plain_name("hotspot_id", hotspot_id);
  const std::string run = run_id && !run_id->empty() ? *run_id : "run";
  require_plain_name("run_id", run);
  const std::string base = std::string(fixture_folder) + "/" + hotspot_id;
  const auto executor = co_await asio::this_coro::executor;
  const double now = runtime::to_seconds(runtime::time_source(executor).wall_now());
  const std::string name = run + "_" + std::to_string(text::truncate(now)) + ".png";
  auto _write = [base, name, image = std::move(image)] { detail::write_file(base, name, image.view()); };
  std::function<void()> job = std::move(_write);
  co_await runtime::run_on_worker(std::move(job));
  co_return base + "/" + name;
}

}  // namespace

bool harvesting_is_on() noexcept {
  const char* value = std::getenv("KX_VISION_FIXTURE_AUTO");
  const std::string_view flag = text::trim(value ? value : "");
  return flag == "1" || flag == "true" || flag == "yes";
}

asio::awaitable<std::optional<std::string>> _harvest_fixture(Bytes image_bytes, std::string hotspot_id,
                                                             std::optional<std::string> run_id) {
  if (!harvesting_is_on()) co_return std::nullopt;
  auto operation = write_fixture(std::move(image_bytes), std::move(hotspot_id), std::move(run_id));
  auto written = co_await runtime::try_await(std::move(operation));
  if (written.has_value()) co_return std::move(written.value());
  losses.fetch_add(1, std::memory_order_relaxed);
  log::line(spdlog::level::debug, "fixture harvest failed: %s", text::describe(written.error()).message);
  co_return std::nullopt;
}

std::uint64_t fixture_losses() noexcept {
  return losses.load(std::memory_order_relaxed);
}

}  // namespace vision
