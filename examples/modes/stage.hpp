#pragma once

#include <boost/asio/awaitable.hpp>
#include <functional>
#include <memory>

#include "chromium/browser.hpp"

/// What the example programs have in common, and a real pipeline has already: a
/// page in a real browser and a model to ask.
namespace stage {

using Example = std::function<boost::asio::awaitable<void>(std::shared_ptr<vision::chromium::ChromiumPage> page)>;

/// Runs `example` on a page that shows the board, and gives main's exit status.
/// The model is the hosted one when ANTHROPIC_API_KEY is set, else the local one,
/// served by this process.
int run(Example example);

/// Shows the board, unshared, again.
boost::asio::awaitable<void> reset(vision::chromium::ChromiumPage& page);

}  // namespace stage
