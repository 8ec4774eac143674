#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "tools/check/settings.hpp"
#include "vision/wirein/internal/fixtures.hpp"
#include "vision/wirein/internal/shadow_log.hpp"

namespace check {
namespace fs = std::filesystem;
namespace {

struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) ::close(number);
  }
};

std::string last_error() {
  return std::generic_category().message(errno);
}

// The folder itself or, as the library creates folders, the nearest one above it.
fs::path existing(fs::path folder) {
  std::error_code error;
  while (!folder.empty() && !fs::exists(folder, error)) folder = folder.parent_path();
  return folder.empty() ? fs::path(".") : folder;
}

// Empty when a file can be made in the folder, and filled.
std::string why_not_writable(const fs::path& folder) {
  std::string path = (existing(folder) / ".vision-check-XXXXXX").string();
  const Descriptor file{::mkostemp(path.data(), O_CLOEXEC)};
  if (file.number < 0) return last_error();
  ::unlink(path.c_str());
  const std::string screenshot_size(std::size_t{1} << 20, 'x');
  for (std::string_view rest = screenshot_size; !rest.empty();) {
    const ssize_t written = ::write(file.number, rest.data(), rest.size());
    if (written < 0) return last_error();
    rest.remove_prefix(static_cast<std::size_t>(written));
  }
  return ::fdatasync(file.number) == 0 ? "" : last_error();
}

void check_folder(Checklist& list, const std::string& subject, const std::string& path, const fs::path& folder) {
  const std::string where = fs::absolute(path).lexically_normal().string();
  if (const std::string why = why_not_writable(folder); !why.empty()) {
    return list.failure(subject, where + " cannot be written: " + why,
                        "see the message; until it is mended, what belongs there is lost");
  }
  constexpr std::uintmax_t megabyte = 1'000'000, little = 500 * megabyte;
  std::error_code error;
  const std::uintmax_t free = fs::space(existing(folder), error).available;
  if (!error && free < little) {
    return list.warning(subject, fmt::format("{}, {} MB free", where, free / megabyte), "make room");
  }
  list.ok(subject, where);
}

void check_log(Checklist& list) {
  const fs::path path = vision::_shadow_log_path();
  std::error_code error;
  if (!fs::exists(path, error)) return check_folder(list, "log", path.string(), path.parent_path());
  const Descriptor log{::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC | O_NONBLOCK)};
  if (log.number < 0) {
    const std::string why = last_error();
    return list.failure("log", path.string() + " cannot be written: " + why,
                        "correct its permissions, or set KX_VISION_SHADOW_LOG to another file");
  }
  if (fs::is_regular_file(path, error)) return check_folder(list, "log", path.string(), path.parent_path());
  list.ok("log", path.string());
}

}  // namespace

void check_folders(Checklist& list) {
  check_log(list);
  if (vision::harvesting_is_on()) {
    check_folder(list, "fixtures", std::string(vision::fixture_folder), vision::fixture_folder);
  } else {
    list.ok("fixtures", "screenshots are not stored (KX_VISION_FIXTURE_AUTO is not 1)");
  }
}

}  // namespace check
