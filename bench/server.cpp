// A Messages API server that does as little as it can: reads a request by its
// Content-Length, throws it away, answers with one tool call. One thread per
// connection.
//   server [--certificate FILE --key FILE] [--mission 1]
// Prints its port and runs until its standard input ends.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/support.hpp"

namespace {

std::string answer_with(const std::string& input) {
  const std::string body =
      R"({"id": "msg_bench", "type": "message", "role": "assistant", "model": "light-model", "content": [)"
      R"({"type": "tool_use", "id": "toolu_bench", "name": "propose_action", "input": {"action": )" +
      input +
      R"(, "reason": "The button is there.", "confidence": 0.9, "next_expected_state": "A dialog is open."}}], )"
      R"("stop_reason": "tool_use", "stop_sequence": null, "usage": {"input_tokens": 1500, "output_tokens": 80}})";
  return "HTTP/1.1 200 OK\r\ncontent-type: application/json\r\nrequest-id: req_bench\r\ncontent-length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

const std::string answer = answer_with(R"("click", "x_ratio": 0.25, "y_ratio": 0.75)");

// The steps of the demo's mission, which each path of the server goes through.
const std::vector<std::string> mission = {
    answer_with(R"("scroll", "scroll_dy_ratio": 0.7)"),
    answer_with(R"("scroll", "scroll_dy_ratio": 0.7)"),
    answer_with(R"("click", "x_ratio": 0.24, "y_ratio": 0.56)"),
    answer_with(R"("click", "x_ratio": 0.87, "y_ratio": 0.20)"),
    answer_with(R"("click", "x_ratio": 0.34, "y_ratio": 0.45)"),
    answer_with(R"("key", "key": "Control+a")"),
    answer_with(R"("type", "text": "ana@example.org")"),
    answer_with(R"("key", "key": "Enter")"),
    answer_with(R"("wait", "duration_ms": 4000)"),
    answer_with(R"("click", "x_ratio": 0.35, "y_ratio": 0.73)"),
    answer_with(R"("declare_success")"),
};
bool is_mission = false;

const std::string& answer_for(const std::string& request_line) {
  if (!is_mission) return answer;
  static std::mutex mutex;
  static std::map<std::string, std::size_t> steps;
  const std::lock_guard lock(mutex);
  return mission[steps[request_line]++ % mission.size()];
}

class Plain {
 public:
  explicit Plain(int fd) : fd_(fd) {}
  ssize_t read(char* out, std::size_t room) { return ::recv(fd_, out, room, 0); }
  // The kernel drops the bytes without copying them.
  ssize_t discard(std::size_t size) { return ::recv(fd_, nullptr, size, MSG_TRUNC); }
  bool write(const std::string& text) {
    return ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }

 private:
  int fd_;
};

class Tls {
 public:
  Tls(SSL_CTX* context, int fd) : ssl_(::SSL_new(context), &::SSL_free) {
    ::SSL_set_fd(ssl_.get(), fd);
    is_open_ = ::SSL_accept(ssl_.get()) == 1;
  }
  ssize_t read(char* out, std::size_t room) {
    return is_open_ ? ::SSL_read(ssl_.get(), out, static_cast<int>(room)) : 0;
  }
  ssize_t discard(std::size_t size) { return read(scratch_.get(), std::min(size, scratch_size)); }
  bool write(const std::string& text) {
    return ::SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size());
  }

 private:
  static constexpr std::size_t scratch_size = 16 << 10;  // one record
  std::unique_ptr<SSL, decltype(&::SSL_free)> ssl_;
  bool is_open_ = false;
  std::unique_ptr<char[]> scratch_{new char[scratch_size]};
};

std::size_t content_length(std::string head) {
  std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
  const auto at = head.find("\r\ncontent-length:");
  return at == head.npos ? 0 : std::stoul(head.substr(at + 17));
}

// False when the peer is gone.
template <class Stream>
bool serve_one(Stream& stream) {
  char buffer[16 << 10];
  std::string text;
  std::size_t end = text.npos;
  while ((end = text.find("\r\n\r\n")) == text.npos) {
    const ssize_t got = stream.read(buffer, sizeof buffer);
    if (got <= 0) return false;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  const std::size_t body = content_length(text.substr(0, end + 2)), have = text.size() - end - 4;
  for (std::size_t left = body - std::min(body, have); left > 0;) {
    const ssize_t got = stream.discard(left);
    if (got <= 0) return false;
    left -= static_cast<std::size_t>(got);
  }
  return stream.write(answer_for(text.substr(0, text.find('\r'))));
}

template <class Stream>
void serve(Stream stream, int fd) {
  while (serve_one(stream)) continue;
  ::close(fd);
}

SSL_CTX* tls_context(const std::string& certificate, const std::string& key) {
  SSL_CTX* const context = ::SSL_CTX_new(::TLS_server_method());
  ::SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION);
  if (::SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1 ||
      ::SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    std::cerr << "server: cannot use " << certificate << " and " << key << "\n";
    std::exit(2);
  }
  return context;
}

}  // namespace

int main(int argc, char** argv) {
  const vision::bench::Arguments arguments(argc, argv);
  is_mission = arguments.number("mission", 0) != 0;
  const std::string certificate = arguments.text("certificate");
  SSL_CTX* const context = certificate.empty() ? nullptr : tls_context(certificate, arguments.text("key"));
  std::signal(SIGPIPE, SIG_IGN);

  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (::bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener, 1024) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::cerr << "server: cannot listen on 127.0.0.1\n";
    return 1;
  }
  std::cout << ntohs(address.sin_port) << std::endl;

  std::thread([listener, context] {
    for (int fd; (fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
      const int on = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      std::thread([fd, context] {
        if (context) {
          serve(Tls(context, fd), fd);
        } else {
          serve(Plain(fd), fd);
        }
      }).detach();
    }
  }).detach();
  while (std::cin.get() != EOF) continue;
  std::_Exit(0);
}
