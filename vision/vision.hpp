#pragma once

/// @mainpage vision
///
/// When a scripted step on a web page fails, vision looks at the page instead: it
/// takes a screenshot, asks a hosted multimodal model what to do next, and turns
/// the answer into one typed action or one verdict. This header is the library's
/// boundary and includes what is named here, except where a header is named; the
/// complete comment stands at each declaration.
///
/// **Before the first use**, once per process:
/// - vision::set_model_registry: the host's light and heavy model, and optionally
///   where the API key comes from. Without it the first client cannot be built.
///
/// **Choosing a mode**, at every place where the pipeline may escalate:
/// - vision::is_vision_enabled: "off", "shadow", "tier2" or "tier3", from
///   KX_VISION_TIER as it stands now. The modes themselves do not ask it.
///
/// **The modes.** All are awaited on the caller's event loop, end when the caller is
/// cancelled, and take the process-wide client unless given another:
/// - vision::shadow_observe_then_cua: runs the computer-use agent and observes
///   beside it; gives what the agent gave, and logs what vision would have done.
///   vision::is_cua_origin tells the agent's errors from others.
/// - vision::observe_only: the same question after a scripted step that succeeded,
///   logged beside what the step had acted on. vision::observe_in_background starts
///   it with nobody waiting.
/// - vision::with_vision_fallback: runs a scripted step; when it fails, one action of
///   vision's and a second run, or vision's verdict that all is done, or the
///   computer-use agent, or the step's own error.
/// - vision::act_loop: drives the page toward a goal, step by step, and ends in a
///   verdict; anything but "declare_success" is for the computer-use agent.
///
/// **One question at a time**, for pipelines with a mode of their own:
/// - vision::VisionClient: `screenshot`, `ask` (one question about one screenshot),
///   `act` (both). A call that fails gives a "declare_failure" result.
/// - vision::execute_action: carries an answer out on the page.
///
/// **Between two runs of the pipeline:**
/// - vision::default_client: the process-wide client; its `metrics` are the run
///   report (calls, tokens, latencies, estimated cost).
/// - vision::reset_default_metrics: empties them, and with them the call budget.
/// - vision::shadow_log_losses, vision::fixture_losses: what could not be written.
///
/// **What a host may implement:**
/// - vision::BrowserPage: the page; vision::chromium::launch and
///   vision::chromium::connect ("chromium/browser.hpp") give one on Chromium.
/// - vision::MessagesClient: the way to the model; vision::HttpMessagesClient
///   ("vision/client/http/http_messages_client.hpp") speaks HTTPS.
/// - vision::ModelRegistry: see above.
///
/// What the entry points throw is little and named at each: vision::BudgetExceeded
/// from the ask call, a missing key or registry from the first client, the page's
/// and the host's own errors. Nothing is thread-safe unless its comment says so.

#include "vision/client/vision_client.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/settings/settings.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/fallback.hpp"
#include "vision/wirein/losses.hpp"
#include "vision/wirein/observer.hpp"
#include "vision/wirein/shadow_mode.hpp"

/// The library. Names that begin with an underscore belong to it and are public
/// only for its own templates and tests.
namespace vision {}
