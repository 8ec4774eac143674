#include "examples/demo/demo_app.hpp"

#include <array>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <stdexcept>

#include "vision/runtime/internal/await.hpp"

namespace demo {
namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
namespace json = boost::json;
using loopback::make_response;
using loopback::Request;
using loopback::Response;

// The invited person joins after this time, which is longer than the act loop lets
// the page settle: the model has to wait.
constexpr std::chrono::milliseconds joining_time(2500);

struct File {
  const char* name;
  const char* content_type;
};
constexpr std::array<File, 4> files = {{{"index.html", "text/html; charset=utf-8"},
                                        {"style.css", "text/css; charset=utf-8"},
                                        {"app.js", "text/javascript; charset=utf-8"},
                                        {"boards.json", "application/json"}}};

std::string content_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot read " + path + ", a file of the demo's web application");
  return {std::istreambuf_iterator<char>(file), {}};
}

Response json_response(http::status status, const json::object& body) {
  return make_response(status, "application/json", json::serialize(body));
}

Response complaint(http::status status, std::string_view message) {
  return json_response(status, {{"error", message}});
}

bool is_email(std::string_view text) {
  const auto at = text.find('@');
  return at != std::string_view::npos && at > 0 && text.find('@', at + 1) == std::string_view::npos &&
         text.find('.', at) < text.size() - 1 && text.find_first_of(" \t\r\n") == std::string_view::npos;
}

}  // namespace

struct DemoApp::State {
  State() {
    for (const auto& file : files)
      pages["/" + std::string(file.name)] = content_of(std::string(DEMO_APP_DIR "/") + file.name);
    const json::value list = json::parse(pages["/boards.json"]);
    for (const auto& board : list.as_array()) boards.emplace_back(board.at("id").as_string());
  }

  static asio::awaitable<Response> handle(std::shared_ptr<State> self, const Request& request) {
    const std::string target(request.target());
    if (request.method() == http::verb::get) co_return self->page(target == "/" ? "/index.html" : target);
    if (request.method() != http::verb::post)
      co_return complaint(http::status::method_not_allowed, "Method not allowed.");
    for (const auto& board : self->boards) {
      const std::string prefix = "/api/boards/" + board + "/";
      if (target.rfind(prefix, 0) != 0) continue;
      const std::string action = target.substr(prefix.size());
      if (action == "opened") co_return self->note(board, "opened", "", {});
      if (action == "invitations") co_return co_await invite(self, board, request);
      if (action == "links") co_return self->link(board);
    }
    co_return complaint(http::status::not_found, "There is no such resource.");
  }

  Response page(const std::string& target) const {
    const auto found = pages.find(target);
    if (found == pages.end()) return complaint(http::status::not_found, "There is no such page.");
    for (const auto& file : files) {
      if (target.substr(1) == file.name) return make_response(http::status::ok, file.content_type, found->second);
    }
    return complaint(http::status::not_found, "There is no such page.");
  }

  static asio::awaitable<Response> invite(std::shared_ptr<State> self, std::string board, const Request& request) {
    boost::system::error_code error;
    const json::value body = json::parse(request.body(), error);
    const json::value* email = !error && body.is_object() ? body.get_object().if_contains("email") : nullptr;
    const std::string address = email && email->is_string() ? std::string(email->get_string()) : std::string();
    if (!is_email(address)) co_return complaint(http::status::unprocessable_entity, "This is not an email address.");
    co_await vision::runtime::sleep_for(joining_time);
    co_return self->note(board, "invited", address, {{"email", address}});
  }

  Response link(const std::string& board) {
    answer = make_share_link();
    return note(board, "linked", answer, {{"link", answer}});
  }

  Response note(const std::string& board, const char* what, const std::string& detail, const json::object& body) {
    events.push_back({board, what, detail});
    return json_response(http::status::ok, body);
  }

  std::map<std::string, std::string> pages;
  std::vector<std::string> boards;
  std::vector<AppEvent> events;
  std::string answer;
};

DemoApp::DemoApp(const asio::any_io_executor& executor, std::uint16_t port)
    : state_(std::make_shared<State>()),
      server_(
          executor, [state = state_](const Request& request) { return State::handle(state, request); },
          loopback::ServerOptions().port(port)) {}

const std::string& DemoApp::answer() const {
  return state_->answer;
}

const std::vector<AppEvent>& DemoApp::events() const {
  return state_->events;
}

bool DemoApp::only_invited(std::string_view board, std::string_view email) const {
  bool invited = false;
  for (const auto& event : state_->events) {
    if (event.what != "invited") continue;
    if (event.board != board || event.detail != email) return false;
    invited = true;
  }
  return invited;
}

// Words and digits that are hard to misread.
std::string make_share_link() {
  static constexpr std::array<const char*, 12> words = {"maple",   "river",  "amber",  "cedar",  "pepper", "garden",
                                                        "thunder", "marble", "winter", "copper", "panda",  "meadow"};
  static constexpr std::string_view digits = "234679";
  std::random_device source;
  std::uniform_int_distribution<std::size_t> word(0, words.size() - 1), digit(0, digits.size() - 1);
  std::string link = "pinwall.test/" + std::string(words[word(source)]) + "-";
  for (int i = 0; i < 4; ++i) link += digits[digit(source)];
  return link;
}

}  // namespace demo
