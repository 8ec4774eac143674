#ifndef VISION_H
#define VISION_H

/// @file
/// vision for programs in other languages: the library behind C functions, JSON texts
/// and callbacks. README.md beside this file has a complete program.
///
/// **The runtime.** A `vision_runtime` owns one thread, on which everything runs. An
/// operation is started with `vision_start`, which returns at once; it ends by one call
/// of its `done` function, on that thread. Any thread may cancel it at any time.
///
/// **The host's side.** Pages, models and functions of the host are tables of function
/// pointers. The runtime calls them on its thread with a `vision_reply`, and they answer
/// through it when they can, from any thread: with a value, an image or an error.
///
/// **Threads.** Every function here may be called from any thread, and from within a
/// callback. Callbacks come on the runtime's thread, one after the other, unless their
/// declaration says otherwise. Everything else waits meanwhile, so they hand work over
/// and return; they must not throw, and must not end the thread.
///
/// **Texts** are UTF-8, given as address and size in bytes. A text from the library also
/// ends with a NUL that is not counted, and is valid until the callback that got it
/// returns. A text for the library is copied before the call returns. The address may be
/// null when the size is 0.
///
/// **Values** are JSON texts, which may nest 256 levels deep. Members keep their order,
/// numbers stay as they are (integers within 64 bits, any other number as the nearest
/// double), and an escaped surrogate without its partner becomes U+FFFD. Those from the
/// library are ASCII.
///
/// **Errors** of the host's own are told to the library with a token, and come back with
/// it where they come back at all, so that the host can raise the very error that it had.
///
/// **Handles.** Pages, clients and browsers belong to the runtime with which they were
/// made. Operations and replies are numbers: they need no release, are never used twice,
/// and stay harmless when what they stand for is over.
///
/// **The end of the process.** It may exit at any moment, with operations in flight: no
/// callback is called from then on. A host whose functions go away earlier, with an
/// interpreter that is shut down, frees its runtimes before that. A child process made by
/// fork has none of its parent's runtimes: it makes its own, and of its parent's it may
/// call vision_runtime_free alone, which does nothing there.

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// A thread that runs operations.
typedef struct vision_runtime vision_runtime;
/// A page: the host's own, or one of a Chromium that the library drives.
typedef struct vision_page vision_page;
/// A client, which asks the model and counts the calls.
typedef struct vision_client vision_client;
/// A Chromium that the library drives.
typedef struct vision_browser vision_browser;
/// An operation that was started. 0 is never one.
typedef uint64_t vision_operation;
/// The place for one answer of the host.
typedef uint64_t vision_reply;

// ------------------------------------------------------------------------------ errors

/// What `vision_error.flags` is made of.
enum {
  /// From the library: the operation was cancelled, by vision_cancel or because its
  /// runtime ended. The kind is "Cancelled".
  VISION_CANCELLED = 1,
  /// From the library: the error came from `cua_fn`. The host sets `_kx_cua_origin` on
  /// its error object.
  VISION_CUA_ORIGIN = 2,
  /// From the host's model: no response came, or one that tells of rate limiting or a
  /// failing server. The call is tried once more. Kinds named APIConnectionError,
  /// APITimeoutError, RateLimitError and InternalServerError need no flag; it is for
  /// kinds derived from them.
  VISION_TRANSPORT_ERROR = 4
};

/// An error, in either direction.
typedef struct vision_error {
  /// Name of its kind: of an error of the host its class, "TimeoutError"; of one of the
  /// library BudgetExceeded, ConversionError, PageClosedError and so on, invalid_argument
  /// for an argument that cannot be used. Ends with a NUL. Null or empty means "Error".
  const char* kind;
  /// Its message, UTF-8.
  const char* message;
  size_t message_size;  ///< in bytes
  /// The host's own name for the error. Null in errors of the library's own.
  void* token;
  /// Called once with the token, on any thread, when the library will not use it again:
  /// for an error that comes back to the host after the callback that got it has
  /// returned. Null when there is nothing to release. Not for errors from the library.
  void (*release)(void* token);
  /// VISION_CANCELLED, VISION_CUA_ORIGIN, VISION_TRANSPORT_ERROR, or 0.
  unsigned flags;
} vision_error;

/// The error of the last function of this interface that failed on the calling thread,
/// for those that tell of failure by what they return. Valid until the next one fails
/// there. Null when none has failed.
const vision_error* vision_last_error(void);

// ------------------------------------------------------------------------------ images

/// The bytes of a PNG, handed over without a copy. The receiver calls `release(owner)`
/// once, on any thread, when it has no more use for the bytes, which must not change
/// until then. The host may set `release` to null: the library then
/// copies the bytes before the call returns.
typedef struct vision_image {
  const void* data;              ///< the first byte
  size_t size;                   ///< how many
  void (*release)(void* owner);  ///< null: see above; in a vision_result, no image
  void* owner;                   ///< what `release` is called with
} vision_image;

// ----------------------------------------------------------------------------- runtime

/// Starts a runtime and its thread, which blocks all signals. Null, with
/// vision_last_error, when the thread cannot be started.
vision_runtime* vision_runtime_new(void);

/// Ends a runtime: cancels the operations in flight, lets each of them end and call its
/// `done`, disconnects and ends its browsers, ends the thread, and returns. An operation
/// that is started meanwhile is refused. Waits for no answer of the host, but for
/// callbacks that have begun: the caller must not hold a lock that a callback takes. With
/// nothing in flight it takes no time; a launched browser ends within about a tenth of a
/// second, and within ten when it cannot be killed.
///
/// In a callback of this very runtime it returns at once, and all this happens after the
/// callback. To be called once; null is ignored. Pages, clients and browsers are released
/// before or after.
void vision_runtime_free(vision_runtime* runtime);

// ----------------------------------------------------------------------------- replies

///@{
/// Answers: with a JSON text (without one, size 0: null), an image, or an error. From any
/// thread, also from within the callback that got the reply.
///
/// Each returns 1 when the answer was taken. It returns 0, and nothing else happens, when
/// there was an answer before, or the operation no longer waits for one because it was
/// cancelled, its time was up, or it has ended; what was handed over is then released
/// before the call returns. A reply that is never answered costs nothing once its
/// operation has ended.
int vision_reply_value(vision_reply reply, const char* json, size_t size);
int vision_reply_image(vision_reply reply, const vision_image* image);
int vision_reply_error(vision_reply reply, const vision_error* error);
///@}

// ------------------------------------------------------------------------------- pages

/// A page of the host's: what the runtime calls to look at it and to act on it. `host` is
/// what vision_page_new was given. Coordinates and deltas are CSS pixels.
///
/// An operation calls one function at a time and waits for the answer; two operations
/// that share a page may call at the same time. When an operation is cancelled, or a time
/// limit has passed, it goes on without the answer, while the host may still be busy.
typedef struct vision_page_functions {
  /// The viewport as PNG, or the whole page when `full_page` is not 0. Answer: an image.
  void (*screenshot)(void* host, int full_page, vision_reply reply);
  /// The value of a JavaScript expression in the main frame. Answer: a value.
  void (*evaluate)(void* host, const char* expression, size_t size, vision_reply reply);
  /// Answer: {"width": ..., "height": ...}, or null for a page without a fixed viewport,
  /// which counts as 1280 x 800. Called after each screenshot.
  void (*viewport_size)(void* host, vision_reply reply);
  /// One click of the primary button. Answer: any value.
  void (*mouse_click)(void* host, double x, double y, vision_reply reply);
  /// One wheel event; a positive `delta_y` scrolls down. Answer: any value.
  void (*mouse_wheel)(void* host, double delta_x, double delta_y, vision_reply reply);
  /// Types a text with `delay_ms` between two strokes. Answer: any value.
  void (*keyboard_type)(void* host, const char* text, size_t size, double delay_ms, vision_reply reply);
  /// Presses and releases one key or chord, "Enter" or "Control+a". Answer: any value.
  void (*keyboard_press)(void* host, const char* key, size_t size, vision_reply reply);
  /// Called once, on any thread, when no function of the page will be called again. May
  /// be null.
  void (*release)(void* host);
} vision_page_functions;

/// Makes a page of the host's functions, which are copied. Null, with vision_last_error,
/// when one of them other than `release` is missing; `release` is not called then.
vision_page* vision_page_new(vision_runtime* runtime, const vision_page_functions* functions, void* host);

/// Releases the handle. Operations that use the page keep it until they have ended; a
/// Chromium page of ours is closed then. Null is ignored.
void vision_page_release(vision_page* page);

// ------------------------------------------------------------- clients and the registry

/// Functions of the host's that a client calls. `host` is what vision_client_new was
/// given. Each may be null.
typedef struct vision_client_functions {
  /// Sees each answer of the model, and the flow context of the call, before the call
  /// goes on, which waits for this answer without a limit. Answer: any value; an error is
  /// logged as a warning.
  void (*on_action)(void* host, const char* result, size_t result_size, const char* flow_context,
                    size_t flow_context_size, vision_reply reply);
  /// The way to the model, instead of HTTPS: gets the whole request of the Messages API as
  /// JSON, the image in base64. Answer: the response's JSON object, or an error;
  /// VISION_TRANSPORT_ERROR says which are tried once more.
  void (*create)(void* host, const char* request, size_t size, vision_reply reply);
  /// Called once, on any thread, when none of these will be called again.
  void (*release)(void* host);
} vision_client_functions;

/// Answers with the API key, a JSON text, before it returns: an error, a later answer
/// or none means that ANTHROPIC_API_KEY is asked next. Called on the thread that calls
/// vision_client_new, vision_default_client or vision_start, before that returns.
typedef void (*vision_key_resolver)(void* host, vision_reply reply);

/// Names the models, once per process and before the first client, and tells where the
/// clients of this runtime find the key when they are given none: `resolve_api_key`, which
/// may be null. Returns 1, or 0 with vision_last_error when a name is empty, or when other
/// names are in use already. With the same names it may be called again, for this runtime
/// or another; a resolver replaces the earlier one.
int vision_set_model_registry(vision_runtime* runtime, const char* light_model, const char* heavy_model,
                              vision_key_resolver resolve_api_key, void* host);

/// Makes a client. `options` is a JSON object, every member of which may be missing:
///
///   api_key             text; else the resolver's, else ANTHROPIC_API_KEY
///   default_model       text; the light model
///   call_budget         integer; 50
///   base_url            text; ANTHROPIC_BASE_URL, else https://api.anthropic.com
///   allow_plain_http    boolean; false: http for this machine only
///   ca_file             text: PEM file of the authorities to trust instead of the system's
///   connect_timeout_s   number; 10
///   max_response_bytes  integer; 1048576
///   cassette            text: folder of a recorded session, to record or replay; docs/replay.md
///   cassette_mode       text: "none", "once", "new_episodes" or "all"; "once"
///   cassette_by_order   boolean; false: a request is answered by an equal one only
///
/// `functions` may be null and is copied. With `create` the API key and the five members of
/// the endpoint have no effect, and no key is needed; nor is it for a cassette that replays
/// only.
///
/// Null, with vision_last_error, when there is no registry or no key, and for an option
/// that cannot be used; `release` is not called then.
vision_client* vision_client_new(vision_runtime* runtime, const char* options, size_t size,
                                 const vision_client_functions* functions, void* host);

/// The runtime's default client, which operations use that are given none: made with all
/// defaults by the first call, or the first operation, that succeeds, and the same from
/// then on. Each call gives a handle of its own, to be released. Null, with
/// vision_last_error, as vision_client_new.
vision_client* vision_default_client(vision_runtime* runtime);

/// Releases the handle. Operations that use the client keep it until they have ended. Null
/// is ignored.
void vision_client_release(vision_client* client);

/// What the client has counted since it was made or reset, a JSON object: call_count,
/// total_input_tokens, total_output_tokens, latencies_ms (list), failures_by_reason and
/// by_model (objects), p95 (milliseconds), estimated_cost_usd. Waits for the callback that
/// the runtime's thread may be in. The text is valid until the calling thread calls this
/// again. `size` may be null.
const char* vision_client_metrics(vision_client* client, size_t* size);

/// Empties the client's metrics, and with them its call budget, before any operation that
/// is started later.
void vision_client_reset_metrics(vision_client* client);

/// The same for the runtime's default client. Does nothing when none was made.
void vision_reset_default_metrics(vision_runtime* runtime);

// ---------------------------------------------------------------------------- browsers

/// Releases the handle. A browser that was launched ends with the last of its handle, the
/// operations that use it and its pages' handles; "browser_close" ends it at once. Null is
/// ignored.
void vision_browser_release(vision_browser* browser);

// -------------------------------------------------------------------------- operations

/// Functions of the host's that the modes call. `host` is that of the vision_call. Those
/// that a mode does not name are not looked at.
typedef struct vision_mode_functions {
  /// The scripted step. Answer: its value.
  void (*primary_fn)(void* host, vision_reply reply);
  /// The computer-use agent of shadow_observe_then_cua. Answer: its value; when that is an
  /// object, the beginning of its "text" is recorded.
  void (*cua_fn)(void* host, vision_reply reply);
  /// The computer-use agent of with_vision_fallback. `context` is the flow context with
  /// the failure in "context_hint", `reason` the verdict's. Answer: its value.
  void (*cua_fallback)(void* host, const char* context, size_t context_size, const char* reason, size_t reason_size,
                       vision_reply reply);
  /// Asked before every step. Answer: true ends the mission; anything else, an error, or
  /// no answer within the time limit of a step, lets it go on.
  void (*should_abort)(void* host, vision_reply reply);
} vision_mode_functions;

/// How an operation ended.
typedef struct vision_result {
  const vision_error* error;  ///< null unless it failed or was cancelled
  const char* value;          ///< its value as JSON; "null" where it has none
  size_t value_size;          ///< in bytes
  vision_image image;         ///< of "screenshot", to be released by the host; else without a `release`
  vision_page* page;          ///< of "browser_new_page" and "browser_attach", to be released by the host; else null
  vision_browser* browser;    ///< of "chromium_launch" and "chromium_connect", the same; else null
} vision_result;

/// Called once when an operation has ended. Nothing of `result` is valid after it has
/// returned, but for the image and the handles, which are the host's from now on.
typedef void (*vision_done)(void* host, const vision_result* result);

/// What an operation is given. All zero but for what the operation asks for.
typedef struct vision_call {
  const char* options;                     ///< a JSON object; none means {}
  size_t options_size;                     ///< in bytes
  vision_page* page;                       ///< the page
  vision_client* client;                   ///< null: the runtime's default client
  vision_browser* browser;                 ///< the browser
  const vision_image* image;               ///< the screenshot to ask about
  const vision_mode_functions* functions;  ///< copied; what they use stays until `done`
  vision_done done;                        ///< null: a failure is logged as a warning
  void* host;                              ///< what `functions` and `done` are called with
} vision_call;

/// Starts an operation. `call` is copied, and the image taken over whatever happens.
/// Returns its number, or 0 when the runtime is ending: `done` is not called then.
/// Everything else that is wrong, the operation's name included, comes as the error in
/// `done`, which may be called before this returns.
///
/// An option with an unknown name or of a wrong type is an invalid_argument whose message
/// names it; null means that it is not given. Names and defaults are those of the rest of
/// the documentation. Wherever flow_context (an object) and hotspot_id (a text) are named
/// they are required.
///
/// The modes, with a page:
///
///   act_loop                 flow_context, hotspot_id, mission_prompt, run_id, high_stakes,
///                            max_steps, read_only; may call should_abort.
///                            Value: the terminal result.
///   with_vision_fallback     flow_context, high_stakes; calls primary_fn, which is required,
///                            and may call cua_fallback.
///                            Value: {"way": ..., "value": ...}; the way is "step" or
///                            "rescued" (the value is that of primary_fn, from its first or
///                            second run), "verdict" (a result) or "agent" (that of
///                            cua_fallback).
///   shadow_observe_then_cua  flow_context, hotspot_id, run_id, high_stakes; calls cua_fn,
///                            which is required. Value: that of cua_fn.
///   observe_only             flow_context, hotspot_id, run_id, high_stakes, dom_ground_truth.
///                            Value: the record.
///   observe_in_background    the same for a caller that does not wait: `done` may be null.
///
/// One question, or one action:
///
///   screenshot      with a page; full_page. Value: the image metadata, width_css,
///                   height_css, dpr, captured_at; and the image.
///   ask             with an image; img_meta (required, such metadata), flow_context, prompt,
///                   high_stakes, timeout_s, transport_retry. Value: the result.
///   act             with a page; flow_context, prompt, high_stakes, timeout_s. Value: the
///                   result.
///   execute_action  with a page; result and img_meta, both required. A result needs its
///                   action only.
///
/// A result has action, reason, confidence, next_expected_state, x_ratio, y_ratio, text,
/// key, scroll_dy_ratio, duration_ms, low_confidence, model_used, latency_ms,
/// input_tokens, output_tokens and cause; what is absent is null. The cause is a text:
/// "model_answer", "call_timed_out", "transport_error", "unexpected_error", "no_tool_call",
/// and of act_loop "step_cap", "aborted", "repeated_proposal", "uncertain_action",
/// "uncertain_success", "read_only", "step_timed_out", "step_failed", "budget_exhausted"
/// or "action_failed". Of a result from the host it is not read.
///
/// A Chromium of ours:
///
///   chromium_launch   executable, headless, arguments (list of texts), launch_timeout_s,
///                     command_timeout_s
///   chromium_connect  url (required), command_timeout_s, allow_remote
///   browser_new_page  with a browser; width, height, device_pixel_ratio,
///                     optimize_for_speed (true by default: screenshots in less time and
///                     more bytes). Value: {"target_id": ...}; and the page.
///   browser_attach    with a browser; target_id (required), optimize_for_speed. The same.
///   browser_pages     with a browser. Value: a list of {"target_id", "url", "title"}.
///   browser_close     with a browser
///   page_navigate     with a Chromium page; url (required)
///   page_close        with a Chromium page
///
/// And what a script does with a page, of either kind; all options are required:
///
///   page_evaluate        expression. Value: that of the expression.
///   page_mouse_click     x, y
///   page_mouse_wheel     delta_x, delta_y
///   page_keyboard_type   text, delay_ms
///   page_keyboard_press  key
vision_operation vision_start(vision_runtime* runtime, const char* operation, const vision_call* call);

/// Cancels an operation, which ends soon with VISION_CANCELLED. In flight it lets go of
/// all replies at once; one that had ended by then, or ends in the same moment, keeps its
/// ending. Returns at once.
void vision_cancel(vision_operation operation);

// --------------------------------------------------------------------- of the process

/// The mode in which the pipeline is to use vision, from KX_VISION_TIER as it stands now:
/// "off", "shadow", "tier2" or "tier3".
const char* vision_is_vision_enabled(void);

///@{
/// How many shadow log records, and how many screenshots to be stored as fixtures, the
/// process could not write since it began.
uint64_t vision_shadow_log_losses(void);
uint64_t vision_fixture_losses(void);
///@}

/// Levels of log lines.
enum { VISION_LOG_DEBUG = 1, VISION_LOG_INFO = 2, VISION_LOG_WARNING = 3, VISION_LOG_ERROR = 4 };

/// Gets one log line, without its end; an error can have several, indented. Called on the
/// thread that logs, which is a runtime's, or one that calls into the library. Must not
/// call vision_set_log.
typedef void (*vision_log)(void* host, int level, const char* line, size_t size);

/// Sends the library's log lines of `level` and above to `log`, for the whole process;
/// null puts standard error back, from VISION_LOG_INFO on. When it returns, the function
/// set before is not in a call and will not be called again.
void vision_set_log(vision_log log, void* host, int level);

/// The version that this header belongs to.
#define VISION_VERSION "0.1.0"

/// The library's version. A host that may find another library than it was compiled for
/// compares it with VISION_VERSION before anything else: structures, options and the
/// members of results may differ between two versions.
const char* vision_version(void);

#ifdef __cplusplus
}
#endif

#endif
