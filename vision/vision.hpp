#pragma once

/// vision: when a scripted step on a web page fails, asks a hosted multimodal
/// model what to do next. This header is the library's boundary.
///
///   is_vision_enabled       which mode the pipeline is to use
///   set_model_registry      the host's choice of models, before first use
///   VisionClient            one question about one screenshot: ask, act, screenshot
///   default_client          the process-wide client, reset_default_metrics between runs
///   execute_action          carries out an answer on the page
///   act_loop                drives the page toward a goal in a bounded loop
///   shadow_observe_then_cua observes beside the computer-use agent, which acts
///   observe_only            observes after a scripted step that succeeded
///   observe_in_background   the same, with nobody waiting for it
///   with_vision_fallback    one scripted step, rescued by one action of vision's

#include "vision/client/vision_client.hpp"
#include "vision/page/execute_action.hpp"
#include "vision/settings/model_registry.hpp"
#include "vision/settings/settings.hpp"
#include "vision/wirein/act_loop.hpp"
#include "vision/wirein/fallback.hpp"
#include "vision/wirein/observer.hpp"
#include "vision/wirein/shadow_mode.hpp"
