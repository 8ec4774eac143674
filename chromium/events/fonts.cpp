#include "chromium/events/fonts.hpp"

#include <utility>

#include "vision/text/internal/json_text.hpp"

namespace vision::chromium {
namespace json = boost::json;
namespace {

// To ask for `ready` brings the layout up to date, which starts loads. A frame of another
// origin throws.
constexpr std::string_view begin = R"js((async () => {
  const loads = page => {
    try {
      const fonts = page.document.fonts, ready = fonts.ready;
      return (fonts.status === "loading" ? [ready] : []).concat(...Array.from(page.frames, loads));
    } catch { return []; }
  };
  const limit = performance.timeOrigin === )js";
constexpr std::string_view middle = R"js( ? 0 : 3000;
  const pending = loads(window);
  const passed = new Promise(done => pending.length && setTimeout(done, limit, true));
  const late = pending.length > 0 && await Promise.race([Promise.all(pending), passed]) === true;
  return {late: late ? performance.timeOrigin : null, value: )js";
constexpr std::string_view end = "}; })()";

}  // namespace

std::string FontWait::before(std::string_view value) const {
  std::string out(begin);
  text::append_json(out, late_document_);
  out.append(middle).append(value).append(end);
  return out;
}

json::value FontWait::value_in(json::value returned) {
  auto* answer = returned.if_object();
  if (!answer) return {};
  late_document_ = std::exchange((*answer)["late"], nullptr);
  return std::exchange((*answer)["value"], nullptr);
}

}  // namespace vision::chromium
