#pragma once

#include <boost/asio/socket_base.hpp>
#include <boost/system/error_code.hpp>
#include <mutex>
#include <utility>

/// What a forked child gets of a browser: nothing that could harm its parent's, or keep
/// it running when the parent is gone.
namespace vision::chromium {

/// During its lifetime no thread of this process forks. Held while descriptors exist
/// that no DeadInChild covers yet.
class NoFork {
 public:
  NoFork();

 private:
  const std::lock_guard<std::mutex> lock_;
};

/// During its lifetime a child that this process forks finds a dead socket under the
/// number `descriptor`, at its end and without a peer. Must be gone before the
/// descriptor is closed, or the number may be another file's by then.
class DeadInChild {
 public:
  DeadInChild() = default;
  /// Throws system_error if there is no descriptor left for the dead socket.
  DeadInChild(int descriptor, const NoFork& lock);
  ~DeadInChild() { reset(); }
  DeadInChild(DeadInChild&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  DeadInChild& operator=(DeadInChild&& other) noexcept {
    std::swap(descriptor_, other.descriptor_);
    return *this;
  }
  void reset() noexcept;

 private:
  int descriptor_ = -1;
};

/// A socket or descriptor of Asio's that is dead in a forked child. There, neither its
/// operations nor its destructor reach the parent's: not the connection, nor what the
/// parent's event loop waits for.
template <class Descriptor>
class Unshared : public Descriptor {
 public:
  explicit Unshared(const typename Descriptor::executor_type& executor) : Descriptor(executor) {}
  /// One that is open already.
  Unshared(Descriptor descriptor)  // NOLINT(google-explicit-constructor)
      : Descriptor(std::move(descriptor)), dead_(this->native_handle(), NoFork()) {}
  ~Unshared() = default;
  Unshared(Unshared&&) noexcept = default;
  Unshared& operator=(Unshared&&) = delete;

  /// As Descriptor's own; its last argument is the descriptor.
  template <class... Arguments>
  void assign(const NoFork& lock, const Arguments&... arguments) {
    Descriptor::assign(arguments...);
    dead_ = DeadInChild(this->native_handle(), lock);
  }

  /// Ends a connection for its peer too, whoever else has a copy of the descriptor, and
  /// closes it. Idempotent.
  void end() noexcept {
    boost::system::error_code ignored;
    dead_.reset();
    if constexpr (requires { Descriptor::shutdown_both; }) this->shutdown(Descriptor::shutdown_both, ignored);
    this->close(ignored);
  }

 private:
  DeadInChild dead_;  // destroyed before the descriptor is closed
};

}  // namespace vision::chromium
