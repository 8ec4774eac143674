#pragma once

#include <boost/json/object.hpp>

namespace vision {

/// The caller's description of the workflow: text keys in insertion order. The library
/// never changes a caller's map.
///
/// The model sees these ten keys, each on a line of its own ("phase: 2") and in this
/// order. Null and empty values are left out, zero and false are not; a list or a map
/// is shown as JSON.
///
///   workflow_name      what the pipeline is working on; begins the default task and is
///                      in the log lines. "phase0_login_verify" and "captcha_detect"
///                      select the heavy model
///   phase              where in the workflow it is; 0 (the login) selects the heavy
///                      model. In the log lines, and "phase" of every record
///   current_step       the step to do now; in the default task
///   last_action        what was done before; act_loop replaces it with the last three
///                      steps of its own
///   expected_outcome   the goal; in the default task
///   attempts           how often the step was tried: a number, or the text of an
///                      integer. From 2 on it selects the heavy model; what cannot be
///                      read throws ConversionError
///   platform           the site or application; "agent" of every record
///   context_hint       anything else worth knowing; with_vision_fallback replaces it
///                      with the error of the scripted step
///   forbidden_actions  what the model must not do
///   success_signals    what shows that the goal is reached
///
/// Other keys are neither sent nor recorded; VisionClientOptions::on_action sees them,
/// and beside them the "viewport" that VisionClient::act adds.
using FlowContext = boost::json::object;

}  // namespace vision
