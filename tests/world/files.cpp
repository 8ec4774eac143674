#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdarg>

#include "tests/world/world.hpp"

/// The system calls and the worker thread as the library sees them: the linker
/// replaces what its object files call by these (see CMakeLists.txt).
namespace vision::world {
namespace {

Fault pass(std::string_view name, unsigned places = place::file) {
  World* const world = World::current;
  if (!world) return "none"_fault;
  const Fault fault = world->pass(places | (world->on_worker() ? place::worker : 0U), name);
  const bool fails = fault == "fails"_fault || fault == "cut"_fault, cancels = fault == "cancel_before"_fault;
  if (world->on_worker()) {
    if (cancels) world->cancel_soon(world->any_caller());
    if (cancels || fault == "loop_ends"_fault) world->worker_pauses(0s);
    if (fault == "hang"_fault) world->worker_pauses(1h);
  } else {
    if (cancels) world->cancel(world->any_caller(), true);  // a record is being written, perhaps the last one
    world->faulty_appends += fails;
  }
  world->cut_writes += fault == "cut"_fault;
  world->faulty_removals += fails && name == "unlink";
  constexpr int errors[] = {EIO, ENOSPC, EACCES};
  if (fails) errno = errors[world->report.seams.size() % std::size(errors)];
  return fault;
}

bool fails(const char* name) {
  return pass(name) == "fails"_fault;
}

int opened(int fd) {
  if (World::current && fd >= 0) World::current->descriptors.insert(fd);
  return fd;
}

// Whether the library opened it; Asio has descriptors of its own.
bool is_ours(int fd) {
  return World::current && World::current->descriptors.contains(fd);
}

}  // namespace

extern "C" {

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* data, size_t size);
int __real_close(int fd);
int __real_mkostemps(char* path, int suffix, int flags);

int __wrap_open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return fails("open") ? -1 : opened(__real_open(path, flags, mode));
}
ssize_t __wrap_write(int fd, const void* data, size_t size) {
  const Fault fault = is_ours(fd) ? pass("write", place::file | place::write) : "none"_fault;
  return fault == "fails"_fault ? -1 : __real_write(fd, data, fault == "cut"_fault ? size / 2 : size);
}
int __wrap_close(int fd) {
  const bool failed = is_ours(fd) && fails("close");
  if (World::current) World::current->descriptors.erase(fd);
  const int result = __real_close(fd);  // the descriptor is gone even when it fails
  return failed ? -1 : result;
}
int __wrap_mkostemps(char* path, int suffix, int flags) {
  return fails("mkostemps") ? -1 : opened(__real_mkostemps(path, suffix, flags));
}

#define VISION_WORLD_WRAP(type, name, parameters, arguments, may_fail)      \
  type __real_##name parameters;                                            \
  type __wrap_##name parameters {                                           \
    return (may_fail) && fails(#name) ? type{-1} : __real_##name arguments; \
  }
VISION_WORLD_WRAP(ssize_t, pread, (int fd, void* data, size_t size, off_t at), (fd, data, size, at), is_ours(fd))
VISION_WORLD_WRAP(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), is_ours(fd))
VISION_WORLD_WRAP(int, statx, (int fd, const char* path, int flags, unsigned mask, struct statx* info),
                  (fd, path, flags, mask, info), is_ours(fd))
VISION_WORLD_WRAP(int, mkdir, (const char* path, mode_t mode), (path, mode), true)
VISION_WORLD_WRAP(int, rename, (const char* from, const char* to), (from, to), true)
VISION_WORLD_WRAP(int, unlink, (const char* path), (path), true)

}  // extern "C"

asio::awaitable<void> real_run_on_worker(std::function<void()> job) asm(
    "__real__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) asm(
    "__wrap__ZN6vision7runtime13run_on_workerESt8functionIFvvEE");

namespace {

asio::awaitable<void> run_in_turn(std::function<void()> job) {
  World& world = *World::current;
  const auto waiter = std::make_shared<std::shared_ptr<void>>(world.in_flight);
  std::function<void()> in_turn = [&world, inner = std::move(job)] {
    world.to_worker.acquire();
    const std::shared_ptr<void> turn(nullptr, [&world](void*) { world.to_loop.release(); });
    inner();
    if (fails("worker done")) throw std::runtime_error("the job failed");
  };
  world.jobs.push_back(waiter);
  co_await real_run_on_worker(std::move(in_turn));
}

}  // namespace

// Not a coroutine itself: g++ 12 cannot name the parts of one that has an asm label.
asio::awaitable<void> wrap_run_on_worker(std::function<void()> job) {
  return run_in_turn(std::move(job));
}

}  // namespace vision::world
