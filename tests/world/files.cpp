#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <functional>

#include "tests/world/world.hpp"

/// The operating system and the worker thread, as the library's object files see
/// them: the linker puts these in place of what they call (see CMakeLists.txt).
namespace vision::world {
namespace {

Fault pass(SeamKind on_loop, SeamKind on_worker, const char* name) {
  World* const world = World::current();
  if (!world) return Fault::none;
  const bool worker = world->on_worker();
  const Fault fault = world->pass(worker ? on_worker : on_loop, name);
  if (fault == Fault::hang) world->worker_hangs(std::chrono::hours(1));
  if (fault == Fault::cancel_before && worker) world->cancel_from_worker();
  if (fault == Fault::cancel_before && !worker) {
    world->in_append = true;
    world->cancel(world->any_mission());
    world->in_append = false;
  }
  if (fault == Fault::fails || fault == Fault::cut) {
    constexpr int errors[] = {EIO, ENOSPC, EACCES};
    errno = errors[world->seams.size() % std::size(errors)];
    if (!worker) ++world->faulty_appends;
    if (fault == Fault::cut) ++world->cut_writes;
  }
  return fault;
}

bool fails(const char* name) {
  return pass(SeamKind::file, SeamKind::worker_file, name) == Fault::fails;
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
  const Fault fault = is_ours(fd) ? pass(SeamKind::write, SeamKind::worker_write, "write") : Fault::none;
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
  const bool failed = fails("unlink");
  if (failed) ++World::current()->faulty_removals;
  return failed ? -1 : __real_unlink(path);
}

}  // extern "C"

asio::awaitable<void> real_run_on_worker(std::function<void()> job) asm(
    "__real__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) asm(
    "__wrap__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");

namespace {

asio::awaitable<void> run_in_turn(std::function<void()> job) {
  World* const world = World::current();
  struct Waiter {
    Waiter() : job(std::make_shared<Job>()) {}
    Waiter(const Waiter&) = delete;
    Waiter& operator=(const Waiter&) = delete;
    ~Waiter() { job->is_awaited = false; }
    std::shared_ptr<Job> job;
  };
  const Waiter waiter;
  std::function<void()> in_turn = [world, token = waiter.job, inner = std::move(job)] {
    struct Turn {
      Turn(World& w, Job& j) : world(w), job(j) { world.job_begins(job); }
      Turn(const Turn&) = delete;
      Turn& operator=(const Turn&) = delete;
      ~Turn() { world.job_ends(job); }
      World& world;
      Job& job;
    };
    const Turn turn(*world, *token);
    inner();
  };
  world->hand_over(waiter.job);
  co_await real_run_on_worker(std::move(in_turn));
}

}  // namespace

// No coroutine itself: g++ 12 cannot name the parts of one that has an asm label.
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) {
  return run_in_turn(std::move(job));
}

}  // namespace vision::world
