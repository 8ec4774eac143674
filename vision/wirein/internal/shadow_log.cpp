#include "vision/wirein/internal/shadow_log.hpp"

#include <atomic>
#include <cstdlib>

#include "vision/settings/internal/log.hpp"
#include "vision/text/internal/error_text.hpp"
#include "vision/text/internal/json_text.hpp"
#include "vision/wirein/internal/file.hpp"

namespace vision {
namespace {

std::atomic<std::uint64_t> losses = 0;

}  // namespace

std::string _shadow_log_path() {
  const char* path = std::getenv("KX_VISION_SHADOW_LOG");
  return path && *path ? path : "logs/vision_shadow.jsonl";
}

void _append_shadow_record(const boost::json::object& rec) noexcept {
  try {
    constexpr std::size_t usual_size = 1000;
    std::string line;
    line.reserve(usual_size);
    text::append_json(line, rec);
    line += '\n';
    detail::append_line(_shadow_log_path(), std::move(line));
  } catch (...) {
    losses.fetch_add(1, std::memory_order_relaxed);
    log::line(spdlog::level::debug, "shadow log append failed: %s", text::describe(std::current_exception()).message);
  }
}

std::uint64_t shadow_log_losses() noexcept {
  return losses.load(std::memory_order_relaxed);
}

}  // namespace vision
