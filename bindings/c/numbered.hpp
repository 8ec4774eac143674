#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace vision::c {

/// A number that no other thing of the process has had.
inline std::uint64_t next_number() noexcept {
  static std::atomic<std::uint64_t> last = 0;
  return ++last;
}

/// Things that the host knows by number, so that it may name one that is gone. `T` can
/// be false. From any thread.
template <class T>
class Numbered {
 public:
  void add(std::uint64_t number, T thing) {
    const std::lock_guard lock(mutex_);
    things_.emplace(number, std::move(thing));
  }

  /// The thing, or one that is false.
  T find(std::uint64_t number) const {
    const std::lock_guard lock(mutex_);
    const auto found = things_.find(number);
    return found == things_.end() ? T() : found->second;
  }

  /// The same, and removes it.
  T take(std::uint64_t number) {
    const std::lock_guard lock(mutex_);
    const auto node = things_.extract(number);
    return node ? std::move(node.mapped()) : T();
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<std::uint64_t, T> things_;
};

}  // namespace vision::c
