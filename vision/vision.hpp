#pragma once

/// @mainpage vision
///
/// When a scripted step on a web page fails, vision looks at the page instead: it takes
/// a screenshot, asks a hosted multimodal model what to do next, and turns the answer
/// into one typed action or one verdict. This header is the library's boundary. It
/// includes everything below; other headers are given in parentheses. The complete
/// documentation is at each declaration.
///
/// **Before the first use**, once per process:
/// - vision::set_model_registry: the host's light and heavy model, and optionally
///   where the API key comes from. Without it the first client cannot be built.
///
/// **Choosing a mode**, wherever the pipeline may escalate:
/// - vision::is_vision_enabled: "off", "shadow", "tier2" or "tier3", from
///   KX_VISION_TIER at the time of the call. The modes themselves do not read it.
///
/// **The modes.** All are awaited on the caller's event loop, end when the caller is
/// cancelled, and use the process-wide client unless their options name another:
/// - vision::shadow_observe_then_cua: runs the computer-use agent (CUA) and observes
///   beside it; returns the agent's result, and logs what vision would have done.
///   vision::is_cua_origin tells the agent's errors from others.
/// - vision::observe_only: the same question after a scripted step that succeeded,
///   logged beside what the step had acted on. vision::observe_in_background starts it
///   without waiting for it.
/// - vision::with_vision_fallback: runs a scripted step; if it fails, either performs
///   one action and reruns it, or returns vision's verdict, or runs the agent, or
///   rethrows the step's error. Some errors bypass the agent: they are listed at its
///   declaration.
/// - vision::act_loop: drives the page toward a goal, step by step, and ends in a
///   verdict; on anything but "declare_success" the caller runs the computer-use agent.
///
/// **One question at a time**, for pipelines with a mode of their own:
/// - vision::VisionClient: `screenshot`, `ask` (one question about one screenshot),
///   `act` (both). A call that fails returns a "declare_failure" result.
/// - vision::execute_action: executes an answer on the page.
/// - vision::FlowContext: what the model is told of the workflow. vision::Cause: how a
///   call or a mission ended.
///
/// **Between two runs of the pipeline:**
/// - vision::default_client: the process-wide client; its `metrics` are the run
///   report (calls, tokens, latencies, estimated cost).
/// - vision::reset_default_metrics: resets them, which restores the full call budget.
///
/// **What a host may implement:**
/// - vision::BrowserPage: the page; vision::chromium::launch and
///   vision::chromium::connect ("chromium/browser.hpp") return one on Chromium.
/// - vision::MessagesClient: the connection to the model, which fails with the errors of
///   "vision/client/api_error.hpp"; vision::HttpMessagesClient
///   ("vision/client/http/http_messages_client.hpp") speaks HTTPS.
/// - vision::runtime::TimeSource ("vision/runtime/time.hpp"): see below.
/// - vision::ModelRegistry: see above.
///
/// **Tests.** "vision/testing/virtual_time.hpp", "scripted_page.hpp" and
/// "scripted_model.hpp" beside it let a mission of minutes pass in milliseconds.
/// vision::Cassette with vision::CassetteClient and vision::CassettePage records a session
/// with a real page and model, and replays it without either; vision::record_mission
/// records a mission for the command `vision replay`.
///
/// **Telemetry.** The modes append one JSON object a line to the file named by
/// KX_VISION_SHADOW_LOG, by default logs/vision_shadow.jsonl. With
/// KX_VISION_FIXTURE_AUTO set to "1", "true" or "yes" they also store each screenshot
/// that they ask about as
/// tests/fixtures/vision/auto/HOTSPOT_ID/RUN_ID_UNIX-SECONDS.png. Both variables are
/// read at every use, both defaults are relative to the current directory, and new
/// files have mode 0600, new directories 0700. Screenshots are written by a worker
/// thread: while 64 wait, further ones are dropped. A failure to write never changes
/// an outcome; vision::shadow_log_losses and vision::fixture_losses count what was
/// lost.
///
/// **Logging.** Log lines go to the spdlog logger named "vision" that the host has
/// registered. As long as there is none they go to standard error, at the level that
/// spdlog::set_level has set by then. To route them, register a logger and link
/// spdlog::spdlog:
///
///     spdlog::register_logger(spdlog::default_logger()->clone("vision"));
///
/// A host that compiles spdlog or fmt from headers alone, with hidden symbols, has an
/// spdlog registry of its own: the library does not see the loggers in it.
///
/// The entry points throw little; each documents what: vision::BudgetExceeded from the
/// ask call, a missing key or registry from the first client, the errors of the page
/// and of the host's callables. Nothing is thread-safe unless its comment says so.

#include "vision/client/vision_client.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/replay/cassette_client.hpp"
#include "vision/replay/cassette_page.hpp"
#include "vision/replay/record_mission.hpp"
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
