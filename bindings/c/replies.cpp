#include "bindings/c/replies.hpp"

#include <boost/asio/this_coro.hpp>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "bindings/c/errors.hpp"
#include "bindings/c/exit_gate.hpp"
#include "bindings/c/loop.hpp"
#include "bindings/c/numbered.hpp"
#include "bindings/c/options.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::c {
namespace {

// Takes an answer, on any thread, and says whether it did.
using Taker = std::function<bool(Answer)>;

// Never destroyed: the host may answer while the process exits.
Numbered<Taker>& open_replies() {
  static auto* const made = new Numbered<Taker>;
  return *made;
}

// A reply that can be answered as long as this lives.
class OpenReply {
 public:
  explicit OpenReply(Taker taker) : number(next_number()) { open_replies().add(number, std::move(taker)); }
  ~OpenReply() { open_replies().take(number); }
  OpenReply(const OpenReply&) = delete;
  OpenReply& operator=(const OpenReply&) = delete;

  const vision_reply number;
};

// One wait for an answer, on the loop's thread.
struct Wait {
  explicit Wait(const asio::any_io_executor& executor) : answered(executor) {}
  runtime::OneShot answered;
  Answer answer;
};

asio::awaitable<Answer> ask_host(HostCall call) {
  const auto wait = std::make_shared<Wait>(co_await asio::this_coro::executor);
  const std::weak_ptr<Wait> waiting = wait;
  const OpenReply reply([loop = Loop::current()->shared_from_this(), waiting](Answer answer) {
    return loop->post([waiting, answer = std::move(answer)]() mutable {
      const auto still = waiting.lock();
      if (!still) return;
      still->answer = std::move(answer);
      still->answered.set();
    });
  });
  call(reply.number);
  co_await wait->answered.wait();
  co_return std::move(wait->answer);
}

int deliver(vision_reply reply, Answer answer) noexcept {
  const Taker taker = open_replies().take(reply);
  return taker && taker(std::move(answer)) ? 1 : 0;
}

[[noreturn]] void wrong_answer(const std::string& function, const char* wanted) {
  throw std::invalid_argument(function + " must be answered with " + wanted);
}

// Held by the Bytes made of it.
struct ImageOwner {
  explicit ImageOwner(const vision_image& image) : release(image.release), owner(image.owner) {}
  ~ImageOwner() { call_host(release, owner); }
  ImageOwner(const ImageOwner&) = delete;
  ImageOwner& operator=(const ImageOwner&) = delete;

  void (*const release)(void*);
  void* const owner;
};

}  // namespace

asio::awaitable<boost::json::value> value_from_host(std::string function, HostCall call) {
  const Answer answer = co_await ask_host(std::move(call));
  if (const auto* error = std::get_if<std::exception_ptr>(&answer)) std::rethrow_exception(*error);
  const auto* json = std::get_if<std::string>(&answer);
  if (!json) wrong_answer(function, "a value, not an image");
  if (json->empty()) co_return nullptr;
  co_return read_value(*json, "the answer to " + function);
}

asio::awaitable<Bytes> image_from_host(std::string function, HostCall call) {
  const Answer answer = co_await ask_host(std::move(call));
  if (const auto* error = std::get_if<std::exception_ptr>(&answer)) std::rethrow_exception(*error);
  const auto* image = std::get_if<Bytes>(&answer);
  if (!image) wrong_answer(function, "an image, not a value");
  co_return *image;
}

Answer answer_at_once(const HostCall& call) {
  struct Given {
    std::mutex mutex;
    Answer answer;
  };
  const auto given = std::make_shared<Given>();
  {
    const OpenReply reply([given](Answer answer) {
      const std::lock_guard lock(given->mutex);
      given->answer = std::move(answer);
      return true;
    });
    call(reply.number);
  }
  const std::lock_guard lock(given->mutex);
  return std::move(given->answer);
}

Bytes take_image(const vision_image& image) {
  const std::string_view bytes(static_cast<const char*>(image.data), image.size);
  if (!image.release) return Bytes(std::string(bytes));
  return {bytes, std::make_shared<ImageOwner>(image)};
}

vision_image give_image(Bytes image) {
  auto* const owned = new Bytes(std::move(image));
  return {owned->data(), owned->size(), [](void* owner) { delete static_cast<Bytes*>(owner); }, owned};
}

}  // namespace vision::c

int vision_reply_value(vision_reply reply, const char* json, size_t size) {
  return vision::c::deliver(reply, std::string(json ? json : "", json ? size : 0));
}

int vision_reply_image(vision_reply reply, const vision_image* image) {
  return vision::c::deliver(reply, vision::c::take_image(*image));
}

int vision_reply_error(vision_reply reply, const vision_error* error) {
  return vision::c::deliver(reply, vision::c::to_exception(*error));
}
