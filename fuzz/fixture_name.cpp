// Whatever the identifiers are, a fixture is one file in its folder, or nothing.
#include <stdlib.h>
#include <unistd.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <filesystem>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/wirein/fixtures.hpp"

namespace {

namespace fs = std::filesystem;
namespace asio = boost::asio;
using vision::fuzz::require;

// A folder with the current one in it, on a file system in memory.
const fs::path& room() {
  static const fs::path path = [] {
    std::string pattern = "/dev/shm/vision-fuzz-XXXXXX";
    const fs::path out = ::mkdtemp(pattern.data());
    fs::create_directories(out / "a/b/c/d/e/f/current");
    fs::current_path(out / "a/b/c/d/e/f/current");
    ::setenv("KX_VISION_FIXTURE_AUTO", "1", 1);
    std::atexit([] { fs::remove_all(room()); });
    return out;
  }();
  return path;
}

std::optional<std::string> harvest(std::string hotspot_id, std::optional<std::string> run_id) {
  asio::io_context context;
  std::optional<std::string> out;
  asio::co_spawn(context, vision::_harvest_fixture(vision::Bytes("png"), std::move(hotspot_id), std::move(run_id)),
                 [&](std::exception_ptr error, std::optional<std::string> path) {
                   require(!error, "nothing is thrown");
                   out = std::move(path);
                 });
  context.run();
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const fs::path top = room();
  const std::string hotspot_id(input.text());
  const std::string run_id(input.rest());
  const auto path = harvest(hotspot_id, run_id);

  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(top)) files += entry.is_directory() ? 0 : 1;
  require(files == (path ? 1u : 0u), "one file, or none");
  const fs::path folder = "tests/fixtures/vision/auto";
  if (path) {
    const fs::path given(*path);
    require(given.parent_path() == folder / hotspot_id && given.parent_path().parent_path() == folder, "in its folder");
    require(fs::is_regular_file(*path), "under the name that was told");
    require(given.filename().string().starts_with(run_id.empty() ? "run_" : run_id + "_"), "named after its run");
  }
  fs::remove_all("tests");
  return 0;
}
