#include "tests/http/http_world.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/scripted.hpp"
#include "vision/text/internal/base64.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision {
namespace {

using namespace test;

const std::string canary = "sk-canary/0123+45\"67~";

std::string each(const char* format) {
  std::string out;
  for (const char c : canary) {
    char text[8];
    std::snprintf(text, sizeof text, format, static_cast<unsigned>(c));
    out += text;
  }
  return out;
}

// Forms in which a peer may give the key back.
const std::string echoes[] = {
    canary,
    R"(sk-canary\/0123+45\"67~)",
    "sk-canary%2F0123%2B45%2267~",
    _b64(canary),
    _b64("u:" + canary),
    each("%02x"),
    _b64("x" + canary + "tail"),
    each("%%%02X"),
    each("%02X"),
    each("\\u%04x"),
    "\\u000" + each("%02x"),  // the escape swallows the first digit
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
  out.push_back({response("200 OK", tool_call(R"({"action": )" + quoted + R"(, "reason": )" + quoted + R"(, "key": )" +
                                              quoted + ", " + quoted + ": {" + quoted + R"(: 1}, "confidence": 1})"))});
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
  for (const auto& echo : echoes) {
    const auto tells_nothing = testing::Not(testing::AnyOf(HasSubstr("canary"), HasSubstr(echo.substr(4, 16))));
    for (const Reply& reply : replies(echo)) {
      asio::io_context io;
      ScriptedServer server(io, {reply});
      VisionClient client(std::make_shared<HttpMessagesClient>(canary, HttpOptions().base_url(server.url())));
      ScriptedPage page;
      ObserverOptions options({{"phase", 2}}, "site");
      options.vision(client);
      bool done = false;
      asio::co_spawn(io, observe_only(page, options), [&](auto...) { done = true; });
      while (!done) io.run_one();
      for (const auto* counters : {&client.metrics.failures_by_reason, &client.metrics.by_model}) {
        for (const auto& [name, count] : *counters) EXPECT_THAT(name, tells_nothing);
      }
      EXPECT_EQ(server.requests.at(0)["x-api-key"], canary);
    }
    EXPECT_THAT(everything_below("."), testing::AllOf(HasSubstr(".png"), HasSubstr(".jsonl"), tells_nothing));
  }
  EXPECT_THAT(log.lines(), testing::Each(testing::Not(testing::ContainsRegex("canary|c2stY2|6b2d63"))));
}

}  // namespace
}  // namespace vision
