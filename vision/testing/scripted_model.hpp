#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <cstddef>
#include <deque>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "vision/client/messages_client.hpp"
#include "vision/testing/virtual_time.hpp"

namespace vision::test {

/// A response with one propose_action call whose input is the JSON text `input`.
inline std::string tool_call(const std::string& input) {
  return R"({"usage": {"input_tokens": 1500, "output_tokens": 200}, "content": [{"type": "tool_use", )"
         R"("name": "propose_action", "input": )" +
         input + "}]}";
}

/// A response that proposes `action`. `more` is appended to the members of its input:
/// `, "x_ratio": 0.5, "y_ratio": 0.25`.
inline std::string proposal(const std::string& action, double confidence, const std::string& more = "") {
  return tool_call(R"({"action": ")" + action + R"(", "reason": "because", "confidence": )" +
                   std::to_string(confidence) + R"(, "next_expected_state": "next")" + more + "}");
}

/// A model that answers each request with the next step of its script: waits `seconds`
/// on the loop's time source, then returns the JSON text or throws the error. A request
/// beyond the script throws std::logic_error. Requests may overlap.
class ScriptedModel : public MessagesClient {
 public:
  /// One answer.
  struct Step {
    std::string response;      ///< JSON text
    std::exception_ptr error;  ///< thrown instead, unless null
    double seconds = 0.5;      ///< until either
  };

  ///@{
  /// Appends a step.
  ScriptedModel& answer(std::string response, double seconds = 0.5) {
    steps.push_back({std::move(response), nullptr, seconds});
    return *this;
  }
  template <class E>
  ScriptedModel& fail(E error, double seconds = 0.5) {
    steps.push_back({"", std::make_exception_ptr(std::move(error)), seconds});
    return *this;
  }
  ///@}

  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override {
    bodies.push_back(request.body());
    if (steps.empty()) throw std::logic_error("no scripted answer left");
    const Step step = steps.front();
    steps.pop_front();
    co_await pause(step.seconds);
    if (step.error) std::rethrow_exception(step.error);
    co_return boost::json::parse(step.response);
  }

  /// The user text of request `i`.
  std::string user_text(std::size_t i) const {
    const auto body = boost::json::parse(bodies.at(i));
    return std::string(body.at("messages").at(0).at("content").at(1).at("text").as_string());
  }

  std::deque<Step> steps;           ///< what is left of the script
  std::vector<std::string> bodies;  ///< every request's JSON text
};

}  // namespace vision::test
