#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>

#include "chromium/browser.hpp"

/// What the example programs have in common, and a real pipeline has already: a
/// page in a real browser and a model to ask.
namespace stage {

using Example = std::function<boost::asio::awaitable<void>(std::shared_ptr<vision::chromium::ChromiumPage> page)>;

/// Runs `example` on a page that shows the board, with the model of serve_model(),
/// and gives main's exit status.
int run(Example example);

/// Called by run(). Without ANTHROPIC_API_KEY it serves the local model on `io` and
/// points the environment at it; what is returned ends that.
std::function<void()> serve_model(boost::asio::io_context& io);

/// Shows the board, unshared, again.
boost::asio::awaitable<void> reset(vision::chromium::ChromiumPage& page);

}  // namespace stage
