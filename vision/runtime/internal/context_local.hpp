#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/execution_context.hpp>
#include <boost/asio/query.hpp>

namespace vision::runtime {

/// The one `T` of an execution context, made by its default constructor on first use
/// and destroyed with the context. A `T` that has a `shutdown()` is told when the
/// context begins to shut down, while its services still exist; one that has a `forked()`
/// is told in the child after a fork of which the host has told the context. Thread-safe;
/// what is done with the T is the caller's to order.
template <class T>
class ContextLocal : public boost::asio::execution_context::service {
 public:
  using key_type = ContextLocal;
  static inline boost::asio::execution_context::id id;

  explicit ContextLocal(boost::asio::execution_context& context) : service(context) {}

  T value;

 private:
  void shutdown() override {
    if constexpr (requires { value.shutdown(); }) value.shutdown();
  }
  void notify_fork(boost::asio::execution_context::fork_event event) override {
    if constexpr (requires { value.forked(); }) {
      if (event == boost::asio::execution_context::fork_child) value.forked();
    }
  }
};

///@{
/// The `T` of this context, or of the executor's. Valid as long as the context.
template <class T>
T& context_local(boost::asio::execution_context& context) {
  return boost::asio::use_service<ContextLocal<T>>(context).value;
}
template <class T>
T& context_local(const boost::asio::any_io_executor& executor) {
  return context_local<T>(boost::asio::query(executor, boost::asio::execution::context));
}
///@}

}  // namespace vision::runtime
