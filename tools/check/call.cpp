#include "tools/check/call.hpp"

#include <fmt/core.h>

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <exception>
#include <memory>

#include "tools/check/endpoint.hpp"
#include "vision/client/vision_client.hpp"
#include "vision/settings/model_registry.hpp"

namespace check {
namespace asio = boost::asio;

void call_models(Checklist& list, const std::vector<std::string>& models, const std::string& key,
                 const vision::HttpOptions& http, const vision::Bytes& picture) {
  vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>(models.front(), models.back()));
  vision::VisionClientOptions options;
  options.api_key(key).http(http);
  vision::VisionClient client(options);
  asio::io_context io;
  const vision::FlowContext context = {{"workflow_name", "vision check"}, {"phase", "check"}};
  const vision::ImgMeta meta(1280, 800, 1.0, 0.0);
  const vision::Bytes image = picture.empty() ? smallest_picture() : picture;
  for (const auto& model : models) {
    const auto ask = vision::AskOptions().high_stakes(model != models.front());
    asio::co_spawn(io, client.ask(image, meta, context, ask), [&](std::exception_ptr error, vision::ActionResult r) {
      if (error) std::rethrow_exception(error);
      const std::string text = fmt::format("{}: {} after {:.0f} ms, {} tokens in, {} out: {}", model, r.action,
                                           r.latency_ms, r.input_tokens, r.output_tokens, r.reason);
      const bool is_empty = r.action == vision::ActionVerb::declare_failure && r.reason.empty();
      if (r.cause == vision::Cause::model_answer && !is_empty) return list.ok("call", text);
      list.failure("call", text, "see the message");
    });
    io.restart();
    io.run();
  }
}

}  // namespace check
