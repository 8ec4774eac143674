// Whatever the identifiers are, a fixture is one file in its folder, or nothing.
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <filesystem>

#include "fuzz/input.hpp"
#include "tests/support/environment.hpp"
#include "vision/wirein/internal/fixtures.hpp"

namespace vision::fuzz {
namespace fs = std::filesystem;
namespace asio = boost::asio;

void check(Input input) {
  static const test::ScopedEnv in_memory("TMPDIR", "/dev/shm"), on("KX_VISION_FIXTURE_AUTO", "1");
  static const test::ScratchDirectory top;
  fs::create_directories(top.path() / "a/b/c/d/e/f");
  fs::current_path(top.path() / "a/b/c/d/e/f");
  const fs::path folder = "tests/fixtures/vision/auto";
  const std::string hotspot_id(input.text()), run_id(input);
  asio::io_context context;
  std::optional<std::string> path;
  asio::co_spawn(context, _harvest_fixture(Bytes("png"), hotspot_id, run_id),
                 [&](std::exception_ptr error, std::optional<std::string> given) {
                   require(!error, "nothing is thrown");
                   path = std::move(given);
                 });
  context.run();
  std::size_t files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(top.path())) files += entry.is_directory() ? 0 : 1;
  require(files == (path ? 1u : 0u), "one file, or none");
  if (path) {
    const fs::path given(*path);
    require(given.parent_path() == folder / hotspot_id && given.parent_path().parent_path() == folder, "in its folder");
    require(fs::is_regular_file(given), "under the returned name");
    require(given.filename().string().starts_with(run_id.empty() ? "run_" : run_id + "_"), "named after its run");
  }
  fs::remove_all("tests");
}

}  // namespace vision::fuzz
