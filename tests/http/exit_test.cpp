#include <atomic>
#include <boost/asio/use_future.hpp>
#include <cstdlib>
#include <thread>

#include "tests/http/http_world.hpp"

namespace vision {
namespace {

using namespace test;

// What a program has that exits while its event loop's thread makes calls.
struct Program {
  asio::io_context io;
  HttpMessagesClient client;
  MessagesRequest request;
  std::atomic<int> answers = 0;
  std::thread thread;
};
Program* program = nullptr;

// The last exit handler: by then OpenSSL has cleaned up, and the thread still runs.
void end_program() {
  if (!program) return;
  try {
    asio::co_spawn(program->io, program->client.create(program->request), asio::use_future).get();
    std::_Exit(1);
  } catch (const APIConnectionError& error) {
    if (!std::string_view(error.what()).ends_with("the process exits")) std::_Exit(2);
  }
  program->io.stop();
  program->thread.join();
  delete program;
}

// Before anything initialises OpenSSL, so that it runs after OpenSSL's own.
[[gnu::constructor(101)]] void register_last_exit_handler() {
  if (std::atexit(end_program) != 0) std::abort();
}

asio::awaitable<void> call_for_ever(Program& caller) {
  for (;;) {
    co_await caller.client.create(caller.request);
    ++caller.answers;
    caller.answers.notify_all();
  }
}

[[noreturn]] void exit_during_calls(const std::string& url) {
  program = new Program{
      {}, HttpMessagesClient(api_key, HttpOptions().base_url(url).ca_file("good.pem")), make_request(20'000), 0, {}};
  for (int i = 0; i < 4; ++i) asio::co_spawn(program->io, call_for_ever(*program), [](std::exception_ptr) {});
  program->thread = std::thread([] { program->io.run(); });
  for (int answered = 0; answered < 20; answered = program->answers) program->answers.wait(answered);
  std::exit(0);
}

// The program is this one again, run by the shell; its server is here.
TEST(HttpExit, MayComeWhileAnotherThreadMakesCalls) {
  if (const char* const url = std::getenv("VISION_EXIT_TEST_URL")) {
    exit_during_calls(url);
  }
  const ScratchDirectory scratch;
  auto tls_context = tls_server("good", "localhost");
  asio::io_context io;
  ScriptedServer server(io, {{response("200 OK", answer, "connection: close\r\n"), Then::close}}, &tls_context);
  std::thread server_thread([&io] { io.run(); });
  const ScopedEnv url("VISION_EXIT_TEST_URL", server.url("localhost"));
  // OpenSSL frees nothing that it allocates after its clean-up.
  const ScopedEnv leaks("ASAN_OPTIONS", "detect_leaks=0");
  const std::string run = std::filesystem::read_symlink("/proc/self/exe").string() + " --gtest_filter=HttpExit.*";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(std::system((run + " >output 2>&1").c_str()), 0) << read_file("output");
  io.stop();
  server_thread.join();
}

}  // namespace
}  // namespace vision
