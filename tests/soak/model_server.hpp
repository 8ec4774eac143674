#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <stdexcept>
#include <string>

#include "tests/http/scripted_server.hpp"
#include "tests/support/scripted.hpp"

namespace vision::soak {

/// A model server that misbehaves at random, in a process of its own, so that its
/// descriptors and its memory are not the client's.
class ModelServer {
 public:
  /// To be called while the process has one thread.
  explicit ModelServer(unsigned seed) {
    int ends[2];
    if (::pipe(ends) != 0 || (child_ = ::fork()) < 0) throw std::runtime_error("the model server does not start");
    if (child_ == 0) serve(seed, ends[1]);
    ::close(ends[1]);
    char text[64] = {};
    if (::read(ends[0], text, sizeof text - 1) <= 0) throw std::runtime_error("the model server does not start");
    ::close(ends[0]);
    url = text;
  }
  ~ModelServer() {
    ::kill(child_, SIGKILL);
    ::waitpid(child_, nullptr, 0);
  }
  ModelServer(const ModelServer&) = delete;
  ModelServer& operator=(const ModelServer&) = delete;

  std::string url;

 private:
  using Then = test::Reply::Then;

  [[noreturn]] static void serve(unsigned seed, int out) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    test::asio::io_context io;
    std::minstd_rand rng(seed);
    test::ScriptedServer server(io, {{}});
    server.choose = [&rng] { return choose(rng); };
    const std::string own_url = server.url();
    if (::write(out, own_url.data(), own_url.size()) > 0) io.run();
    ::_exit(1);
  }

  static test::asio::awaitable<test::Reply> choose(std::minstd_rand& rng) {
    const auto below = [&rng](std::size_t bound) { return rng() % bound; };
    const std::string good = test::response("200 OK", answer(rng));
    const std::string part = good.substr(0, below(good.size()));
    const char* const status[] = {"429 Too Many Requests", "500 Internal Server Error", "529 Overloaded", "400 Bad"};
    const std::string failure = test::response(status[below(4)], R"({"type": "error", "error": {"message": "no"}})");
    const std::string noise = "HTTP/1.1 200 OK\r\n\r\n" + std::string(below(2000), static_cast<char>(below(256)));
    const test::Reply bad[] = {{good, Then::close},  {failure},          {part, Then::close}, {part, Then::reset},
                               {noise, Then::close}, {part, Then::drain}};
    const std::size_t kind = below(14);
    // Some think for about as long as the client's time limit.
    const std::size_t longest_ms = below(20) == 0 ? 2000 : 40;
    co_await runtime::sleep_for(std::chrono::milliseconds(below(longest_ms)));
    co_return kind < std::size(bad) ? bad[kind] : test::Reply{good};
  }

  static std::string answer(std::minstd_rand& rng) {
    const std::string at = "0." + std::to_string(rng() % 1000), x = R"(, "x_ratio": )" + at,
                      y = R"(, "y_ratio": )" + at;
    const std::string answers[] = {test::proposal("click", 0.9, x + y),
                                   test::proposal("type", 0.9, R"(, "text": "hello ä")"),
                                   test::proposal("scroll", 0.9, R"(, "scroll_dy_ratio": )" + at),
                                   test::proposal("wait", 0.9, R"(, "duration_ms": 300)"),
                                   test::proposal("declare_success", 0.9),
                                   test::proposal("declare_failure", 0.9),
                                   test::proposal("escalate_to_cua", 0.9),
                                   test::proposal("click", 0.3, x + y),
                                   R"({"content": 7})",
                                   R"({"content": [{"type": "text", "text": "I would rather talk."}]})"};
    return answers[rng() % std::size(answers)];
  }

  pid_t child_ = -1;
};

}  // namespace vision::soak
