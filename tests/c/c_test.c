/* The C interface, driven by a C program: a scripted page and a scripted model that
   answer from another thread, or wrongly, twice, late or never.
     c_test                 everything but the next
     c_test chromium        a page in a real Chromium
     c_test exit CALL HOW   exits with 7 in that call of the host's */
#include <pthread.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bindings/c/vision.h"

void set_speed(vision_runtime* runtime, int speed);
extern char** environ;

#define CONTEXT "\"flow_context\": {\"workflow_name\": \"share\", \"phase\": 2}"
#define MISSION "{" CONTEXT ", \"hotspot_id\": \"h\"}"
#define META "\"img_meta\": {\"width_css\": 1280, \"height_css\": 800, \"dpr\": 2.0, \"captured_at\": 1.5}"
#define ACTION(action, more) \
  "{\"action\": \"" action "\", \"reason\": \"because\", \"confidence\": 0.9, \"next_expected_state\": \"\"" more "}"
#define OPEN "{" CONTEXT "}"
#define PATIENT "{" CONTEXT ", \"timeout_s\": 1e5}"
#define TRUTH "{" CONTEXT ", \"hotspot_id\": \"h\", \"dom_ground_truth\": {\"z\": 1, \"a\": null}}"
#define DO(result) "{\"result\": " result ", " META "}"
#define KEYLESS "{\"result\": {\"action\": \"key\"}, " META "}"
#define NO_AGENT "null" /* from a host without cua_fallback */
/* Numbers that a careless reader changes, members that it sorts, and half a character. */
#define VALUE                                                                                                   \
  "[1.3927926388013963e-143, 9007199254740993, 18446744073709551615, -0.0, {\"b\": 1, \"a\": \"\\ud83d\\ude00 " \
  "\\ufffd\"}]"
#define VALUE_IN_TEXT                                                    \
  "\"[1.3927926388013963e-143, 9007199254740993, 18446744073709551615, " \
  "-0.0, {\\\"b\\\": 1, \\\"a\\\": \\\"\\\\ud83d\\\\ude00 \\\\ud83d\\\"}]\""
#define CLICK ACTION("click", ", \"x_ratio\": 0.5, \"y_ratio\": 0.25")
#define SUCCESS ACTION("declare_success", "")
#define ESCALATE ACTION("escalate_to_cua", "")
#define WAIT ACTION("wait", ", \"duration_ms\": 1")

static int failures;
#define CHECK(condition, ...)                                \
  do {                                                       \
    if (!(condition)) {                                      \
      ++failures;                                            \
      printf("%s:%d: %s: ", __FILE__, __LINE__, #condition); \
      printf(__VA_ARGS__);                                   \
      printf("\n");                                          \
    }                                                        \
  } while (0)

/* ---- the host */

enum fault { NONE, FAIL, FAIL_ONCE, NEVER, TWICE, WRONG, GARBAGE };

typedef struct host {
  const char* faulty; /* names of the functions that misbehave, and how */
  enum fault fault;
  const char* failing;                      /* a function that always fails, whatever the fault; null: none */
  const char* const* model;                 /* inputs of the tool, or "!KIND" for an error */
  const char* value;                        /* what evaluate, primary_fn and the agents give; null: a number */
  int stop_at;                              /* the call at which `stop` happens; 0: none; -1: one that hangs */
  void (*stop)(struct host*, vision_reply); /* instead of an answer */
  int at_once;                              /* answers in the callback */

  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int calls, asked, done, jobs, tokens, images, pages, clients; /* the last five: not yet over or released */
  vision_reply unanswered[8];
  int unanswered_count, failed;
  char acted[256], seen[512];
  vision_operation operation;
  /* of the result */
  char text[4096]; /* the value, or "kind: message" of the error */
  void* token;
  unsigned flags;
  vision_page* page;
  vision_browser* browser;
  vision_runtime* restart; /* where the end of the operation starts another, which is refused */
  vision_operation restarted;
} host;

static void host_init(host* h) {
  memset(h, 0, sizeof *h);
  pthread_mutex_init(&h->mutex, NULL);
  pthread_cond_init(&h->changed, NULL);
}

static void add(host* h, int* count, int by) {
  pthread_mutex_lock(&h->mutex);
  *count += by;
  pthread_cond_broadcast(&h->changed);
  pthread_mutex_unlock(&h->mutex);
}

static void await_count(host* h, const int* count, int wanted) {
  pthread_mutex_lock(&h->mutex);
  while (*count != wanted) pthread_cond_wait(&h->changed, &h->mutex);
  pthread_mutex_unlock(&h->mutex);
}

static void release_token(void* h) {
  add(h, &((host*)h)->tokens, -1);
}
static void release_image(void* h) {
  add(h, &((host*)h)->images, -1);
}
static void release_page(void* h) {
  add(h, &((host*)h)->pages, -1);
}
static void release_client(void* h) {
  add(h, &((host*)h)->clients, -1);
}

/* An answer, which another thread gives. */
typedef struct job {
  host* h;
  vision_reply reply;
  enum fault fault;
  int wants_image;
  const char* error_kind; /* or the value, a copy */
  char* value;
  struct job* next;
} job;

static int reply_error(host* h, vision_reply reply, const char* kind) {
  const unsigned flags = strcmp(kind, "GatewayBusy") == 0 ? VISION_TRANSPORT_ERROR : 0;
  const vision_error error = {kind, "it broke", 8, h, release_token, flags};
  add(h, &h->tokens, 1);
  return vision_reply_error(reply, &error);
}

static int reply_image(host* h, vision_reply reply) {
  const vision_image image = {"\x89PNG", 4, release_image, h};
  add(h, &h->images, 1);
  return vision_reply_image(reply, &image);
}

static int reply(const job* j) {
  if (j->fault == FAIL || j->error_kind)
    return reply_error(j->h, j->reply, j->error_kind ? j->error_kind : "StepError");
  if (j->fault == GARBAGE) return vision_reply_value(j->reply, "{not json", 9);
  if (j->wants_image != (j->fault == WRONG)) return reply_image(j->h, j->reply);
  return vision_reply_value(j->reply, j->value, strlen(j->value));
}

static void perform(job* j) {
  host* h = j->h;
  const int taken = reply(j);
  if (j->fault == TWICE) CHECK(taken && !reply(j) && !reply_error(h, j->reply, "Late"), "the second answer counts");
  free(j->value);
  free(j);
  add(h, &h->jobs, -1);
}

static pthread_mutex_t jobs_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t jobs_changed = PTHREAD_COND_INITIALIZER;
static job *jobs, **last_job = &jobs;

static void* answer_jobs(void* unused) {
  for (;;) {
    pthread_mutex_lock(&jobs_mutex);
    while (!jobs) pthread_cond_wait(&jobs_changed, &jobs_mutex);
    job* j = jobs;
    jobs = j->next;
    if (!jobs) last_job = &jobs;
    pthread_mutex_unlock(&jobs_mutex);
    perform(j);
  }
  return unused;
}

static void answer(host* h, const char* function, vision_reply reply, const char* value, const char* error_kind) {
  pthread_mutex_lock(&h->mutex);
  const int call = ++h->calls;
  pthread_cond_broadcast(&h->changed);
  const int is_faulty = h->faulty && strstr(h->faulty, function) && !(h->fault == FAIL_ONCE && h->failed++);
  const int is_failing = h->failing && strcmp(h->failing, function) == 0;
  const enum fault fault = is_failing ? FAIL : !is_faulty ? NONE : h->fault == FAIL_ONCE ? FAIL : h->fault;
  const int is_stop = call == h->stop_at || (h->stop_at < 0 && fault == NEVER);
  if (fault == NEVER && !is_stop && h->unanswered_count < 8) h->unanswered[h->unanswered_count++] = reply;
  pthread_mutex_unlock(&h->mutex);
  if (is_stop) {
    h->stop(h, reply);
    return;
  }
  if (fault == NEVER) return;
  const job made = {h, reply, fault, strcmp(function, "screenshot") == 0, error_kind, strdup(value), NULL};
  job* j = malloc(sizeof *j);
  *j = made;
  add(h, &h->jobs, 1);
  if (h->at_once) {
    perform(j);
    return;
  }
  pthread_mutex_lock(&jobs_mutex);
  *last_job = j;
  last_job = &j->next;
  pthread_cond_signal(&jobs_changed);
  pthread_mutex_unlock(&jobs_mutex);
}

static void note(host* h, const char* input) {
  pthread_mutex_lock(&h->mutex);
  strncat(h->acted, input, sizeof h->acted - strlen(h->acted) - 1);
  pthread_mutex_unlock(&h->mutex);
}

static void screenshot(void* h, int full_page, vision_reply r) {
  if (full_page) note(h, "full page, ");
  answer(h, "screenshot", r, "3", NULL);
}
static void evaluate(void* h, const char* expression, size_t size, vision_reply r) {
  const char* value = strcmp(expression, "window.devicePixelRatio") == 0 ? "2" : expression;
  CHECK(strlen(expression) == size, "%zu", size);
  answer(h, "evaluate", r, value, NULL);
}
static void viewport_size(void* h, vision_reply r) {
  answer(h, "viewport_size", r, "{\"width\": 1280, \"height\": 800}", NULL);
}
static void mouse_click(void* h, double x, double y, vision_reply r) {
  char text[64];
  snprintf(text, sizeof text, "click %g %g, ", x, y);
  note(h, text);
  answer(h, "mouse_click", r, "", NULL);
}
static void mouse_wheel(void* h, double x, double y, vision_reply r) {
  char text[64];
  snprintf(text, sizeof text, "wheel %g %g, ", x, y);
  note(h, text);
  answer(h, "mouse_wheel", r, "null", NULL);
}
static void keyboard_type(void* h, const char* typed, size_t size, double delay_ms, vision_reply r) {
  char text[64];
  snprintf(text, sizeof text, "type %.*s %g, ", (int)size, typed, delay_ms);
  note(h, text);
  answer(h, "keyboard_type", r, "true", NULL);
}
static void keyboard_press(void* h, const char* key, size_t size, vision_reply r) {
  char text[64];
  snprintf(text, sizeof text, "press %.*s, ", (int)size, key);
  note(h, text);
  answer(h, "keyboard_press", r, "[]", NULL);
}
static const vision_page_functions page_functions = {screenshot,  evaluate,      viewport_size,  mouse_click,
                                                     mouse_wheel, keyboard_type, keyboard_press, release_page};

static void create(void* host_, const char* request, size_t size, vision_reply r) {
  host* h = host_;
  char response[1024];
  CHECK(size == strlen(request) && strstr(request, "\"data\": \"iVBORw"), "%.300s", request);
  const char* input = h->model && h->model[h->asked] ? h->model[h->asked++] : "!NoAnswerLeft";
  snprintf(response, sizeof response,
           "{\"usage\": {\"input_tokens\": 1500, \"output_tokens\": 200}, \"content\": "
           "[{\"type\": \"tool_use\", \"name\": \"propose_action\", \"input\": %s}]}",
           input);
  answer(h, "create", r, response, input[0] == '!' ? input + 1 : NULL);
}
static void on_action(void* h, const char* result, size_t size, const char* context, size_t context_size,
                      vision_reply r) {
  pthread_mutex_lock(&((host*)h)->mutex);
  snprintf(((host*)h)->seen, sizeof((host*)h)->seen, "%.*s %.*s", (int)size, result, (int)context_size, context);
  pthread_mutex_unlock(&((host*)h)->mutex);
  answer(h, "on_action", r, "", NULL);
}
static const vision_client_functions client_functions = {on_action, create, release_client};

static const char* host_value(const void* h) {
  const char* value = ((const host*)h)->value;
  return value ? value : "{\"text\": \"done\", \"n\": 1}";
}
static void primary_fn(void* h, vision_reply r) {
  answer(h, "primary_fn", r, host_value(h), NULL);
}
static void cua_fn(void* h, vision_reply r) {
  answer(h, "cua_fn", r, host_value(h), NULL);
}
static void cua_fallback(void* h, const char* context, size_t context_size, const char* reason, size_t size,
                         vision_reply r) {
  pthread_mutex_lock(&((host*)h)->mutex);
  snprintf(((host*)h)->seen, sizeof((host*)h)->seen, "%.*s %.*s", (int)size, reason, (int)context_size, context);
  pthread_mutex_unlock(&((host*)h)->mutex);
  answer(h, "cua_fallback", r, "\"by the agent\"", NULL);
}
static void should_abort(void* h, vision_reply r) {
  answer(h, "should_abort", r, host_value(h), NULL);
}
static const vision_mode_functions with_agent = {primary_fn, cua_fn, cua_fallback, should_abort};
static const vision_mode_functions without_agent = {primary_fn, cua_fn, NULL, NULL};

static void done(void* host_, const vision_result* result) {
  host* h = host_;
  if (result->image.release) {
    CHECK(result->image.size >= 4 && memcmp(result->image.data, "\x89PNG", 4) == 0, "not a PNG");
    result->image.release(result->image.owner);
  }
  pthread_mutex_lock(&h->mutex);
  const vision_error* error = result->error;
  snprintf(h->text, sizeof h->text, "%s%s%s", error ? error->kind : "", error ? ": " : "",
           error ? error->message : result->value);
  CHECK(error ? error->message_size == strlen(error->message) : result->value_size == strlen(result->value), "%s",
        h->text);
  h->token = error ? error->token : NULL;
  h->flags = error ? error->flags : 0;
  h->page = result->page;
  h->browser = result->browser;
  const vision_call again = {0};
  if (h->restart) h->restarted = vision_start(h->restart, "act", &again);
  ++h->done;
  pthread_cond_broadcast(&h->changed);
  pthread_mutex_unlock(&h->mutex);
}

static vision_operation start(vision_runtime* runtime, host* h, const char* operation, const char* options,
                              vision_page* page, vision_client* client, const vision_mode_functions* functions) {
  static const vision_image image = {"\x89PNG", 4, NULL, NULL};
  const vision_call call = {options, strlen(options), page, client, h->browser, &image, functions, done, h};
  return vision_start(runtime, operation, &call);
}

/* ---- operations, their answers and their faults */

typedef struct row {
  const char *operation, *options, *model[4];
  const char* faulty; /* functions of the host's, and what is wrong with them */
  enum fault fault;
  const char* says;  /* expected: a part of the value, or of the error's "kind: message" */
  const char* acted; /* expected inputs; null: any */
  const char* value; /* what the host's functions give */
  unsigned flags;    /* expected */
  int is_fast;       /* in a runtime whose time passes faster */
} row;

static const row rows[] = {
    {"act", OPEN, {CLICK}, 0, 0, "\"x_ratio\": 0.5, \"y_ratio\": 0.25, \"text\": null", ""},
    {"screenshot", "{\"full_page\": true}", {0}, 0, 0, "\"height_css\": 800, \"dpr\": 2.0", "full page, "},
    {"ask", "{" META ", " CONTEXT ", \"transport_retry\": false}", {SUCCESS}, 0, 0, "\"declare_success\""},
    {"execute_action", DO(CLICK), {0}, 0, 0, "null", "click 640 200, "},
    {"execute_action", KEYLESS, {0}, 0, 0, "invalid_argument: key action requires key", ""},
    {"act_loop", MISSION, {WAIT, SUCCESS}, 0, 0, "\"action\": \"declare_success\"", ""},
    {"observe_only", TRUTH, {CLICK}, 0, 0, "\"dom_ground_truth\": {\"z\": 1, \"a\": null}", ""},
    {"shadow_observe_then_cua", MISSION, {CLICK}, 0, 0, "{\"text\": \"done\", \"n\": 1}", ""},
    {"with_vision_fallback", OPEN, {0}, 0, 0, "{\"way\": \"step\", \"value\": {\"text\": \"done\""},
    {"with_vision_fallback", OPEN, {CLICK}, "primary_fn", FAIL_ONCE, "\"rescued\"", "click 640 200, "},
    {"with_vision_fallback", OPEN, {SUCCESS}, "primary_fn", FAIL, "{\"way\": \"verdict\", \"value\": {\"action\""},
    {"with_vision_fallback", OPEN, {ESCALATE}, "primary_fn", FAIL, "\"agent\", \"value\": \"by the agent\""},
    {"with_vision_fallback", OPEN, {ESCALATE}, "primary_fn", FAIL, "StepError: it broke", "", NO_AGENT},
    {"with_vision_fallback", OPEN, {CLICK}, "primary_fn mouse_click", FAIL, "StepError: it broke"},
    {"shadow_observe_then_cua", MISSION, {CLICK}, "cua_fn", FAIL, "StepError: it broke", "", 0, VISION_CUA_ORIGIN},
    {"act_loop", MISSION, {0}, 0, 0, "aborted by caller before step 1", "", "true"},
    {"act_loop", MISSION, {SUCCESS}, "should_abort", FAIL, "declare_success", "", "true"},
    {"act_loop", MISSION, {0}, "viewport_size", GARBAGE, "the answer to viewport_size cannot be read as JSON"},
    {"act_loop", MISSION, {0}, "should_abort screenshot", NEVER, "act step 1 timed out", "", 0, 0, 1},
    {"act", OPEN, {0}, "viewport_size", WRONG, "invalid_argument: viewport_size must be answered with a value"},
    {"act", OPEN, {"!BadRequestError"}, 0, 0, "unexpected error: BadRequestError: it broke"},
    {"act", PATIENT, {"!RateLimitError", CLICK}, 0, 0, "\"click\"", "", 0, 0, 1},
    {"act", PATIENT, {"!APITimeoutError", "!GatewayBusy"}, 0, 0, "transport error: GatewayBusy: it broke", "", 0, 0, 1},
    {"act", OPEN, {CLICK}, "create", NEVER, "vision timeout after 20.0s", "", 0, 0, 1},
    {"observe_only", MISSION, {0}, "viewport_size", NEVER, "\"timeout\": true", "", 0, 0, 1},
    {"screenshot", "{}", {0}, "evaluate", FAIL, "\"dpr\": 1.0"},
    {"screenshot", "{}", {0}, "screenshot", WRONG, "invalid_argument: screenshot must be answered with an image"},
    {"page_evaluate", "{\"expression\": " VALUE_IN_TEXT "}", {0}, 0, 0, VALUE},
    {"page_keyboard_press", "{\"key\": \"Enter\"}", {0}, 0, 0, "null", "press Enter, "},
    {"page_keyboard_type", "{\"text\": \"caf\\u00e9\", \"delay_ms\": 20}", {0}, 0, 0, "null", "type caf\xc3\xa9 20, "},
    {"page_mouse_wheel", "{\"delta_x\": 0, \"delta_y\": 1.5}", {0}, 0, 0, "null", "wheel 0 1.5, "},
    {"page_navigate", "{\"url\": \"about:blank\"}", {0}, 0, 0, "invalid_argument: no page of a Chromium was given"},
    {"act_lop", "{}", {0}, 0, 0, "invalid_argument: vision_start: there is no operation \"act_lop\""},
    {"act", "{\"flow_context\": }", {0}, 0, 0, "invalid_argument: act: the options cannot be read as JSON"},
    {"act_loop", OPEN, {0}, 0, 0, "invalid_argument: act_loop: hotspot_id is required"},
    {"act", "{" CONTEXT ", \"highStakes\": true}", {0}, 0, 0, "invalid_argument: act: unknown option \"highStakes\""},
    {"act", "{" CONTEXT ", \"timeout_s\": \"3\"}", {0}, 0, 0, "act: timeout_s must be a number, not \"3\""},
    {"execute_action", "{\"result\": {\"action\": 1}, " META "}", {0}, 0, 0, "result: action must be a text, not 1"},
};

/* Runs one operation to its end and checks that the library has let go of everything. */
static void run_to_end(vision_runtime* runtime, host* h, const char* operation, const char* options,
                       const vision_mode_functions* functions) {
  h->pages = h->clients = 1;
  vision_page* page = vision_page_new(runtime, &page_functions, h);
  vision_client* client = vision_client_new(runtime, NULL, 0, &client_functions, h);
  pthread_mutex_lock(&h->mutex);
  h->operation = start(runtime, h, operation, options, page, client, functions);
  pthread_mutex_unlock(&h->mutex);
  if (h->stop && !h->stop_at) vision_cancel(h->operation); /* before it has begun, or in its first turns */
  await_count(h, &h->done, 1);
  for (int i = 0; i < h->unanswered_count; ++i) {
    CHECK(!reply_image(h, h->unanswered[i]) && !reply_error(h, h->unanswered[i], "Late"), "a late answer counts");
  }
  vision_cancel(h->operation);
  vision_page_release(page);
  vision_client_metrics(client, NULL); /* after the operation's last turn */
  vision_client_release(client);
  await_count(h, &h->jobs, 0);
  CHECK(h->done == 1 && !h->tokens && !h->images && !h->pages && !h->clients,
        "%s: %d endings; left: %d tokens, %d images, %d pages, %d clients", operation, h->done, h->tokens, h->images,
        h->pages, h->clients);
}

static void run_row(vision_runtime* runtime, const row* r, int at_once) {
  host h;
  host_init(&h);
  h.faulty = r->faulty;
  h.fault = r->fault;
  h.model = r->model;
  h.value = r->value;
  h.at_once = at_once;
  const int no_agent = r->value && strcmp(r->value, NO_AGENT) == 0;
  run_to_end(runtime, &h, r->operation, r->options, no_agent ? &without_agent : &with_agent);
  CHECK(strstr(h.text, r->says) && h.flags == r->flags, "%s: expected %s, not %s", r->operation, r->says, h.text);
  CHECK(!r->acted || strcmp(h.acted, r->acted) == 0, "%s: %s", r->says, h.acted);
  CHECK(h.token == (strncmp(h.text, "StepError", 9) == 0 ? &h : NULL), "%s", h.text);
  if (h.seen[0] == 'b')
    CHECK(strstr(h.seen, "\"context_hint\": \"playwright failed: StepError: it broke\""), "%s", h.seen);
}

static void test_rows(void) {
  vision_runtime *real = vision_runtime_new(), *fast = vision_runtime_new();
  set_speed(fast, 1000);
  for (size_t i = 0; i < sizeof rows / sizeof *rows; ++i) {
    for (int at_once = 0; at_once < 2; ++at_once) run_row(rows[i].is_fast ? fast : real, &rows[i], at_once);
  }
  vision_runtime_free(real);
  vision_runtime_free(fast);
}

/* ---- cancellation at every call of the host's, in the callback and on another thread */

static void* cancel_it(void* operation) {
  vision_cancel(*(vision_operation*)operation);
  free(operation);
  return NULL;
}
static void cancel(host* h, vision_reply reply) {
  pthread_t thread;
  vision_operation* operation = malloc(sizeof *operation);
  pthread_mutex_lock(&h->mutex);
  h->unanswered[h->unanswered_count++] = reply;
  *operation = h->operation;
  pthread_mutex_unlock(&h->mutex);
  if (h->stop_at % 2) {
    cancel_it(operation);
  } else {
    pthread_create(&thread, NULL, cancel_it, operation);
    pthread_detach(thread);
  }
}

static void test_cancellation(void) {
  static const struct {
    const char *operation, *options, *model[4], *faulty;
  } modes[] = {{"act_loop", MISSION, {WAIT, SUCCESS}, NULL},
               {"with_vision_fallback", "{" CONTEXT "}", {CLICK}, "primary_fn"},
               {"shadow_observe_then_cua", MISSION, {CLICK}, NULL},
               {"observe_only", MISSION, {CLICK}, NULL}};
  vision_runtime* runtime = vision_runtime_new();
  for (int m = 0; m < 4; ++m) {
    for (int at = 0, is_over = 0; !is_over; ++at) {
      host h;
      host_init(&h);
      h.model = modes[m].model;
      h.faulty = modes[m].faulty;
      h.fault = FAIL_ONCE;
      h.stop_at = at;
      h.stop = cancel;
      run_to_end(runtime, &h, modes[m].operation, modes[m].options, &with_agent);
      is_over = at > 0 && h.calls < at;
      const int is_cancelled = (h.flags & VISION_CANCELLED) && strncmp(h.text, "Cancelled", 9) == 0;
      CHECK(at == 0 || is_cancelled != is_over, "%s, call %d: %s", modes[m].operation, at, h.text);
    }
  }
  vision_runtime_free(runtime);
}

/* ---- every function of the host's, with every fault; one that never answers is cancelled */

static void test_faults(void) {
  static const struct {
    const char *function, *operation, *options, *model[3], *on_failure, *failing;
  } places[] = {
      {"screenshot", "act", OPEN, {CLICK}, "StepError: it broke"},
      {"evaluate", "act", OPEN, {CLICK}, "\"click\""},
      {"viewport_size", "act", OPEN, {CLICK}, "StepError: it broke"},
      {"create", "act", OPEN, {CLICK}, "unexpected error: StepError: it broke"},
      {"on_action", "act", OPEN, {CLICK}, "\"click\""},
      {"mouse_click", "execute_action", DO(CLICK), {0}, "StepError: it broke"},
      {"mouse_wheel", "execute_action", DO("{\"action\": \"scroll\"}"), {0}, "StepError: it broke"},
      {"keyboard_type", "execute_action", DO("{\"action\": \"type\", \"text\": \"a\"}"), {0}, "StepError: it broke"},
      {"keyboard_press", "execute_action", DO("{\"action\": \"key\", \"key\": \"a\"}"), {0}, "StepError: it broke"},
      {"should_abort", "act_loop", MISSION, {SUCCESS}, "declare_success"},
      {"primary_fn", "with_vision_fallback", OPEN, {ESCALATE}, "by the agent"},
      {"cua_fallback", "with_vision_fallback", OPEN, {ESCALATE}, "StepError: it broke", "primary_fn"},
      {"cua_fn", "shadow_observe_then_cua", MISSION, {CLICK}, "StepError: it broke"},
  };
  vision_runtime* runtime = vision_runtime_new();
  for (size_t i = 0; i < sizeof places / sizeof *places; ++i) {
    for (int fault = NONE; fault <= GARBAGE; ++fault) {
      for (int at_once = 0; at_once < 2; ++at_once) {
        host h;
        host_init(&h);
        h.faulty = places[i].function;
        h.failing = places[i].failing;
        h.fault = (enum fault)fault;
        h.model = places[i].model;
        h.at_once = at_once;
        if (fault == NEVER) {
          h.stop_at = -1;
          h.stop = cancel;
        }
        run_to_end(runtime, &h, places[i].operation, places[i].options, &with_agent);
        const char* says = fault == FAIL ? places[i].on_failure : fault == NEVER ? "Cancelled" : "";
        CHECK(strstr(h.text, says), "%s, fault %d: %s", places[i].function, fault, h.text);
        CHECK(fault != TWICE || !strstr(h.text, "it broke"), "%s: %s", places[i].function, h.text);
      }
    }
  }
  vision_runtime_free(runtime);
}

static void* many_operations(void* runtime) {
  static const char* const model[] = {CLICK, NULL};
  for (int i = 0; i < 40; ++i) {
    host h;
    host_init(&h);
    h.model = model;
    h.stop_at = i % 7;
    h.stop = i % 2 ? cancel : NULL;
    if (!h.stop) h.stop_at = 0;
    run_to_end(runtime, &h, "act", "{" CONTEXT "}", NULL);
  }
  return NULL;
}

static void test_threads(void) {
  pthread_t threads[4];
  vision_runtime* runtime = vision_runtime_new();
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, many_operations, runtime);
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  vision_runtime_free(runtime);
}

/* ---- the end of a runtime, with operations in flight */

static vision_runtime* ending;
static void end_it(host* h, vision_reply reply) {
  (void)h, (void)reply;
  vision_runtime_free(ending);
}

static void test_end(void) {
  vision_runtime_free(vision_runtime_new());
  for (int in_callback = 0; in_callback < 2; ++in_callback) {
    host hosts[6];
    vision_page* pages[6];
    vision_client* clients[6];
    ending = vision_runtime_new();
    for (int i = 0; i < 6; ++i) {
      host* h = &hosts[i];
      host_init(h);
      h->faulty = "screenshot primary_fn";
      h->fault = NEVER;
      h->restart = in_callback ? NULL : ending;
      h->stop = end_it;
      pages[i] = vision_page_new(ending, &page_functions, h);
      clients[i] = vision_client_new(ending, NULL, 0, &client_functions, h);
      if (i == 5) await_count(&hosts[4], &hosts[4].calls, 1);
      if (i == 5 && in_callback) h->stop_at = 1;
      start(ending, h, i % 2 ? "with_vision_fallback" : "observe_only", i % 2 ? "{" CONTEXT "}" : MISSION, pages[i],
            clients[i], &with_agent);
    }
    if (!in_callback) vision_runtime_free(ending);
    for (int i = 0; i < 6; ++i) {
      if (in_callback) await_count(&hosts[i], &hosts[i].done, 1);
      CHECK(hosts[i].done == 1 && (hosts[i].flags & VISION_CANCELLED) && !hosts[i].restarted, "%d: %s", i,
            hosts[i].text);
      vision_page_release(pages[i]);
      CHECK(strstr(vision_client_metrics(clients[i], NULL), "\"call_count\": 0"), "metrics after the end");
      vision_client_release(clients[i]);
    }
  }
}

/* ---- the end of the process, in the callback of a call or beside it */

static const char* const endless[] = {WAIT, WAIT, WAIT, WAIT, WAIT, WAIT, WAIT, WAIT, WAIT, NULL};
static int exit_how;
static void exit_or_hang(host* h, vision_reply reply) {
  (void)h, (void)reply;
  if (exit_how == 0) exit(7);
  for (;;) pause();
}

static int exit_in_the_middle(int call, int how) {
  static host h;
  static vision_runtime* runtime; /* and the others: what is never released is no leak */
  static vision_page* page;
  static vision_client* client;
  host_init(&h);
  exit_how = how;
  h.model = endless;
  h.stop_at = how == 2 ? 0 : call;
  h.stop = exit_or_hang;
  runtime = vision_runtime_new();
  page = vision_page_new(runtime, &page_functions, &h);
  client = vision_client_new(runtime, NULL, 0, &client_functions, &h);
  start(runtime, &h, "act_loop", MISSION, page, client, &with_agent);
  await_count(&h, &h.done, how == 0); /* which never comes: only one thread exits */
  pthread_mutex_lock(&h.mutex);       /* not released: callbacks beside the exit wait for it */
  while (h.calls < call) pthread_cond_wait(&h.changed, &h.mutex);
  return 7;
}

static void test_exits(char* program) {
  for (int how = 0; how < 3; ++how) {
    for (int call = 1; call <= 7; ++call) {
      char number[2] = {(char)('0' + call), 0}, way[2] = {(char)('0' + how), 0}, verb[] = "exit";
      char* const arguments[] = {program, verb, number, way, NULL};
      pid_t child = 0;
      int status = 0;
      CHECK(posix_spawn(&child, program, NULL, NULL, arguments, environ) == 0, "posix_spawn");
      CHECK(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 7,
            "call %d, way %d: status %x", call, how, (unsigned)status);
    }
  }
}

/* ---- models, keys, metrics, log lines */

static const char* the_key;
static void resolve_key(void* calls, vision_reply r) {
  ++*(int*)calls;
  if (the_key) vision_reply_value(r, the_key, strlen(the_key));
}

static void expect_no_client(vision_client* client, const char* kind, const char* says) {
  CHECK(!client && strcmp(vision_last_error()->kind, kind) == 0 && strstr(vision_last_error()->message, says), "%s",
        client ? "a client" : vision_last_error()->message);
}

static void test_models_and_keys(void) {
  static const struct {
    const char *options, *kind, *says;
  } bad[] = {{"{\"call_budget\": 1.5}", "invalid_argument", "VisionClient: call_budget must be an integer, not 1.5"},
             {"{\"budget\": 1}", "invalid_argument", "VisionClient: unknown option \"budget\""},
             {"{\"api_key\": \"k\", \"base_url\": \"ftp://x\"}", "invalid_argument", "ftp"}};
  int asked = 0;
  vision_runtime* runtime = vision_runtime_new();
  unsetenv("ANTHROPIC_API_KEY");
  expect_no_client(vision_default_client(runtime), "runtime_error", "no model registry");
  CHECK(!vision_set_model_registry(runtime, "", "heavy", NULL, NULL), "a model without a name");
  CHECK(vision_set_model_registry(runtime, "light", "heavy", resolve_key, &asked), "%s", vision_last_error()->message);
  expect_no_client(vision_default_client(runtime), "runtime_error", "no API key");
  CHECK(asked == 1 && !vision_set_model_registry(runtime, "other", "heavy", NULL, NULL), "other names: %d", asked);
  CHECK(vision_set_model_registry(runtime, "light", "heavy", resolve_key, &asked), "the same names");
  for (size_t i = 0; i < sizeof bad / sizeof *bad; ++i) {
    expect_no_client(vision_client_new(runtime, bad[i].options, strlen(bad[i].options), NULL, NULL), bad[i].kind,
                     bad[i].says);
  }
  vision_page_functions incomplete = page_functions;
  incomplete.mouse_wheel = NULL;
  CHECK(!vision_page_new(runtime, &incomplete, NULL) && strstr(vision_last_error()->message, "mouse_wheel is missing"),
        "-");

  host h; /* the default client, made by the operation that needs it */
  host_init(&h);
  start(runtime, &h, "screenshot", "{}", NULL, NULL, NULL);
  await_count(&h, &h.done, 1);
  CHECK(strstr(h.text, "no API key"), "%s", h.text);
  vision_reset_default_metrics(runtime);
  the_key = "\"sk-test\"";
  start(runtime, &h, "screenshot", "{}", NULL, NULL, NULL);
  await_count(&h, &h.done, 2);
  CHECK(strstr(h.text, "no page was given"), "%s", h.text);
  vision_client* client = vision_default_client(runtime);
  CHECK(client && asked == 3, "%d", asked);
  vision_client_release(client);

  vision_runtime* other = vision_runtime_new(); /* whose handles are not for this one */
  vision_page* page = vision_page_new(other, &page_functions, &h);
  start(runtime, &h, "screenshot", "{}", page, NULL, NULL);
  await_count(&h, &h.done, 3);
  CHECK(strstr(h.text, "the page belongs to another runtime"), "%s", h.text);
  vision_page_release(page);
  vision_runtime_free(other);
  vision_runtime_free(runtime);
}

static void log_line(void* lines, int level, const char* line, size_t size) {
  CHECK(strlen(line) == size, "%zu", size);
  if (level == VISION_LOG_INFO &&
      strstr(line, "vision: action=click confidence=0.90 workflow=share phase=2 model=light"))
    ++*(int*)lines;
  if (level == VISION_LOG_WARNING &&
      strstr(line, "vision: observe_in_background failed: invalid_argument: no page was given"))
    *(int*)lines += 10;
}

static void test_metrics_and_log(void) {
  static const char* const model[] = {CLICK, NULL};
  static const char options[] = "{\"call_budget\": 1, \"api_key\": \"unused\"}";
  int lines = 0;
  host h;
  host_init(&h);
  h.model = model;
  vision_runtime* runtime = vision_runtime_new();
  vision_page* page = vision_page_new(runtime, &page_functions, &h);
  vision_client* client = vision_client_new(runtime, options, strlen(options), &client_functions, &h);
  vision_set_log(log_line, &lines, VISION_LOG_INFO);
  for (int i = 1; i <= 2; ++i) {
    start(runtime, &h, "act", "{" CONTEXT "}", page, client, NULL);
    await_count(&h, &h.done, i);
  }
  CHECK(strstr(h.text, "BudgetExceeded: Vision call budget 1 exceeded"), "%s", h.text);
  CHECK(strstr(h.seen, "\"action\": \"click\"") &&
            strstr(h.seen, "\"viewport\": {\"w\": 1280, \"h\": 800, \"dpr\": 2.0}"),
        "%s", h.seen);
  const vision_call unwatched = {MISSION, strlen(MISSION), NULL, client, NULL, NULL, NULL, NULL, NULL};
  CHECK(vision_start(runtime, "observe_in_background", &unwatched), "an operation that nobody waits for");
  size_t size = 0;
  const char* metrics = vision_client_metrics(client, &size);
  CHECK(size == strlen(metrics) &&
            strstr(metrics, "\"call_count\": 1, \"total_input_tokens\": 1500, \"total_output_tokens\": 200") &&
            strstr(metrics, "\"by_model\": {\"light\": 1}, \"p95\": ") &&
            strstr(metrics, "\"estimated_cost_usd\": 0.0075"),
        "%s", metrics);
  vision_client_reset_metrics(client);
  CHECK(strstr(vision_client_metrics(client, NULL), "\"call_count\": 0"), "after the reset");
  vision_set_log(NULL, NULL, 0);
  CHECK(lines == 11, "%d", lines);
  vision_page_release(page);
  vision_client_release(client);
  vision_runtime_free(runtime);
}

/* ---- a page of a Chromium */

static void test_chromium(void) {
  static const struct {
    const char *operation, *options, *says;
  } steps[] = {
      {"chromium_launch", "{\"arguments\": [\"--mute-audio\"], \"launch_timeout_s\": 120}", "null"},
      {"browser_new_page", "{\"width\": 640, \"height\": 400, \"optimize_for_speed\": false}", "{\"target_id\": \""},
      {"page_navigate", "{\"url\": \"data:text/html,<title>form</title><input>\"}", "null"},
      {"page_evaluate", "{\"expression\": \"document.querySelector('input').focus()\"}", "null"},
      {"page_keyboard_type", "{\"text\": \"caf\\u00e9\", \"delay_ms\": 1}", "null"},
      {"page_evaluate", "{\"expression\": \"document.querySelector('input').value\"}", "\"caf\\u00e9\""},
      {"screenshot", "{}", "\"width_css\": 640, \"height_css\": 400"},
      {"act", "{" CONTEXT "}", "\"action\": \"click\""},
      {"browser_pages", "{}", "\"title\": \"form\""},
      {"page_evaluate", "{\"expression\": \"nothing.at.all\"}", "ReferenceError"},
      {"page_close", "{}", "null"},
      {"page_evaluate", "{\"expression\": \"1\"}", "has been closed"},
      {"browser_attach", "{\"target_id\": \"none\"}", "no page with target id"},
      {"browser_close", "{}", "null"},
  };
  static const char* const model[] = {CLICK, NULL};
  vision_runtime* runtime = vision_runtime_new();
  CHECK(vision_set_model_registry(runtime, "light", "heavy", NULL, NULL), "the models");
  host h;
  host_init(&h);
  h.model = model;
  vision_client_functions functions = client_functions;
  vision_client* client = vision_client_new(runtime, NULL, 0, &functions, &h);
  vision_page* page = NULL;
  vision_browser* browser = NULL;
  for (size_t i = 0; i < sizeof steps / sizeof *steps; ++i) {
    h.browser = browser;
    start(runtime, &h, steps[i].operation, steps[i].options, page, client, NULL);
    await_count(&h, &h.done, (int)i + 1);
    CHECK(strstr(h.text, steps[i].says), "%s: %s", steps[i].operation, h.text);
    if (h.page) page = h.page;
    if (h.browser) browser = h.browser;
  }
  vision_page_release(page);
  vision_browser_release(browser);
  vision_client_release(client);
  vision_runtime_free(runtime);
}

int main(int argc, char** argv) {
  pthread_t thread;
  pthread_create(&thread, NULL, answer_jobs, NULL);
  pthread_detach(thread);
  if (argc == 2) {
    test_chromium();
  } else if (argc == 4) {
    vision_runtime* runtime = vision_runtime_new();
    vision_set_model_registry(runtime, "light", "heavy", NULL, NULL);
    vision_runtime_free(runtime);
    return exit_in_the_middle(atoi(argv[2]), atoi(argv[3]));
  } else {
    test_models_and_keys();
    test_rows();
    test_metrics_and_log();
    test_cancellation();
    test_faults();
    test_threads();
    test_end();
    test_exits(argv[0]);
  }
  printf("c_test: %d failures\n", failures);
  return failures != 0;
}
