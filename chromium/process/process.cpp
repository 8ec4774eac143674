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
#include <cassert>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <vector>

#include "chromium/errors.hpp"
#include "chromium/process/command_line.hpp"
#include "chromium/protocol/untracked.hpp"
#include "vision/runtime/internal/await.hpp"
#include "vision/runtime/internal/one_shot.hpp"

namespace vision::chromium {
namespace asio = boost::asio;
namespace {

// Its arguments are the profile directory and the browser's command line. Of its
// descriptors, 1 is a pipe whose end tells the host that the script is gone, 3 and 4
// are the DevTools pipe, and 5 is the lifeline, whose end means that the host is gone.
// None of them is shared with children that the host forks (NoFork, Unshared).
//
// - Only the script keeps descriptor 1, or the host would see its end too late. It
//   keeps neither the DevTools pipe nor standard error, whose ends tell the host about
//   the browser.
// - When the host is gone and one of the browser's processes is stopped, the kernel sends
//   HUP to all of them, and the script must outlive that. The browser, which is started
//   before, handles signals in its own way.
// - The host's PATH need not lead to rm and sleep.
// - The watcher, a subshell, blocks until the lifeline ends; nothing is ever written to
//   it. It sends the script TERM instead of killing the browser: only a parent can be
//   sure which process it kills, and only until it has waited for it. Afterwards the
//   number may belong to another process, so TERM is ignored from then on.
// - The first wait returns early when TERM arrives. The second one then waits for the
//   killed browser; otherwise it returns at once.
// - Helpers of the browser may still be writing to the profile, hence the retries.
// - The last line ends the helpers, the watcher and the script itself.
constexpr const char* supervisor_script = R"(
profile=$1; shift
"$@" </dev/null >/dev/null 5<&- & browser=$!
trap "" HUP INT QUIT
PATH=${PATH:+$PATH:}/usr/local/bin:/usr/bin:/bin
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

// Where the script finds them. The browser expects the first two there.
constexpr int pipe_in = 3, pipe_out = 4, lifeline_in = 5, first_unused = 6;

// Chromium exits within a tenth of a second. After this time it is considered hung:
// it is killed or, if it has been killed already, given up.
constexpr auto grace = std::chrono::seconds(5);
// Enough for the reason why a browser does not start, short enough for an error's text.
constexpr std::size_t max_stderr_tail = 2000;

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

// The form in which execve takes a list.
std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> out;
  for (auto& text : texts) out.push_back(text.data());
  out.push_back(nullptr);
  return out;
}

}  // namespace

// Reads the browser's standard error. That ends when the last of the browser's
// processes has exited, including those that left the process group. Shared with its
// own coroutine, which may outlive the BrowserProcess.
class BrowserProcess::StderrReader {
 public:
  explicit StderrReader(const asio::any_io_executor& executor) : stream_(untracked(executor)), end_(executor) {}

  void assign(const NoFork& lock, int descriptor) { stream_.assign(lock, descriptor); }
  static void start(const std::shared_ptr<StderrReader>& self) {
    asio::co_spawn(self->stream_.get_executor(), read(self), [self](std::exception_ptr) { self->end_.set(); });
  }

  const std::string& tail() const noexcept { return tail_; }
  asio::awaitable<void> wait_for_end() { return end_.wait(); }
  // The same without the event loop, for a destructor.
  void block_until_end() {
    std::array<char, 4096> chunk;
    while (!end_.is_set() && wait_readable(stream_.native_handle(), grace)) {
      if (::read(stream_.native_handle(), chunk.data(), chunk.size()) == 0) return;
    }
  }

 private:
  // Read even if nobody asks, because a full pipe would block the browser.
  static asio::awaitable<void> read(std::shared_ptr<StderrReader> self) {
    std::array<char, 4096> chunk;
    for (;;) {
      std::size_t size = 0;
      {
        const UncountedRead uncounted(self->stream_.get_executor());
        size = co_await self->stream_.async_read_some(asio::buffer(chunk), asio::use_awaitable);
      }
      self->tail_.append(chunk.data(), size);
      if (self->tail_.size() > max_stderr_tail) self->tail_.erase(0, self->tail_.size() - max_stderr_tail);
    }
  }

  Unshared<asio::posix::stream_descriptor> stream_;
  runtime::OneShot end_;
  std::string tail_;
};

// Both ends of the four channels between this process and the supervisor.
class BrowserProcess::Descriptors {
 public:
  enum End {
    pipe_ours,
    pipe_theirs,
    lifeline_ours,
    lifeline_theirs,
    exit_ours,
    exit_theirs,
    stderr_ours,
    stderr_theirs
  };

  Descriptors() {
    fds_.fill(-1);
    std::array<int, 2> pair;
    for (const End first : {pipe_ours, lifeline_ours}) {
      if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) fail("socketpair", errno);
      keep(pair, first);
    }
    for (const End first : {exit_ours, stderr_ours}) {
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
  // Moves the pair above all descriptors that spawn() assigns in the supervisor, so
  // that assigning one never closes another.
  void keep(const std::array<int, 2>& pair, std::size_t first) {
    int error = 0;
    for (std::size_t i = 0; i < 2; ++i) {
      fds_[first + i] = ::fcntl(pair[i], F_DUPFD_CLOEXEC, first_unused);
      if (fds_[first + i] < 0) error = errno;
      ::close(pair[i]);
    }
    if (error != 0) fail("descriptors", error);
  }

  std::array<int, 8> fds_;
};

BrowserProcess::BrowserProcess(const asio::any_io_executor& executor, const LaunchOptions& options)
    : owner_(::getpid()),
      pipe_(untracked(executor)),
      lifeline_(executor),
      supervisor_exit_(executor),
      stderr_(std::make_shared<StderrReader>(executor)) {
  const std::string executable = find_executable(options.executable());
  {
    // A child would keep the supervisor's ends open, too, and hide from us that it is gone.
    const NoFork lock;
    Descriptors ends;
    profile_ = make_profile_directory();
    try {
      spawn(options, executable, ends);
    } catch (...) {
      std::error_code ignored;
      std::filesystem::remove_all(profile_, ignored);
      throw;
    }
    pipe_.assign(lock, asio::local::stream_protocol(), ends.take(Descriptors::pipe_ours));
    lifeline_.assign(lock, asio::local::stream_protocol(), ends.take(Descriptors::lifeline_ours));
    supervisor_exit_.assign(lock, ends.take(Descriptors::exit_ours));
    stderr_->assign(lock, ends.take(Descriptors::stderr_ours));
  }
  StderrReader::start(stderr_);
}

void BrowserProcess::spawn(const LaunchOptions& options, const std::string& executable, Descriptors& ends) {
  std::vector<std::string> arguments{"sh", "-c", supervisor_script, "vision-browser", profile_};
  for (auto& argument : browser_arguments(options, executable, profile_)) arguments.push_back(std::move(argument));
  std::vector<std::string> environment = browser_environment(options, profile_);

  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::exit_theirs], STDOUT_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::stderr_theirs], STDERR_FILENO);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::pipe_theirs], pipe_in);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::pipe_theirs], pipe_out);
  ::posix_spawn_file_actions_adddup2(&files, ends[Descriptors::lifeline_theirs], lifeline_in);
  ::posix_spawn_file_actions_addclosefrom_np(&files, first_unused);
  // The host's signal settings are its own; the supervisor depends on the defaults.
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

bool BrowserProcess::is_ours() const noexcept {
  return owner_ == ::getpid();
}

BrowserProcess::Socket BrowserProcess::take_pipe() {
  assert(pipe_.is_open());
  return std::move(pipe_);
}

const std::string& BrowserProcess::stderr_tail() const {
  return stderr_->tail();
}

// In this order: a closed pipe lets the browser exit in its own way; if it does not,
// the lifeline has it killed. Then the supervisor, whose exit means that the browser has
// ended. Then what left the process group and holds standard error. The directory comes
// last, when nothing can write to it any more.
asio::awaitable<void> BrowserProcess::stop() {
  if (supervisor_ < 0 || !is_ours()) co_return;
  pipe_.end();
  for (int attempt = 0; attempt < 2; ++attempt) {
    auto exit = supervisor_exit_.async_wait(asio::posix::stream_descriptor::wait_read, asio::use_awaitable);
    const auto outcome = co_await runtime::with_deadline(std::move(exit), grace);
    if (!outcome.timed_out()) break;
    lifeline_.end();
  }
  end_supervisor();
  (void)co_await runtime::with_deadline(stderr_->wait_for_end(), grace);
  remove_profile();
}

// The same order, but the browser is killed at once: a destructor should not wait for
// it to exit in its own way.
BrowserProcess::~BrowserProcess() {
  if (!is_ours()) return;
  pipe_.end();
  lifeline_.end();
  if (supervisor_ >= 0) {
    wait_readable(supervisor_exit_.native_handle(), grace);
    end_supervisor();
    stderr_->block_until_end();
  }
  remove_profile();
}

// The number of the group stays ours until its leader has been waited for. A host that
// ignores SIGCHLD has given it up by then, and nothing is killed.
void BrowserProcess::end_supervisor() noexcept {
  siginfo_t info;
  if (::waitid(P_PID, static_cast<id_t>(supervisor_), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
    ::kill(-supervisor_, SIGKILL);
    while (::waitpid(supervisor_, nullptr, 0) < 0 && errno == EINTR) continue;
  }
  supervisor_ = -1;
}

// Needed if the supervisor was killed before it could do this.
void BrowserProcess::remove_profile() noexcept {
  std::error_code ignored;
  std::filesystem::remove_all(profile_, ignored);
}

}  // namespace vision::chromium
