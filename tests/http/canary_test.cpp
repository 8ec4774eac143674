#include <gmock/gmock.h>

#include <filesystem>

#include "tests/http/scripted_server.hpp"
#include "tests/support/environment.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/records/base64.hpp"
#include "vision/text/errors.hpp"
#include "vision/text/json_text.hpp"
#include "vision/wirein/observer.hpp"

namespace vision {
namespace {

using namespace test;
using Then = Reply::Then;

const std::string canary = "sk-canary/0123+45\"67~";

template <class Each>
std::string each(Each form) {
  std::string out;
  for (const char c : canary) out += form(c);
  return out;
}

std::string with_digits(const char* format) {
  return each([format](char c) {
    char text[8];
    std::snprintf(text, sizeof text, format, static_cast<unsigned>(c));
    return std::string(text);
  });
}

// Forms in which a peer may give the key back; what is looked for is a part of each
// that tells the key.
const std::pair<std::string, std::string> echoes[] = {
    {canary, "canary"},
    {_b64(canary), _b64(canary).substr(4, 16)},
    {_b64("u:" + canary), _b64("u:" + canary).substr(4, 16)},
    {_b64("x" + canary + "tail"), _b64("x" + canary).substr(4, 16)},
    {with_digits("%02x"), "63616e617279"},
    {with_digits("%02X"), "63616E617279"},
    {with_digits("%%%02X"), "%63%61%6E%61%72%79"},
    {each([](char c) {
       return std::isalnum(c) || c == '-' || c == '~' ? std::string(1, c) : c == '/' ? "%2F" : c == '+' ? "%2B" : "%22";
     }),
     "canary%2F"},
    {with_digits("\\u%04x"), "\\u0063\\u0061"},
    {with_digits("\\\\u%04x"), "\\u0063\\u0061"},
    {R"(sk-canary\/0123+45\"67~)", "canary"},
};

std::vector<Reply> replies(const std::string& echo) {
  const std::string quoted =
      echo.find('\\') == echo.npos ? text::to_json(boost::json::value(echo)) : "\"" + echo + "\"";
  const std::string header = "request-id: " + echo + "\r\nlocation: http://x/" + echo + "\r\n";
  std::vector<Reply> out;
  for (const char* status : {"200 OK", "204 X", "302 X", "400 X", "401 X", "429 X", "500 X", "999 X"}) {
    const std::string body = R"({"error": {"type": )" + quoted + R"(, "message": )" + quoted + "}}";
    for (const std::string& text : {body, echo, std::string(190, 'x') + echo, "[" + quoted + "]"}) {
      out.push_back({response(status, text, header)});
    }
    out.push_back({response(status, echo, "content-encoding: " + echo + "\r\n")});
  }
  out.push_back({"HTTP/1.1 200 " + echo + "\r\n" + header + "content-length: 9\r\n\r\n" + echo, Then::close});
  out.push_back({echo + "\r\n\r\n", Then::close});
  out.push_back({"HTTP/1.1 200 OK\r\ncontent-length: " + echo + "\r\n\r\n", Then::close});
  std::string call = R"({"action": #, "reason": #, "next_expected_state": #, "text": #, "key": #, "confidence": #})";
  for (auto at = call.find('#'); at != call.npos; at = call.find('#', at + quoted.size())) call.replace(at, 1, quoted);
  out.push_back({response("200 OK", tool_call(call))});
  out.push_back({"", Then::reset});
  return out;
}

std::string everything_below(const std::filesystem::path& folder) {
  std::string out;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    out += entry.path().string() + "\n" + (entry.is_regular_file() ? read_file(entry.path()) : "") + "\n";
  }
  return out;
}

TEST(Canary, TheKeyGoesNowhereButIntoTheRequest) {
  TestRegistry::instance();
  const ScratchDirectory here;
  const ScopedEnv fixtures("KX_VISION_FIXTURE_AUTO", "1");
  const LogCapture log(spdlog::level::trace);
  for (const auto& [echo, mark] : echoes) {
    for (const Reply& reply : replies(echo)) {
      asio::io_context io;
      ScriptedServer server(io, {reply});
      auto http = std::make_shared<HttpMessagesClient>(" " + canary + "\r\n", HttpOptions().base_url(server.url()));
      VisionClient client(http);
      ScriptedPage page;
      ObserverOptions options({{"phase", 2}}, "site");
      options.vision(client);
      std::string record;
      asio::co_spawn(io, observe_only(page, options), [&](std::exception_ptr error, const boost::json::object& value) {
        record = error ? text::full_exception_text(error) : text::to_json(value);
      });
      while (record.empty()) io.run_one();
      EXPECT_EQ(record.find(mark), record.npos) << record;
      for (const auto* counters : {&client.metrics.failures_by_reason, &client.metrics.by_model}) {
        for (const auto& [name, count] : *counters) EXPECT_EQ(name.find(mark), name.npos) << name;
      }
      EXPECT_EQ(server.requests.at(0)["x-api-key"], canary);
    }
    const std::string written = everything_below(".");
    EXPECT_NE(written.find(".png"), written.npos);
    EXPECT_EQ(written.find(mark), written.npos);
    for (const auto& line : log.lines()) EXPECT_EQ(line.find(mark), line.npos) << line;
  }
}

}  // namespace
}  // namespace vision
