#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>

#include "tests/world/world.hpp"

/// The operating system and the worker thread, as the library's object files see
/// them: the linker puts these in place of what they call (see CMakeLists.txt).
namespace vision::world {
namespace {

// What a fault does elsewhere than in the call itself.
void disturb(World& world, Fault fault) {
  const bool fails = fault == Fault::fails || fault == Fault::cut;
  if (world.on_worker()) {
    if (fault == Fault::cancel_before) world.cancel_soon(world.any_mission());
    if (fault == Fault::hang) return world.worker_stands(std::chrono::hours(1));
    if (fault == Fault::cancel_before || fault == Fault::loop_ends) world.worker_stands(Duration::zero());
  } else {
    world.in_append = true;
    if (fault == Fault::cancel_before) world.cancel(world.any_mission());
    world.in_append = false;
    if (fails) ++world.faulty_appends;
  }
  if (fault == Fault::cut) ++world.cut_writes;
  constexpr int errors[] = {EIO, ENOSPC, EACCES};
  if (fails) errno = errors[world.report.seams.size() % std::size(errors)];
}

Fault pass(const char* name, SeamKind on_loop = SeamKind::file, SeamKind on_worker = SeamKind::worker_file) {
  World* const world = World::current();
  if (!world) return Fault::none;
  const Fault fault = world->pass(world->on_worker() ? on_worker : on_loop, name);
  disturb(*world, fault);
  return fault;
}

bool fails(const char* name) {
  return pass(name) == Fault::fails;
}

int opened(int fd) {
  if (World::current() && fd >= 0) World::current()->descriptors.insert(fd);
  return fd;
}

// Whether it is a file of the library's; Asio has descriptors of its own.
bool is_ours(int fd) {
  return World::current() && World::current()->descriptors.contains(fd);
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __real_pread(int fd, void* data, size_t size, off_t offset);
int __real_close(int fd);
int __real_fstat(int fd, struct stat* info);
int __real_mkdir(const char* path, mode_t mode);
int __real_mkostemps(char* path, int suffix, int flags);
int __real_rename(const char* from, const char* to);
int __real_unlink(const char* path);

int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return fails("open") ? -1 : opened(__real_open(path, flags, mode));
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
  const Fault fault = is_ours(fd) ? pass("write", SeamKind::write, SeamKind::worker_write) : Fault::none;
  return fault == Fault::fails ? -1 : __real_write(fd, data, fault == Fault::cut ? size / 2 : size);
}
ssize_t __wrap_pread(int fd, void* data, size_t size, off_t offset) {
  return is_ours(fd) && fails("pread") ? -1 : __real_pread(fd, data, size, offset);
}
int __wrap_close(int fd) {
  const bool failed = is_ours(fd) && fails("close");
  if (World::current()) World::current()->descriptors.erase(fd);
  const int result = __real_close(fd);  // the descriptor is gone also when it fails
  return failed ? -1 : result;
}
int __wrap_fstat(int fd, struct stat* info) {
  return is_ours(fd) && fails("fstat") ? -1 : __real_fstat(fd, info);
}
int __wrap_mkdir(const char* path, mode_t mode) {
  return fails("mkdir") ? -1 : __real_mkdir(path, mode);
}
int __wrap_mkostemps(char* path, int suffix, int flags) {
  return fails("mkostemps") ? -1 : opened(__real_mkostemps(path, suffix, flags));
}
int __wrap_rename(const char* from, const char* to) {
  return fails("rename") ? -1 : __real_rename(from, to);
}
int __wrap_unlink(const char* path) {
  if (!fails("unlink")) return __real_unlink(path);
  ++World::current()->faulty_removals;
  return -1;
}

}  // extern "C"

asio::awaitable<void> real_run_on_worker(std::function<void()> job) asm(
    "__real__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) asm(
    "__wrap__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");

namespace {

struct Turn {
  explicit Turn(World& w) : world(w) { world.job_begins(); }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { world.job_ends(); }
  World& world;
};

asio::awaitable<void> run_in_turn(std::function<void()> job) {
  World& world = *World::current();
  const Counted waiting(world.in_flight);
  const auto waiter = std::make_shared<int>();
  std::function<void()> in_turn = [&world, inner = std::move(job)] {
    const Turn turn(world);
    inner();
    if (fails("worker done")) throw std::runtime_error("the job failed");
  };
  world.hand_over(waiter);
  co_await real_run_on_worker(std::move(in_turn));
}

}  // namespace

// No coroutine itself: g++ 12 cannot name the parts of one that has an asm label.
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) {
  return run_in_turn(std::move(job));
}

}  // namespace vision::world
