#include "vision/client/http/internal/curl_driver.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <boost/asio/post.hpp>
#include <cassert>
#include <utility>

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

}  // namespace

CurlDriver::CurlDriver(const asio::any_io_executor& executor) : executor_(executor), timer_(executor) {
  initialise_libcurl();
}

CurlDriver::~CurlDriver() {
  close();
}

void CurlDriver::start(std::shared_ptr<Exchange> exchange, Completion completion) noexcept {
  assert(exchange && completion);
  {
    const std::lock_guard lock(mutex_);
    if (!is_closed_) {
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
    } else {
      exchange->finish(nullptr, CURLE_ABORTED_BY_CALLBACK);
    }
  }
  completion({});
}

CURLcode CurlDriver::begin(CURL* easy, Exchange& exchange) noexcept {
  CURLcode code = easy ? exchange.configure(easy) : CURLE_OUT_OF_MEMORY;
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_PRIVATE, &exchange);
  if (code == CURLE_OK) code = ::curl_easy_setopt(easy, CURLOPT_OPENSOCKETFUNCTION, &CurlDriver::open_socket);
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
    retire(found.mapped().easy);
    completion = std::move(found.mapped().completion);
  }
  completion(asio::error::operation_aborted);
}

void CurlDriver::close() noexcept {
  std::map<const Exchange*, Running> abandoned;
  {
    const std::lock_guard lock(mutex_);
    if (std::exchange(is_closed_, true)) return;
    abandoned.swap(running_);
    for (auto& [key, running] : abandoned) {
      ::curl_multi_remove_handle(multi_, running.easy);
      ::curl_easy_cleanup(running.easy);
    }
    for (CURL* const easy : spare_handles_) ::curl_easy_cleanup(easy);
    spare_handles_.clear();
    ::curl_multi_cleanup(std::exchange(multi_, nullptr));
    watches_.clear();
    timer_.reset();
    executor_ = asio::any_io_executor();
  }
  // `abandoned` is destroyed here, without the mutex: with the completions go the
  // waiting coroutines, whose destructors are host code.
}

curl_socket_t CurlDriver::open_socket(void*, curlsocktype, curl_sockaddr* address) noexcept {
  // Without the flag a browser that the host starts would inherit the connection.
  return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

int CurlDriver::close_socket(void* self, curl_socket_t fd) noexcept {
  static_cast<CurlDriver*>(self)->kept_.erase(fd);
  return ::close(fd);
}

// Only of a connection that has carried a request: libcurl 7.88 closes a socket that has
// not connected yet without telling us, and the number may soon be another file's.
void CurlDriver::note_kept_connection(CURL* easy) noexcept {
  curl_socket_t fd = CURL_SOCKET_BAD;
  if (::curl_easy_getinfo(easy, CURLINFO_ACTIVESOCKET, &fd) == CURLE_OK && fd != CURL_SOCKET_BAD) kept_.insert(fd);
}

// libcurl 7.88 takes a kept TLS connection that its server has closed for alive, because
// there is something to read: TLS's own goodbye. It finds out after it has sent the
// headers, tries another connection, and gives up after five. So such connections are
// read empty and shut down here, which libcurl notices before it uses one.
void CurlDriver::break_stale_connections() noexcept {
  std::vector<pollfd> idle;
  for (const curl_socket_t fd : kept_) {
    if (!watches_.contains(fd)) idle.push_back({fd, POLLIN, 0});
  }
  if (idle.empty() || ::poll(idle.data(), idle.size(), 0) <= 0) return;
  for (const pollfd& connection : idle) {
    if (connection.revents == 0) continue;
    std::array<char, 1024> goodbye;
    (void)::recv(connection.fd, goodbye.data(), goodbye.size(), MSG_DONTWAIT);
    ::shutdown(connection.fd, SHUT_RDWR);
  }
}

int CurlDriver::on_socket(CURL*, curl_socket_t fd, int what, void* self, void*) noexcept {
  auto& driver = *static_cast<CurlDriver*>(self);
  if (what == CURL_POLL_REMOVE) {
    driver.watches_.erase(fd);
  } else {
    driver.watch(fd, what);
  }
  return 0;
}

int CurlDriver::on_timer(CURLM*, long timeout_ms, void* self) noexcept {
  auto& driver = *static_cast<CurlDriver*>(self);
  // Cancelling does not reach a wait whose completion is already queued: the
  // generation tells that it is out of date.
  const std::uint64_t generation = ++driver.timer_generation_;
  driver.timer_->cancel();
  if (timeout_ms == 0) {  // "soon", at the start of every request; libcurl must not be called from its callback
    asio::post(driver.executor_, [&driver, generation] { driver.timer_expired(generation); });
  } else if (timeout_ms > 0) {
    driver.timer_->expires_after(std::chrono::milliseconds(timeout_ms));
    driver.timer_->async_wait([&driver, generation](error_code) { driver.timer_expired(generation); });
  }
  return 0;
}

void CurlDriver::watch(curl_socket_t fd, int what) {
  const auto [place, is_new] = watches_.try_emplace(fd, executor_);
  Watch& watch = place->second;
  watch.wanted = what & CURL_POLL_INOUT;
  if (is_new) {
    watch.generation = ++last_watch_;
    // Asio gets a duplicate, because its descriptor must stay open until it lets go:
    // libcurl 7.88 closes a socket that has not connected yet before it says so, and by
    // then another thread may have opened another file under the number.
    error_code refused;  // waiting fails then, and socket_ready() tells libcurl
    watch.descriptor.assign(::fcntl(fd, F_DUPFD_CLOEXEC, 0), refused);
  }
  arm(fd, watch);
}

void CurlDriver::arm(curl_socket_t fd, Watch& watch) {
  for (const int event : {CURL_POLL_IN, CURL_POLL_OUT}) {
    if (watch.wanted & ~watch.armed & event) wait_for(fd, watch, event);
  }
}

void CurlDriver::wait_for(curl_socket_t fd, Watch& watch, int event) {
  watch.armed |= event;
  const auto kind =
      event == CURL_POLL_IN ? asio::posix::descriptor_base::wait_read : asio::posix::descriptor_base::wait_write;
  watch.descriptor.async_wait(kind, [this, fd, event, generation = watch.generation](error_code error) {
    socket_ready(fd, generation, event, error.failed());
  });
}

CurlDriver::Watch* CurlDriver::find(curl_socket_t fd, std::uint64_t generation) noexcept {
  const auto found = watches_.find(fd);
  return found != watches_.end() && found->second.generation == generation ? &found->second : nullptr;
}

void CurlDriver::socket_ready(curl_socket_t fd, std::uint64_t generation, int event, bool failed) {
  Completions completions;
  {
    const std::lock_guard lock(mutex_);
    Watch* watch = find(fd, generation);
    if (!watch) return;  // queued before libcurl let go of the socket, whose number may be reused
    watch->armed &= ~event;
    if ((watch->wanted & event) == 0) return;
    static_assert(CURL_POLL_IN == CURL_CSELECT_IN && CURL_POLL_OUT == CURL_CSELECT_OUT);
    completions = perform(fd, failed ? CURL_CSELECT_ERR : event);
    if (Watch* kept = find(fd, generation)) arm(fd, *kept);
  }
  for (const auto& completion : completions) completion({});
}

void CurlDriver::timer_expired(std::uint64_t generation) {
  Completions completions;
  {
    const std::lock_guard lock(mutex_);
    if (generation != timer_generation_) return;
    completions = perform(CURL_SOCKET_TIMEOUT, 0);
  }
  for (const auto& completion : completions) completion({});
}

CurlDriver::Completions CurlDriver::perform(curl_socket_t fd, int events) {
  int still_running = 0;
  const CURLMcode failure = ::curl_multi_socket_action(multi_, fd, events, &still_running);
  Completions completions;
  const auto finish = [&](const Exchange* key, CURLcode code) {
    auto found = running_.extract(key);
    if (found.empty()) return;
    found.mapped().exchange->finish(found.mapped().easy, code);
    retire(found.mapped().easy);
    completions.push_back(std::move(found.mapped().completion));
  };
  int left = 0;
  while (const CURLMsg* const message = ::curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;  // the message is freed with the handle's removal
    const char* key = nullptr;
    ::curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &key);
    note_kept_connection(message->easy_handle);
    finish(reinterpret_cast<const Exchange*>(key), code);
  }
  if (failure != CURLM_OK) {  // the multi handle no longer serves what runs on it
    while (!running_.empty()) finish(running_.begin()->first, CURLE_RECV_ERROR);
  }
  return completions;
}

CURL* CurlDriver::take_easy() noexcept {
  if (spare_handles_.empty()) return ::curl_easy_init();
  CURL* const easy = spare_handles_.back();
  spare_handles_.pop_back();
  return easy;
}

bool CurlDriver::open_pool() noexcept {
  if (multi_) return true;
  multi_ = ::curl_multi_init();
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

void CurlDriver::retire(CURL* easy) noexcept {
  ::curl_multi_remove_handle(multi_, easy);
  ::curl_easy_reset(easy);
  // Else libcurl would change the host's handling of SIGPIPE while it ends the handle.
  ::curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  if (spare_handles_.size() < max_spare_handles) {
    spare_handles_.push_back(easy);
  } else {
    ::curl_easy_cleanup(easy);
  }
  // The only way to close idle connections is to end the multi handle.
  if (running_.empty() && pool_size_ > max_idle_connections) ::curl_multi_cleanup(std::exchange(multi_, nullptr));
}

}  // namespace vision::detail::http
