#include "tools/check/command.hpp"

#include <fmt/core.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdio>
#include <memory>

#include "tools/check/browser.hpp"
#include "tools/check/call.hpp"
#include "tools/check/checklist.hpp"
#include "tools/check/endpoint.hpp"
#include "tools/check/picture_cost.hpp"
#include "tools/check/settings.hpp"
#include "tools/report/byte_source.hpp"
#include "tools/report/prices.hpp"
#include "tools/viewport.hpp"
#include "vision/client/http/internal/endpoint.hpp"

namespace check {
namespace {

struct Arguments {
  std::string light, heavy, base_url, ca_file, prices, browser = "chromium", viewport = "1280x800";
  double ratio = 1;
  bool allow_plain_http = false, no_browser = false, call = false, json = false;
};

void add_options(CLI::App& command, Arguments& a) {
  const CLI::Range ratio(0.1, 10.0);
  command.add_option("--light", a.light, "the light model, as the registry's VISION_LIGHT_MODEL names it");
  command.add_option("--heavy", a.heavy, "the heavy model, as the registry's VISION_HEAVY_MODEL names it");
  command.add_option("--base-url", a.base_url, "the endpoint (default: ANTHROPIC_BASE_URL, else the vendor's)");
  command.add_option("--ca-file", a.ca_file, "certificate authorities to trust instead of the system's");
  command.add_flag("--allow-plain-http", a.allow_plain_http, "accept http to another machine");
  command.add_option("--browser", a.browser, "the browser to start: a path, or a name on PATH (default: chromium)");
  command.add_flag("--no-browser", a.no_browser, "do not start a browser: the pipeline brings its own pages");
  command.add_option("--viewport", a.viewport, "page size in CSS pixels (default: 1280x800)");
  command.add_option("--ratio", a.ratio, "pixels per CSS pixel (default: 1)")->check(ratio);
  command.add_option("--prices", a.prices, "a price table instead of the built-in one");
  command.add_flag("--call", a.call, "ask each model once; this costs what a call costs");
  command.add_flag("--json", a.json, "the findings as JSON");
}

vision::HttpOptions http_options(const Arguments& a) {
  vision::HttpOptions options;
  if (!a.base_url.empty()) options.base_url(a.base_url);
  if (!a.ca_file.empty()) options.ca_file(a.ca_file);
  options.allow_plain_http(a.allow_plain_http);
  return options;
}

std::vector<std::string> models_of(Checklist& list, const Arguments& a) {
  std::vector<std::string> models;
  if (!a.light.empty()) models.push_back(a.light);
  if (!a.heavy.empty() && a.heavy != a.light) models.push_back(a.heavy);
  if (a.light.empty() || a.heavy.empty()) {
    list.warning("models", "not all checked: the pipeline's registry names them, and this program cannot read it",
                 "pass both --light and --heavy");
  }
  return models;
}

// What a call costs whose text takes so many tokens; absent when nobody has counted them.
void judge_cost(Checklist& list, const std::string& model, const View& view, std::optional<std::int64_t> text_tokens,
                const report::Prices& prices) {
  const auto known = prices.picture_limits(model);
  const auto pixels = [&](int css) { return std::max<std::int64_t>(1, std::llround(css * view.ratio)); };
  const std::int64_t width = pixels(view.width), height = pixels(view.height);
  const SeenPicture seen = seen_picture(width, height, known.value_or(report::PictureLimits()));
  constexpr std::int64_t longest_answer = 512;
  report::Spend spend;
  const std::int64_t input = seen.tokens + text_tokens.value_or(0);
  spend.add(input, longest_answer);
  const auto cost = prices.cost(model, spend);
  std::string text = fmt::format("{}: {} tokens for a picture of {} x {}", model, seen.tokens, width, height);
  if (cost) {
    text += text_tokens
                ? fmt::format("; a call costs at most ${:.4f} ({} tokens in, {} out)", *cost, input, longest_answer)
                : fmt::format("; a call costs at most ${:.4f} plus its text", *cost);
    text += fmt::format(", prices as of {}", prices.as_of());
  }
  if (!known) {
    list.warning("cost", text + "; the model is not in the price table", "add it to a table of your own: --prices");
  } else if (seen.shrunk) {
    list.warning("cost", text + fmt::format("; the service shrinks it to {} x {}", seen.width, seen.height),
                 "use a smaller viewport or ratio: the extra pixels are sent but never seen");
  } else {
    list.ok("cost", text);
  }
}

int run(const Arguments& a) {
  const auto [width, height] = tools::parse_viewport(a.viewport);
  if (!std::isfinite(a.ratio)) throw report::InputError("--ratio takes a number from 0.1 to 10");
  const View view{width, height, a.ratio};
  const report::Prices prices = a.prices.empty() ? report::Prices::built_in() : report::Prices::load(a.prices);
  Checklist list(a.json);
  check_switches(list);
  check_folders(list);
  const vision::Bytes picture = a.no_browser ? vision::Bytes() : check_browser(list, a.browser, view);
  const auto models = models_of(list, a);
  const std::string key = check_key(list);
  // Without a key the way to the endpoint can be tried all the same.
  const auto endpoint = make_endpoint(list, key.empty() ? "no-key-was-found" : key, http_options(a));
  const bool reached = endpoint && check_connection(list, *endpoint);
  if (!models.empty() && !(reached && !key.empty())) {
    list.warning("model", "not asked: no connection or no key", "mend the failures above, and check again");
  }
  for (const auto& model : models) {
    const auto text_tokens = reached && !key.empty() ? check_model(list, *endpoint, model) : std::nullopt;
    judge_cost(list, model, view, text_tokens, prices);
  }
  if (a.call && !models.empty() && !list.has_failures()) {
    call_models(list, models, key, http_options(a), picture);
  }
  if (a.json) fmt::print("{}", list.json());
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    throw std::runtime_error("cannot write to standard output");
  }
  return list.has_failures() ? 1 : 0;
}

}  // namespace

std::function<int()> add_command(CLI::App& app) {
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command = app.add_subcommand(
      "check", "Says before the first run whether this machine, the key, the models and the endpoint will work.");
  command->footer("\nExit status: 0: no failures; 1: at least one failure; 2: bad command line.");
  add_options(*command, *arguments);
  return [arguments] { return run(*arguments); };
}

}  // namespace check
