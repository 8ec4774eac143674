#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/asio/post.hpp>
#include <cerrno>

#include "vision/client/http/internal/curl_driver.hpp"
#include "vision/client/http/internal/sockets.hpp"

// What connects libcurl's sockets and timers to the context.
namespace vision::detail::http {
namespace asio = boost::asio;
using boost::system::error_code;

curl_socket_t CurlDriver::open_socket(void* exchange, curlsocktype, curl_sockaddr* address) noexcept {
  // Without the flag a browser that the host starts would inherit the connection.
  const int fd = ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  // Not of a machine without IPv6, whose other address is tried next.
  if (fd < 0 && errno != EAFNOSUPPORT) static_cast<Exchange*>(exchange)->socket_refused(errno);
  return fd;
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
  std::vector<curl_socket_t> idle;
  for (const curl_socket_t fd : kept_) {
    if (!watches_.contains(fd)) idle.push_back(fd);
  }
  break_stale(idle);
}

int CurlDriver::on_socket(CURL* easy, curl_socket_t fd, int what, void* self, void*) noexcept {
  auto& driver = *static_cast<CurlDriver*>(self);
  if (what == CURL_POLL_REMOVE) {
    driver.unwatch(fd);
  } else {
    driver.watch(easy, fd, what);
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

void CurlDriver::watch(CURL* easy, curl_socket_t fd, int what) {
  const auto [place, is_new] = watches_.try_emplace(fd, executor_);
  Watch& watch = place->second;
  watch.wanted = what & CURL_POLL_INOUT;
  if (is_new) {
    watch.generation = ++last_watch_;
    watch.exchange = exchange_of(easy);
    watch.received_before = received_bytes(fd);
    keep_pair_from_programs(fd);
    if (const error_code refused = open_duplicate(fd, watch.descriptor)) {
      watches_.erase(place);
      give_up(exchange_of(easy), refused);
      return;
    }
  }
  arm(fd, watch);
}

// Asio gets a duplicate, because its descriptor must stay open until it lets go: libcurl
// 7.88 closes a socket that has not connected yet before it says so, and by then another
// thread may have opened another file under the number.
error_code CurlDriver::open_duplicate(curl_socket_t fd, asio::posix::stream_descriptor& descriptor) {
  const int duplicate = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (duplicate < 0) return {errno, boost::system::system_category()};
  error_code refused;
  descriptor.assign(duplicate, refused);
  if (refused) ::close(duplicate);
  return refused;
}

// `perform` ends the exchange: here libcurl is in one of its functions.
void CurlDriver::give_up(const Exchange* key, error_code why) {
  const auto running = running_.find(key);
  if (running == running_.end()) return;
  running->second.exchange->fail(("its connection cannot be watched: " + why.message()).c_str());
  given_up_.push_back(key);
}

void CurlDriver::unwatch(curl_socket_t fd) noexcept {
  auto left = watches_.extract(fd);
  if (left.empty()) return;
  Watch& watch = left.mapped();
  const auto running = running_.find(watch.exchange);
  if (running == running_.end()) return;
  running->second.exchange->connection_left(running->second.easy, unsent_bytes(watch.descriptor.native_handle()));
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
    if (!watch || is_exiting_) return;  // queued before libcurl let go of the socket, whose number may be reused
    watch->armed &= ~event;
    if ((watch->wanted & event) == 0) return;
    static_assert(CURL_POLL_IN == CURL_CSELECT_IN && CURL_POLL_OUT == CURL_CSELECT_OUT);
    // Writing waits for what can be read: it may be the reason why the server does not want
    // the rest of the request, and a failed write would be the end.
    if (event == CURL_POLL_OUT && (watch->wanted & CURL_POLL_IN) && has_input(fd)) event = CURL_POLL_IN;
    completions = perform(fd, failed ? CURL_CSELECT_ERR : event);
    if (Watch* kept = find(fd, generation)) {
      const auto running = running_.find(kept->exchange);
      if (running != running_.end() &&
          running->second.exchange->is_flooded(received_bytes(fd) - kept->received_before)) {
        finish(running->first, CURLE_FILESIZE_EXCEEDED, completions);
      } else {
        arm(fd, *kept);
      }
    }
  }
  for (const auto& completion : completions) completion({});
}

void CurlDriver::timer_expired(std::uint64_t generation) {
  Completions completions;
  {
    const std::lock_guard lock(mutex_);
    if (generation != timer_generation_ || is_exiting_) return;
    completions = perform(CURL_SOCKET_TIMEOUT, 0);
  }
  for (const auto& completion : completions) completion({});
}

}  // namespace vision::detail::http
