#include "chromium/process/process.hpp"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "chromium/errors.hpp"
#include "chromium/process/command_line.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace {

// Descriptors: 3 and 4 the DevTools pipe, 5 the lifeline, whose end means that
// the host has gone, 1 what tells the host that all is done. TERM and not KILL
// goes from the watcher to the supervisor, because only the browser's parent can
// be sure whom it kills, and that only until it has waited for it: the number may
// be another's while the profile is removed. The last line ends helpers of the
// browser and the watcher, and the supervisor with them.
constexpr const char* supervisor_script = R"(
profile=$1; shift
"$@" </dev/null >/dev/null 5<&- & browser=$!
trap 'trap "" TERM; kill -KILL "$browser"' TERM
exec 3<&- 4>&-
(read -r line <&5; kill -TERM $$) </dev/null >/dev/null &
exec 5<&- 2>/dev/null
wait "$browser"
wait "$browser"
trap "" TERM
for _ in 1 2 3 4 5 6 7 8 9 10; do rm -rf -- "$profile" 2>/dev/null && break; sleep 0.1; done
kill -KILL 0
)";

constexpr auto grace = std::chrono::seconds(5);
constexpr std::size_t max_last_words = 2000;

[[noreturn]] void fail(const std::string& what, int error) {
  throw std::system_error(error, std::generic_category(), "cannot launch the browser: " + what);
}

bool wait_readable(int descriptor, std::chrono::milliseconds limit) {
  pollfd entry{descriptor, POLLIN, 0};
  int count = 0;
  do {
    count = ::poll(&entry, 1, static_cast<int>(limit.count()));
  } while (count < 0 && errno == EINTR);
  return count > 0;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (auto& text : texts) out.push_back(text.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

// The browser's standard error. It ends when the last process that belongs to
// the browser has gone, also the ones that leave our process group.
class BrowserProcess::Words {
 public:
  explicit Words(const asio::any_io_executor& executor) : stream_(executor), end_(executor) {}

  static asio::awaitable<void> keep(std::shared_ptr<Words> self) {
    std::array<char, 4096> chunk;
    for (;;) {
      const std::size_t size = co_await self->stream_.async_read_some(asio::buffer(chunk), asio::use_awaitable);
      self->text_.append(chunk.data(), size);
      if (self->text_.size() > max_last_words) self->text_.erase(0, self->text_.size() - max_last_words);
    }
  }
  void start(const std::shared_ptr<Words>& self, int descriptor) {
    stream_.assign(descriptor);
    asio::co_spawn(stream_.get_executor(), keep(self), [self](std::exception_ptr) { self->end_.set(); });
  }

  const std::string& text() const noexcept { return text_; }
  asio::awaitable<void> wait_for_end() { return end_.wait(); }
  void block_until_end() {
    std::array<char, 4096> chunk;
    while (!end_.is_set() && wait_readable(stream_.native_handle(), grace)) {
      if (::read(stream_.native_handle(), chunk.data(), chunk.size()) == 0) return;
    }
  }

 private:
  asio::posix::stream_descriptor stream_;
  runtime::OneShot end_;
  std::string text_;
};

// Both ends of the three channels. The child's ends sit above its targets, so
// that putting one into place never overwrites another.
class BrowserProcess::Descriptors {
 public:
  enum End {
    pipe_ours,
    pipe_theirs,
    lifeline_theirs,
    lifeline_ours,
    ended_ours,
    ended_theirs,
    words_ours,
    words_theirs
  };

  Descriptors() {
    fds_.fill(-1);
    std::array<int, 2> pair;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) fail("socketpair", errno);
    keep(pair, pipe_ours);
    for (const End first : {lifeline_theirs, ended_ours, words_ours}) {
      if (::pipe2(pair.data(), O_CLOEXEC) != 0) fail("pipe", errno);
      keep(pair, first);
    }
  }
  ~Descriptors() {
    for (const int fd : fds_) {
      if (fd >= 0) ::close(fd);
    }
  }
  Descriptors(const Descriptors&) = delete;
  Descriptors& operator=(const Descriptors&) = delete;

  int operator[](End end) const { return fds_[end]; }
  int take(End end) { return std::exchange(fds_[end], -1); }

 private:
  void keep(const std::array<int, 2>& pair, std::size_t first) {
    int error = 0;
    for (std::size_t i = 0; i < 2; ++i) {
      fds_[first + i] = ::fcntl(pair[i], F_DUPFD_CLOEXEC, 10);
      if (fds_[first + i] < 0) error = errno;
      ::close(pair[i]);
    }
    if (error != 0) fail("descriptors", error);
  }

  std::array<int, 8> fds_;
};

BrowserProcess::BrowserProcess(const asio::any_io_executor& executor, const LaunchOptions& options)
    : pipe_(executor), lifeline_(executor), ended_(executor), words_(std::make_shared<Words>(executor)) {
  const std::string executable = find_executable(options.executable());
  Descriptors ends;
  profile_ = make_profile_directory();
  try {
    spawn(options, executable, ends);
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove_all(profile_, ignored);
    throw;
  }
  pipe_.assign(asio::local::stream_protocol(), ends.take(Descriptors::pipe_ours));
  lifeline_.assign(ends.take(Descriptors::lifeline_ours));
  ended_.assign(ends.take(Descriptors::ended_ours));
  words_->start(words_, ends.take(Descriptors::words_ours));
}

void BrowserProcess::spawn(const LaunchOptions& options, const std::string& executable, Descriptors& ends) {
  std::vector<std::string> arguments{"sh", "-c", supervisor_script, "vision-browser", profile_};
  for (auto& argument : browser_arguments(options, executable, profile_)) arguments.push_back(std::move(argument));
  std::vector<std::string> environment = browser_environment(options, profile_);

  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::ended_theirs], 1);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::words_theirs], 2);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::pipe_theirs], 3);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::pipe_theirs], 4);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::lifeline_theirs], 5);
  ::posix_spawn_file_actions_addclosefrom_np(&files, 6);
  sigset_t none, all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  const int error = ::posix_spawn(&supervisor_, "/bin/sh", &files, &attributes, pointers(arguments).data(),
                                  pointers(environment).data());
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  if (error != 0) fail("/bin/sh", error);
}

std::string BrowserProcess::last_words() const {
  return words_->text();
}

asio::awaitable<void> BrowserProcess::stop() {
  if (supervisor_ < 0) co_return;
  boost::system::error_code ignored;
  pipe_.close(ignored);
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto end = ended_.async_wait(asio::posix::stream_descriptor::wait_read, asio::use_awaitable);
    const auto outcome = co_await runtime::with_deadline(std::move(end), grace);
    if (!outcome.timed_out()) break;
    lifeline_.close(ignored);  // the supervisor kills it
  }
  end_supervisor();
  (void)co_await runtime::with_deadline(words_->wait_for_end(), grace);
  remove_profile();
}

BrowserProcess::~BrowserProcess() {
  boost::system::error_code ignored;
  pipe_.close(ignored);
  lifeline_.close(ignored);
  if (supervisor_ >= 0) {
    wait_readable(ended_.native_handle(), grace);
    end_supervisor();
    words_->block_until_end();
  }
  remove_profile();
}

// The group's number stays ours until its leader has been waited for. Had a host
// that ignores SIGCHLD let go of it already, nothing is killed.
void BrowserProcess::end_supervisor() noexcept {
  siginfo_t info;
  if (::waitid(P_PID, static_cast<id_t>(supervisor_), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
    ::kill(-supervisor_, SIGKILL);
    while (::waitpid(supervisor_, nullptr, 0) < 0 && errno == EINTR) continue;
  }
  supervisor_ = -1;
}

// Should the supervisor have been killed before it could.
void BrowserProcess::remove_profile() noexcept {
  std::error_code ignored;
  std::filesystem::remove_all(profile_, ignored);
}

}  // namespace vision::chromium
