#include "vision/client/http/internal/curl_driver.hpp"

#include <unistd.h>

#include <cassert>
#include <utility>

#include "vision/client/http/internal/live_drivers.hpp"
#include "vision/client/http/internal/sockets.hpp"

namespace vision::detail::http {
namespace asio = boost::asio;
using boost::system::error_code;

namespace {

// Handles kept for later requests. Each takes 5 kB, and remembers TLS sessions, which
// shorten the next handshake. Eight serve a few missions at once; a burst beyond that
// makes new ones, in 2 us each.
constexpr std::size_t max_spare_handles = 8;

// Connections kept while nothing is in flight. Each saves a handshake, but a burst must
// not leave its descriptors open: many processes may have 1024 at most.
constexpr std::size_t max_idle_connections = 32;

// What a forked child or an exit leaves as it is. Kept, so that it is not a leak: a child
// has the memory of one driver at most, and an exit ends the process.
template <class T>
void keep_for_good(T object) {
  static auto* const mutex = new std::mutex;
  static auto* const kept = new std::vector<T>;
  const std::lock_guard lock(*mutex);
  kept->push_back(std::move(object));
}

}  // namespace

CurlDriver::CurlDriver(const asio::any_io_executor& executor)
    : executor_(executor), process_(::getpid()), timer_(executor) {
  initialise_libcurl();
  add_live_driver(this);
}

CurlDriver::~CurlDriver() {
  close();
}

void CurlDriver::start(std::shared_ptr<Exchange> exchange, Completion completion) noexcept {
  assert(exchange && completion);
  {
    const std::lock_guard lock(mutex_);
    if (is_exiting_) {
      exchange->fail("the process exits");
    } else if (is_closed_) {
      exchange->fail("the event loop shuts down");
    } else {
      break_stale_connections();
      CURL* const easy = take_easy();
      const CURLcode code = begin(easy, *exchange);
      if (code == CURLE_OK) {
        const Exchange* const key = exchange.get();
        running_.emplace(key, Running{std::move(exchange), easy, std::move(completion)});
        if (running_.size() > pool_size_) limit_pool(running_.size());
        return;
      }
      ::curl_easy_cleanup(easy);
      exchange->finish(nullptr, code);
    }
  }
  completion({});
}

CURLcode CurlDriver::begin(CURL* easy, Exchange& exchange) noexcept {
  CURLcode code = easy ? exchange.configure(easy) : CURLE_OUT_OF_MEMORY;
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_PRIVATE, &exchange);
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlDriver::open_socket);
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_OPENSOCKETDATA, &exchange);
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_CLOSESOCKETFUNCTION, &CurlDriver::close_socket);
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_CLOSESOCKETDATA, this);
  if (code == CURLE_OK && !open_pool()) code = CURLE_OUT_OF_MEMORY;
  if (code == CURLE_OK && ::curl_multi_add_handle(multi_, easy) != CURLM_OK) code = CURLE_FAILED_INIT;
  return code;
}

void CurlDriver::cancel(const Exchange* exchange) noexcept {
  Completion completion;
  {
    const std::lock_guard lock(mutex_);
    auto found = running_.extract(exchange);
    if (found.empty()) return;
    if (is_exiting_) {
      keep_for_good(found.mapped().easy);
    } else {
      retire(found.mapped().easy);
    }
    completion = std::move(found.mapped().completion);
  }
  completion(asio::error::operation_aborted);
}

void CurlDriver::close() noexcept {
  remove_live_driver(this);
  std::map<const Exchange*, Running> abandoned;
  {
    // Of a fork that the host did not tell of: a thread of the parent may hold the mutex,
    // and letting go of a wait would end the parent's, whose context waits with the same.
    const bool is_foreign = process_ != ::getpid();
    std::unique_lock lock(mutex_, std::defer_lock);
    if (!is_foreign) lock.lock();
    if (std::exchange(is_closed_, true)) return;
    if (is_foreign) keep_for_good(std::exchange(watches_, {}));
    if (is_exiting_ || is_foreign) {
      abandoned = leave_behind();
    } else {
      abandoned.swap(running_);
      for (auto& [key, running] : abandoned) {
        ::curl_multi_remove_handle(multi_, running.easy);
        ::curl_easy_cleanup(running.easy);
      }
      for (CURL* const easy : spare_handles_) ::curl_easy_cleanup(easy);
      spare_handles_.clear();
      ::curl_multi_cleanup(std::exchange(multi_, nullptr));
    }
    watches_.clear();
    timer_.reset();
    executor_ = asio::any_io_executor();
  }
  // `abandoned` is destroyed here, without the mutex: with the completions go the
  // waiting coroutines, whose destructors are host code.
}

// Ending a handle would say TLS's goodbye on the parent's connections, and wait for
// threads that resolve names, which a child does not have.
std::map<const Exchange*, CurlDriver::Running> CurlDriver::leave_behind() noexcept {
  for (const auto& [key, running] : running_) keep_for_good(running.easy);
  for (CURL* const easy : spare_handles_) keep_for_good(easy);
  spare_handles_.clear();
  if (multi_) keep_for_good(std::exchange(multi_, nullptr));
  return std::exchange(running_, {});
}

void CurlDriver::forked() noexcept {
  std::map<const Exchange*, Running> abandoned;
  {
    const std::lock_guard lock(mutex_);
    if (is_closed_ || process_ == ::getpid()) return;
    process_ = ::getpid();
    abandoned = leave_behind();
    for (const auto& [fd, watch] : watches_) kept_.insert(fd);
    for (const curl_socket_t fd : kept_) ::close(fd);  // else the parent's connections end only with the child
    kept_.clear();
    watches_.clear();
    ++timer_generation_;
    timer_->cancel();
  }
  for (auto& [key, running] : abandoned) {
    running.exchange->fail("the process has forked, and the answer goes to the parent");
    running.completion({});
  }
}

void CurlDriver::process_exits() noexcept {
  if (process_ != ::getpid()) return;  // the mutex may be held by a thread of the parent
  const std::lock_guard lock(mutex_);
  is_exiting_ = true;
}

CurlDriver::Completions CurlDriver::perform(curl_socket_t fd, int events) {
  int still_running = 0;
  const CURLMcode failure = ::curl_multi_socket_action(multi_, fd, events, &still_running);
  Completions completions;
  int left = 0;
  while (const CURLMsg* const message = ::curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;  // the message is freed with the handle's removal
    note_kept_connection(message->easy_handle);
    const auto found = running_.find(exchange_of(message->easy_handle));
    if (found != running_.end() && !send_again(found->second, code)) finish(found->first, code, completions);
  }
  for (const Exchange* const key : std::exchange(given_up_, {})) finish(key, CURLE_ABORTED_BY_CALLBACK, completions);
  if (failure != CURLM_OK) {  // the multi handle no longer serves what runs on it
    while (!running_.empty()) finish(running_.begin()->first, CURLE_RECV_ERROR, completions);
  }
  return completions;
}

void CurlDriver::finish(const Exchange* key, CURLcode code, Completions& completions) {
  auto found = running_.extract(key);
  if (found.empty()) return;
  found.mapped().exchange->finish(found.mapped().easy, code);
  retire(found.mapped().easy);
  completions.push_back(std::move(found.mapped().completion));
}

bool CurlDriver::send_again(Running& running, CURLcode code) noexcept {
  if (!running.exchange->may_be_sent_again(running.easy, code)) return false;
  ::curl_multi_remove_handle(multi_, running.easy);
  reset(running.easy);
  return begin(running.easy, *running.exchange) == CURLE_OK;
}

const Exchange* CurlDriver::exchange_of(CURL* easy) noexcept {
  const char* key = nullptr;
  ::curl_easy_getinfo(easy, CURLINFO_PRIVATE, &key);
  return reinterpret_cast<const Exchange*>(key);
}

CURL* CurlDriver::take_easy() noexcept {
  if (spare_handles_.empty()) return ::curl_easy_init();
  CURL* const easy = spare_handles_.back();
  spare_handles_.pop_back();
  return easy;
}

bool CurlDriver::open_pool() noexcept {
  if (multi_) return true;
  multi_ = make_multi();
  if (!multi_) return false;
  ::curl_multi_setopt(multi_, CURLMOPT_SOCKETFUNCTION, &CurlDriver::on_socket);
  ::curl_multi_setopt(multi_, CURLMOPT_SOCKETDATA, this);
  ::curl_multi_setopt(multi_, CURLMOPT_TIMERFUNCTION, &CurlDriver::on_timer);
  ::curl_multi_setopt(multi_, CURLMOPT_TIMERDATA, this);
  limit_pool(max_idle_connections);
  return true;
}

// libcurl enforces its limit only when a request succeeds, by closing one idle
// connection, so it cannot follow a limit that falls with the requests in flight. Ours
// only rises.
void CurlDriver::limit_pool(std::size_t size) noexcept {
  pool_size_ = size;
  ::curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, static_cast<long>(size));
}

// Else libcurl would change the host's handling of SIGPIPE while it ends the handle.
void CurlDriver::reset(CURL* easy) noexcept {
  ::curl_easy_reset(easy);
  ::curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
}

void CurlDriver::retire(CURL* easy) noexcept {
  ::curl_multi_remove_handle(multi_, easy);
  reset(easy);
  if (spare_handles_.size() < max_spare_handles) {
    spare_handles_.push_back(easy);
  } else {
    ::curl_easy_cleanup(easy);
  }
  // The only way to close idle connections is to end the multi handle.
  if (running_.empty() && pool_size_ > max_idle_connections) ::curl_multi_cleanup(std::exchange(multi_, nullptr));
}

}  // namespace vision::detail::http
