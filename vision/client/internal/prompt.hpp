#pragma once

#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "vision/records/flow_context.hpp"
#include "vision/records/img_meta.hpp"

namespace vision {

/// The model for a call: the heavy one for a high-stakes call, in the login
/// phase ("phase" equal to 0), for captcha handling (by "workflow_name") and from
/// the second of the "attempts" on; else `default_model`. Throws ConversionError
/// when "attempts" cannot be read as an integer.
std::string _pick_model(const FlowContext& flow_context, bool high_stakes, const std::string& default_model);

/// The user message of a request: the workflow context, the viewport, the task.
/// `prompt` replaces the default task line unless it is absent or empty.
std::string _build_user_message(const FlowContext& flow_context, const std::optional<std::string>& prompt,
                                const ImgMeta& img_meta);

namespace detail {

/// The plain text of a context value, `fallback` when the key is missing.
std::string context_text(const FlowContext& flow_context, std::string_view key, std::string_view fallback);

/// A value as an error message shows it: its plain text, cut at 200 code points.
std::string excerpt(const boost::json::value& value);

}  // namespace detail
}  // namespace vision
