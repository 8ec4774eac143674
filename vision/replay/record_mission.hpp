#pragma once

#include <boost/asio/awaitable.hpp>
#include <memory>

#include "vision/replay/cassette.hpp"
#include "vision/wirein/act_loop.hpp"

namespace vision {

/// act_loop for a mission that is to be replayed as a whole. While `cassette` records, the
/// mission's options, the answers of its `should_abort` and its verdict are recorded, so
/// that the command `vision replay` can run the mission without the host. While it replays,
/// `should_abort` answers as recorded. Give it a CassettePage and, in `options`, a
/// VisionClient on a CassetteClient of the same cassette.
///
/// Throws std::invalid_argument when `cassette` is null or no client is given; else as
/// act_loop does. `page` must outlive the operation.
boost::asio::awaitable<ActionResult> record_mission(std::shared_ptr<Cassette> cassette, BrowserPage& page,
                                                    ActLoopOptions options);

}  // namespace vision
