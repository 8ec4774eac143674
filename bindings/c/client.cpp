#include <algorithm>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

#include "bindings/c/errors.hpp"
#include "bindings/c/exit_gate.hpp"
#include "bindings/c/handles.hpp"
#include "bindings/c/options.hpp"
#include "bindings/c/records.hpp"
#include "bindings/c/replies.hpp"
#include "vision/client/http/http_messages_client.hpp"
#include "vision/client/internal/api_key.hpp"
#include "vision/replay/cassette_client.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/text/internal/json_text.hpp"

namespace vision::c {
namespace json = boost::json;
namespace {

// A client's functions of the host's, shared by the hook and the model.
class ClientHost {
 public:
  ClientHost(const vision_client_functions* functions, void* host) : host_(host) {
    if (functions) functions_ = *functions;
  }
  ~ClientHost() {
    if (is_taken_) call_host(functions_.release, host_);
  }
  ClientHost(const ClientHost&) = delete;
  ClientHost& operator=(const ClientHost&) = delete;

  /// From now on it is released: its client has been made.
  void take() noexcept { is_taken_ = true; }
  const vision_client_functions& functions() const noexcept { return functions_; }
  void* host() const noexcept { return host_; }

 private:
  vision_client_functions functions_{};
  void* const host_;
  bool is_taken_ = false;
};

using Host = std::shared_ptr<ClientHost>;

class HostModel : public MessagesClient {
 public:
  explicit HostModel(Host host) : host_(std::move(host)) {}

  asio::awaitable<json::value> create(const MessagesRequest& request) override {
    const HostCall call = [this, &request](vision_reply reply) {
      const std::string body = request.body();
      call_host(host_->functions().create, host_->host(), body.c_str(), body.size(), reply);
    };
    co_return co_await value_from_host("create", call);
  }

 private:
  const Host host_;
};

asio::awaitable<void> call_hook(Host host, const ActionResult& result, const FlowContext& flow_context) {
  const HostCall call = [&](vision_reply reply) {
    const std::string seen = text::to_json(to_json(result)), context = text::to_json(flow_context);
    call_host(host->functions().on_action, host->host(), seen.c_str(), seen.size(), context.c_str(), context.size(),
              reply);
  };
  (void)co_await value_from_host("on_action", call);
}

// The key that the host resolves, or none.
std::string resolved_key(Loop& loop) {
  std::unique_lock lock(loop.defaults.mutex);
  const auto resolve = loop.defaults.resolve_api_key;
  lock.unlock();
  return resolve ? resolve() : std::string();
}

HttpOptions http_options(Options& options) {
  HttpOptions http;
  if (auto value = options.text("base_url")) http.base_url(std::move(*value));
  if (const auto value = options.flag("allow_plain_http")) http.allow_plain_http(*value);
  if (auto value = options.text("ca_file")) http.ca_file(std::move(*value));
  if (const auto value = options.milliseconds("connect_timeout_s")) http.connect_timeout(*value);
  if (const auto value = options.integer("max_response_bytes")) {
    http.max_response_bytes(static_cast<std::size_t>(std::max<std::int64_t>(*value, 0)));
  }
  return http;
}

// The cassette that the options name; null when they name none.
std::shared_ptr<Cassette> cassette_of(Options& options) {
  constexpr std::pair<std::string_view, CassetteMode> modes[] = {{"none", CassetteMode::none},
                                                                 {"once", CassetteMode::once},
                                                                 {"new_episodes", CassetteMode::new_episodes},
                                                                 {"all", CassetteMode::all}};
  auto folder = options.text("cassette");
  CassetteOptions how;
  if (const auto by_order = options.flag("cassette_by_order")) how.by_order(*by_order);
  if (const auto name = options.text("cassette_mode")) {
    const auto mode = std::find_if(std::begin(modes), std::end(modes), [&](const auto& m) { return m.first == *name; });
    if (mode == std::end(modes)) {
      throw std::invalid_argument("VisionClient: cassette_mode is none, once, new_episodes or all, not \"" + *name +
                                  "\"");
    }
    how.mode(mode->second);
  }
  return folder ? std::make_shared<Cassette>(std::move(*folder), how) : nullptr;
}

std::shared_ptr<Client> make_client(const std::shared_ptr<Loop>& loop, Options options, const Host& host) {
  VisionClientOptions client_options;
  if (auto value = options.text("default_model")) client_options.default_model(std::move(*value));
  if (const auto value = options.integer("call_budget")) client_options.call_budget(*value);
  client_options.http(http_options(options));
  std::string key = options.text("api_key").value_or("");
  const auto cassette = cassette_of(options);
  options.finish();
  if (host->functions().on_action) {
    client_options.on_action([host](const ActionResult& result, const FlowContext& flow_context) {
      return call_hook(host, result, flow_context);
    });
  }
  std::shared_ptr<MessagesClient> model;
  if (cassette && !cassette->is_recording()) {
    model = std::make_shared<CassetteClient>(cassette);
  } else if (host->functions().create) {
    model = std::make_shared<HostModel>(host);
  } else {
    (void)MODEL_SONNET();  // a missing registry is reported before the host is asked for a key
    key = detail::resolve_api_key(key.empty() ? resolved_key(*loop) : key);
    model = std::make_shared<HttpMessagesClient>(std::move(key), client_options.http());
  }
  if (cassette && cassette->is_recording()) model = std::make_shared<CassetteClient>(cassette, std::move(model));
  auto made =
      std::make_shared<Client>(loop, std::make_unique<VisionClient>(std::move(model), std::move(client_options)));
  host->take();
  return made;
}

void name_models(const std::string& light, const std::string& heavy) {
  static auto& mutex = *new std::mutex;
  const std::lock_guard lock(mutex);
  if (light.empty() || heavy.empty()) throw std::invalid_argument("vision_set_model_registry: a model without a name");
  const auto named = model_registry();
  if (named && named->VISION_LIGHT_MODEL() == light && named->VISION_HEAVY_MODEL() == heavy) return;
  set_model_registry(std::make_shared<StaticModelRegistry>(light, heavy));
}

void resolve_keys_with(Loop& loop, vision_key_resolver resolver, void* host) {
  std::function<std::string()> resolve;
  if (resolver) {
    resolve = [resolver, host] {
      const Answer answer = answer_at_once([&](vision_reply reply) { call_host(resolver, host, reply); });
      const auto* json = std::get_if<std::string>(&answer);
      if (!json || json->empty()) return std::string();
      const json::value key = read_value(*json, "the answer to resolve_api_key");
      return key.is_string() ? std::string(key.get_string()) : std::string();
    };
  }
  const std::lock_guard lock(loop.defaults.mutex);
  loop.defaults.resolve_api_key = std::move(resolve);
}

}  // namespace

// The host is asked for the key without the lock.
std::shared_ptr<Client> default_client(const std::shared_ptr<Loop>& loop) {
  auto& defaults = loop->defaults;
  std::unique_lock lock(defaults.mutex);
  if (defaults.client) return defaults.client;
  lock.unlock();
  const auto host = std::make_shared<ClientHost>(nullptr, nullptr);
  auto made = make_client(loop, Options("", "VisionClient"), host);
  lock.lock();
  if (!defaults.client) defaults.client = std::move(made);
  return defaults.client;
}

}  // namespace vision::c

using vision::c::guarded;

int vision_set_model_registry(vision_runtime* runtime, const char* light_model, const char* heavy_model,
                              vision_key_resolver resolve_api_key, void* host) {
  return guarded([&] {
    vision::c::name_models(light_model ? light_model : "", heavy_model ? heavy_model : "");
    vision::c::resolve_keys_with(*runtime->loop, resolve_api_key, host);
    return 1;
  });
}

vision_client* vision_client_new(vision_runtime* runtime, const char* options, size_t size,
                                 const vision_client_functions* functions, void* host) {
  return guarded([&] {
    const std::string_view json(options ? options : "", options ? size : 0);
    const auto client_host = std::make_shared<vision::c::ClientHost>(functions, host);
    return new vision_client{
        vision::c::make_client(runtime->loop, vision::c::Options(json, "VisionClient"), client_host)};
  });
}

vision_client* vision_default_client(vision_runtime* runtime) {
  return guarded([&] { return new vision_client{vision::c::default_client(runtime->loop)}; });
}

void vision_client_release(vision_client* client) {
  delete client;
}

const char* vision_client_metrics(vision_client* client, size_t* size) {
  thread_local std::string of_this_thread;
  std::string& text = of_this_thread;  // also where the job runs
  client->client->loop()->run([&] { text = vision::text::to_json(vision::c::to_json(client->client->get().metrics)); });
  if (size) *size = text.size();
  return text.c_str();
}

void vision_client_reset_metrics(vision_client* client) {
  client->client->loop()->run([&] { client->client->get().metrics.reset(); });
}

void vision_reset_default_metrics(vision_runtime* runtime) {
  auto& defaults = runtime->loop->defaults;
  std::unique_lock lock(defaults.mutex);
  const auto client = defaults.client;
  lock.unlock();
  if (client) runtime->loop->run([&] { client->get().metrics.reset(); });
}
