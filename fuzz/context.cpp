// Any flow context: the message has its three parts in their place, shows the ten
// keys only, and the choice of the model knows one error.
#include "fuzz/input.hpp"
#include "vision/client/internal/prompt.hpp"
#include "vision/records/errors.hpp"
#include "vision/settings/model_registry.hpp"

namespace vision::fuzz {
void check(Input input) {
  const ImgMeta img_meta(input.number<std::int16_t>(), input.number<std::int64_t>(), input.number<double>(), 0);
  const std::string prompt(input.until('\n'));
  const boost::json::value value = input.document();
  FlowContext context{{"attempts", value}, {"phase", value}, {"platform", value}};
  if (value.is_object()) context = value.get_object();

  static const bool ready = (set_model_registry(std::make_shared<StaticModelRegistry>("light", "heavy")), true);
  require(ready && _pick_model(context, true, "default") == "heavy", "high stakes take the heavy model");
  try {
    const std::string model = _pick_model(context, false, "default");
    const auto* attempts = context.if_contains("attempts");
    if (attempts && attempts->is_int64() && attempts->get_int64() >= 2) require(model == "heavy", "so do attempts");
    require(model == "heavy" || model == "default", "one of two models");
  } catch (const ConversionError&) {
    require(context.contains("attempts"), "only attempts can be refused");
  }

  const std::string message = _build_user_message(context, prompt, img_meta);
  const std::string viewport = "\n# Viewport\n" + std::to_string(img_meta.width_css) + "×";
  require(message.starts_with("# Workflow context\n"), "the context comes first");
  require(message.find(viewport) != message.npos, "the viewport is told");
  require(prompt.empty() || message.ends_with("\n\n# Task\n" + prompt), "the task comes last, as it was given");
  for (const char* key : {"viewport", "password", "_run", "Phase"}) context.insert_or_assign(key, "unseen");
  require(_build_user_message(context, prompt, img_meta) == message, "other keys are not shown");
}

}  // namespace vision::fuzz
