#include <boost/asio/post.hpp>

#include "tests/http/http_world.hpp"
#include "tests/http/resolver.hpp"

namespace vision {
namespace {

using namespace test;
using Then = Reply::Then;
using Read = Reply::Read;

// The endings of a request that is cancelled whenever `stage` is told.
void expect_cancellable_at(const std::string& stage, const Reply& reply, const char* scheme, std::size_t image) {
  SCOPED_TRACE(stage + " over " + scheme);
  asio::io_context io;
  ScriptedServer server(io, {reply, {ok}});
  HttpMessagesClient client(key, HttpOptions().base_url(server.url("127.0.0.1", scheme)));
  Call call;
  bool closed = false;
  server.on_stage = [&](const std::string& reached) {
    if (reached == stage) call.cancel.emit(asio::cancellation_type::terminal);
    if (reached == "closed") closed = true;
  };
  call.start(io.get_executor(), client, make_request(image));
  while (!call.ended || !closed) io.run_one();
  EXPECT_EQ(call.ending, "cancelled");
  server.on_stage = [](const std::string&) {};
  HttpMessagesClient same_pool = client_for(server);
  EXPECT_EQ(ask(io, same_pool), R"({"content":[]})");
}

TEST(HttpCancel, EndsARequestThatIsStuckInAnyPhase) {
  expect_cancellable_at("accepted", {"", Then::drain, Read::none}, "https", 5);  // in the handshake
  expect_cancellable_at("head", {"", Then::drain, Read::head}, "http", 16 << 20);
  expect_cancellable_at("request", {"", Then::drain}, "http", 5);
  expect_cancellable_at("replied", {"HTTP/1.1 200 OK\r\ncontent-length: 9\r\n\r\n{", Then::drain}, "http", 5);
}

TEST(HttpCancel, EndsNameResolutionThatIsStuck) {
  asio::io_context io;
  Call call;
  const StuckResolver resolver([&] { asio::post(io, [&] { call.cancel.emit(asio::cancellation_type::terminal); }); });
  HttpMessagesClient client(key, HttpOptions().base_url("http://stuck.test").allow_plain_http(true));
  call.start(io.get_executor(), client, make_request());
  while (!call.ended) io.run_one();  // the resolver is released only afterwards
  EXPECT_EQ(call.ending, "cancelled");
}

// Cancels after each number of turns of the loop, until the request is done
// before.
TEST(HttpCancel, EndsARequestBetweenAnyTwoTurns) {
  int cancelled = 0;
  for (int turns = 0;; ++turns) {
    asio::io_context io;
    ScriptedServer server(io, {{ok}});
    HttpMessagesClient client = client_for(server);
    Call call;
    call.start(io.get_executor(), client, make_request(100'000));
    for (int i = 0; i < turns && !call.ended; ++i) io.run_one();
    if (call.ended) break;
    call.cancel.emit(asio::cancellation_type::terminal);
    while (!call.ended) io.run_one();
    // A response that was complete already is given, and never half of one.
    EXPECT_TRUE(call.ending == "cancelled" || call.ending == R"({"content":[]})") << call.ending;
    cancelled += call.ending == "cancelled";
    EXPECT_EQ(ask(io, client), R"({"content":[]})") << "after " << turns;
  }
  EXPECT_GT(cancelled, 10);
}

struct Sentinel {
  explicit Sentinel(int& count) : alive(count) { ++alive; }
  ~Sentinel() { --alive; }
  Sentinel(const Sentinel&) = delete;
  Sentinel& operator=(const Sentinel&) = delete;
  int& alive;
};

asio::awaitable<void> watched(HttpMessagesClient& client, int& alive) {
  const Sentinel sentinel(alive);
  const MessagesRequest request = make_request(100'000);
  (void)co_await client.create(request);
}

TEST(HttpCancel, AContextMayBeDestroyedBetweenAnyTwoTurns) {
  for (int turns = 0, completed = 0; completed == 0; ++turns) {
    int alive = 0;
    {
      asio::io_context io;
      ScriptedServer server(io, {{ok}});
      HttpMessagesClient client = client_for(server);
      for (int i = 0; i < 2; ++i) {
        asio::co_spawn(io, watched(client, alive), [&](std::exception_ptr) { ++completed; });
      }
      for (int i = 0; i < turns && completed == 0; ++i) io.run_one();
      completed = completed ? 1 : 0;
    }
    EXPECT_EQ(alive, 0) << "after " << turns;
  }
}

}  // namespace
}  // namespace vision
