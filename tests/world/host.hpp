#pragma once

#include "tests/world/mission.hpp"
#include "vision/client/messages_client.hpp"
#include "vision/client/vision_client.hpp"
#include "vision/page/browser_page.hpp"

namespace vision::world {

/// A mission's page. Each operation is a visit.
class Page : public BrowserPage, private Mouse, private Keyboard {
 public:
  Page(World& world, Mission& mission) : world_(world), mission_(mission) {}

  asio::awaitable<Bytes> screenshot(ScreenshotOptions) override;
  asio::awaitable<boost::json::value> evaluate(std::string) override;
  std::optional<boost::json::object> viewport_size() override;
  Mouse& mouse() override;
  Keyboard& keyboard() override;

 private:
  asio::awaitable<void> click(double, double) override { return act("click"); }
  asio::awaitable<void> wheel(double, double) override { return act("scroll"); }
  asio::awaitable<void> type(std::string, std::chrono::milliseconds) override { return act("type"); }
  asio::awaitable<void> press(std::string) override { return act("key"); }
  asio::awaitable<void> act(std::string_view verb);
  asio::awaitable<void> finish_action(Visit visit);
  asio::awaitable<Bytes> take(Visit visit);
  asio::awaitable<boost::json::value> answer(Visit visit);

  World& world_;
  Mission& mission_;
};

/// The model of all missions, behind the real client; reckons what the ledger has
/// to hold.
class Model : public MessagesClient {
 public:
  explicit Model(World& world) : world_(world) {}
  asio::awaitable<boost::json::value> create(const MessagesRequest& request) override;

  std::function<void(Mission&)> on_first_request;

 private:
  asio::awaitable<boost::json::value> respond(Visit visit, std::size_t call);
  Call& call_of(Mission& mission, const MessagesRequest& request);
  void give_up(Mission& mission, Call& call, Fault fault);

  World& world_;
};

/// The host of a world's missions: one client, shared.
class Host {
 public:
  Host(World& world, std::int64_t budget, bool hook);

  Mission& mission_of(const boost::json::object& context);

  World& world;
  std::shared_ptr<Model> model;
  std::int64_t budget;
  bool has_hook;
  std::unique_ptr<VisionClient> client;
  std::vector<std::unique_ptr<Page>> pages;
};

}  // namespace vision::world
