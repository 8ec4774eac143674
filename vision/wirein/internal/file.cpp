#include "vision/wirein/internal/file.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace vision::detail {
namespace {

[[noreturn]] void fail(int error, const std::string& path) {
  throw std::system_error(error, std::generic_category(), path);
}

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const noexcept { return fd_; }

 private:
  int fd_;
};

// Only the owner of a file may look into it without having the time of that kept,
// which would cost more than the look. A log that may only be written can still be
// appended to, but not checked for a cut last line. Without O_NONBLOCK a FIFO would
// wait for its reader.
int open_for_append(const std::string& path) {
  constexpr int flags = O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  constexpr mode_t mode = 0600;
  int fd = -1;
  for (const int access : {O_RDWR | O_NOATIME, O_RDWR, O_WRONLY}) {
    fd = ::open(path.c_str(), access | flags, mode);
    if (fd >= 0 || (errno != EACCES && errno != EPERM)) break;
  }
  return fd;
}

// Its kind and size alone: who asks for the time of the last change, too, as fstat
// does, has Linux 6.13 and later keep the next one more exactly, at 1.3 us a write.
bool look_at(int fd, struct statx& info) {
  return ::statx(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_SIZE, &info) == 0;
}

// Returns how much went out in one write, or -1 with errno. A write beyond the
// file-size limit raises SIGXFSZ, whose default ends the process: held back in
// this thread it leaves the error EFBIG, and is then taken from the queue.
ssize_t write_once(int fd, std::string_view data) {
  sigset_t file_size_signal, pending, previous;
  ::sigemptyset(&pending);
  ::sigemptyset(&file_size_signal);
  ::sigaddset(&file_size_signal, SIGXFSZ);
  ::pthread_sigmask(SIG_BLOCK, &file_size_signal, &previous);
  // Only a host that holds it back itself can have one waiting, which stays its own.
  if (::sigismember(&previous, SIGXFSZ) == 1) ::sigpending(&pending);
  ssize_t written = -1;
  do {
    written = ::write(fd, data.data(), data.size());
  } while (written < 0 && errno == EINTR);
  const int error = errno;
  if (written < 0 && error == EFBIG && ::sigismember(&pending, SIGXFSZ) == 0) {
    const timespec no_wait{0, 0};
    ::sigtimedwait(&file_size_signal, nullptr, &no_wait);
  }
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = error;
  return written;
}

// Whether the file ends with a line that a killed or failing writer left cut
// short. A file that grows meanwhile has a living writer in the middle of its
// record: the kernel lets ours follow it. Only spares a second write: what
// happens between this look and the write is seen afterwards.
bool has_torn_tail(int fd, off_t size) {
  constexpr int looks = 4;
  for (int look = 0; look < looks; ++look) {
    char last = '\n';
    if (size == 0 || ::pread(fd, &last, 1, size - 1) != 1 || last == '\n') return false;
    ::sched_yield();
    struct statx now {};
    if (!look_at(fd, now) || static_cast<off_t>(now.stx_size) != size) return false;
  }
  return true;
}

// Whether what was just appended, `size` bytes of it, went on in a line that
// another writer had left cut short. Up to `seen` the file was looked at before.
bool is_joined(int fd, std::size_t size, off_t seen) {
  const off_t start = ::lseek(fd, 0, SEEK_CUR) - static_cast<off_t>(size);
  char before = '\n';
  return start > 0 && start != seen && ::pread(fd, &before, 1, start - 1) == 1 && before != '\n';
}

void append(int fd, const std::string& path, const std::string& line) {
  const ssize_t written = write_once(fd, line);
  if (written < 0) fail(errno, path);
  if (static_cast<std::size_t>(written) != line.size()) fail(ENOSPC, path + " took only part of a record");
}

// An existing directory is not an error.
void create_directories(const std::string& path) {
  std::string done;
  for (const auto& part : std::filesystem::path(path)) {
    done = done.empty() ? part.string() : (std::filesystem::path(done) / part).string();
    if (::mkdir(done.c_str(), 0700) != 0 && errno != EEXIST && !std::filesystem::is_directory(done)) fail(errno, done);
  }
  if (!std::filesystem::is_directory(path)) fail(ENOTDIR, path);
}

}  // namespace

void append_line(const std::string& path, std::string line) {
  int opened = open_for_append(path);
  if (opened < 0 && errno == ENOENT) {
    const auto directory = std::filesystem::path(path).parent_path();
    if (!directory.empty()) create_directories(directory.string());
    opened = open_for_append(path);
  }
  const Descriptor file(opened);
  const int fd = file.get();
  if (fd < 0) fail(errno, path);
  struct statx info {};
  if (!look_at(fd, info)) fail(errno, path);
  const bool is_file = S_ISREG(info.stx_mode);
  if (!is_file && !S_ISCHR(info.stx_mode)) fail(EINVAL, path + " is not a regular file");
  const auto size = static_cast<off_t>(info.stx_size);
  if (is_file && has_torn_tail(fd, size)) line.insert(line.begin(), '\n');
  append(fd, path, line);
  if (is_file && line.front() != '\n' && is_joined(fd, line.size(), size)) append(fd, path, "\n" + line);
}

void write_file(const std::string& directory, const std::string& name, std::string_view content) {
  create_directories(directory);
  const std::string final_path = directory + "/" + name;
  std::string partial = directory + "/.XXXXXX.part";
  int error = 0;
  {
    constexpr int suffix_size = 5;
    const Descriptor file(::mkostemps(partial.data(), suffix_size, O_CLOEXEC));  // with mode 0600
    if (file.get() < 0) fail(errno, partial);
    while (!content.empty() && error == 0) {
      const ssize_t written = write_once(file.get(), content);
      if (written < 0) error = errno;
      if (written >= 0) content.remove_prefix(static_cast<std::size_t>(written));
    }
  }
  if (error == 0 && ::rename(partial.c_str(), final_path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(partial.c_str());
    fail(error, final_path);
  }
}

}  // namespace vision::detail
