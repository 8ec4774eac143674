// Opens a page in a Chromium and lets vision drive it to the end of a mission.
//
//   cc -std=c99 example.c -lvision_c -lpthread && ./a.out URL
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vision.h"

// One operation that the main thread waits for.
struct waiting {
  pthread_mutex_t mutex;
  pthread_cond_t ended;
  int has_ended, has_failed;
  char* text;  // the value as JSON, or what went wrong
  vision_page* page;
  vision_browser* browser;
};

// On the runtime's thread.
static void end(void* host, const vision_result* result) {
  struct waiting* waiting = host;
  const vision_error* error = result->error;
  pthread_mutex_lock(&waiting->mutex);
  waiting->text = strdup(error ? error->message : result->value);
  waiting->has_failed = error != NULL;
  if (result->page) waiting->page = result->page;
  if (result->browser) waiting->browser = result->browser;
  waiting->has_ended = 1;
  pthread_cond_signal(&waiting->ended);
  pthread_mutex_unlock(&waiting->mutex);
}

// Runs one operation and prints what came of it. Returns whether it succeeded.
static int run(vision_runtime* runtime, struct waiting* waiting, const char* operation, const char* options) {
  const vision_call call = {.options = options,
                            .options_size = strlen(options),
                            .page = waiting->page,
                            .browser = waiting->browser,
                            .done = end,
                            .host = waiting};
  waiting->has_ended = 0;
  if (!vision_start(runtime, operation, &call)) return 0;
  pthread_mutex_lock(&waiting->mutex);
  while (!waiting->has_ended) pthread_cond_wait(&waiting->ended, &waiting->mutex);
  pthread_mutex_unlock(&waiting->mutex);
  printf("%s: %s\n", operation, waiting->text);
  free(waiting->text);
  return !waiting->has_failed;
}

int main(int argc, char** argv) {
  const char* mission =
      "{\"flow_context\": {\"workflow_name\": \"share\", \"current_step\": \"open the share dialog\"},"
      " \"hotspot_id\": \"share-dialog\", \"run_id\": \"run-1\", \"max_steps\": 4,"
      " \"mission_prompt\": \"1. Click \\\"Share\\\".\\n2. Report the text after \\\"Link:\\\".\"}";
  char there[2048];
  snprintf(there, sizeof there, "{\"url\": \"%s\"}", argc > 1 ? argv[1] : "https://example.org");

  vision_runtime* runtime = vision_runtime_new();
  if (!runtime || !vision_set_model_registry(runtime, "claude-haiku-5-5", "claude-opus-5", NULL, NULL)) {
    fprintf(stderr, "%s\n", vision_last_error()->message);
    return 1;
  }
  struct waiting waiting = {.mutex = PTHREAD_MUTEX_INITIALIZER, .ended = PTHREAD_COND_INITIALIZER};
  const int success = run(runtime, &waiting, "chromium_launch", "{}") &&
                      run(runtime, &waiting, "browser_new_page", "{\"width\": 1280, \"height\": 800}") &&
                      run(runtime, &waiting, "page_navigate", there) &&
                      run(runtime, &waiting, "act_loop", mission);  // asks with the key in ANTHROPIC_API_KEY
  vision_page_release(waiting.page);
  vision_browser_release(waiting.browser);
  vision_runtime_free(runtime);
  return success ? 0 : 1;
}
