#include "chromium/protocol/untracked.hpp"

#include <boost/asio/execution/any_executor.hpp>
#include <boost/asio/strand.hpp>

namespace vision::chromium {
namespace asio = boost::asio;
namespace {

// The properties of any_io_executor without outstanding_work. A wrapper passes on only
// the properties that it lists, and Asio does without one that it merely prefers.
using UntrackedExecutor =
    asio::execution::any_executor<asio::execution::context_as_t<asio::execution_context&>,
                                  asio::execution::blocking_t::never_t,
                                  asio::execution::prefer_only<asio::execution::blocking_t::possibly_t>,
                                  asio::execution::prefer_only<asio::execution::relationship_t::fork_t>,
                                  asio::execution::prefer_only<asio::execution::relationship_t::continuation_t>>;

// The type of an execution context cannot be queried, but that of an executor can,
// through all its wrappers.
asio::io_context* io_context_of(const asio::any_io_executor& executor) {
  using Plain = asio::io_context::executor_type;
  const auto* plain = executor.target<Plain>();
  if (const auto* strand = executor.target<asio::strand<Plain>>()) return &strand->get_inner_executor().context();
  if (const auto* strand = executor.target<asio::strand<asio::any_io_executor>>()) {
    return io_context_of(strand->get_inner_executor());
  }
  return plain ? &plain->context() : nullptr;
}

}  // namespace

asio::any_io_executor untracked(const asio::any_io_executor& executor) {
  return UntrackedExecutor(executor);
}

// The count of work reaches zero here only if nothing but idle reads is left. It never
// falls below: the coroutine runs in a handler, which counts until it returns, and the
// read counts from its start until its own handler returns, after the destructor.
UncountedRead::UncountedRead(const asio::any_io_executor& executor) : context_(io_context_of(executor)) {
  if (context_) context_->get_executor().on_work_finished();
}

UncountedRead::~UncountedRead() {
  if (context_) context_->get_executor().on_work_started();
}

}  // namespace vision::chromium
