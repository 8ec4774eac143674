// Any flow context: the message has its three parts in their place, shows the ten
// keys only, and the choice of the model knows one error.
#include <boost/json/parse.hpp>
#include <memory>

#include "fuzz/input.hpp"
#include "fuzz/property.hpp"
#include "vision/client/prompt.hpp"
#include "vision/records/errors.hpp"
#include "vision/settings/model_registry.hpp"

namespace {

namespace json = boost::json;
using vision::fuzz::require;

void check_model(const json::object& context) {
  static const bool ready =
      (vision::set_model_registry(std::make_shared<vision::StaticModelRegistry>("light", "heavy")), true);
  require(ready && vision::_pick_model(context, true, "default") == "heavy", "high stakes take the heavy model");
  try {
    const std::string model = vision::_pick_model(context, false, "default");
    const auto* attempts = context.if_contains("attempts");
    if (attempts && attempts->is_int64() && attempts->get_int64() >= 2) require(model == "heavy", "so do attempts");
    require(model == "heavy" || model == "default", "one of two models");
  } catch (const vision::ConversionError&) {
    require(context.contains("attempts"), "only attempts can be refused");
  }
}

void check_message(const json::object& context, const std::string& prompt, const vision::ImgMeta& img_meta) {
  const std::string message = vision::_build_user_message(context, prompt, img_meta);
  require(message.starts_with("# Workflow context\n"), "the context comes first");
  require(message.find("\n# Viewport\n" + std::to_string(img_meta.width_css) + "×") != message.npos,
          "the viewport is told");
  require(prompt.empty() || message.ends_with("\n\n# Task\n" + prompt), "the task comes last, as it was given");

  json::object more = context;
  for (const char* key : {"viewport", "password", "_run", "Phase"}) more.insert_or_assign(key, "unseen");
  require(vision::_build_user_message(more, prompt, img_meta) == message, "other keys are not shown");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vision::fuzz::Input input(data, size);
  const vision::ImgMeta img_meta(input.number<std::int16_t>(), input.number<std::int64_t>(), input.number<double>(), 0);
  const std::string prompt(input.until('\n'));
  json::value value;
  if (input.rest().starts_with('{')) {
    boost::system::error_code error;
    value = json::parse(input.rest(), error);
  } else {
    value = json::object{{"attempts", input.value()}, {"phase", input.value()}, {"platform", input.value()}};
  }
  if (!value.is_object()) return -1;  // of no use to the corpus
  check_model(value.get_object());
  check_message(value.get_object(), prompt, img_meta);
  return 0;
}
