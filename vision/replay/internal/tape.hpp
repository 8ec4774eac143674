#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "vision/records/bytes.hpp"
#include "vision/replay/cassette.hpp"
#include "vision/replay/internal/question.hpp"

namespace vision::detail {

/// Parses a line of a cassette, or a request. Throws std::runtime_error.
boost::json::value read_line(std::string_view text);

/// The lines of a cassette, and which of them have been replayed.
class Tape {
 public:
  /// One line: a call, and how it ended.
  struct Entry {
    boost::json::object line;
    bool used = false;

    std::int64_t number() const { return line.at("number").as_int64(); }
    std::string_view call() const { return line.at("call").as_string(); }
  };
  using Operation = std::function<boost::asio::awaitable<boost::json::value>()>;

  /// Throws what Cassette's constructor throws.
  Tape(std::string folder, CassetteOptions options);

  const std::string& folder() const noexcept { return folder_; }
  CassetteMode mode() const noexcept { return options_.mode(); }
  bool is_replaying() const noexcept;
  bool is_recording() const noexcept;
  const std::vector<Entry>& entries() const noexcept { return entries_; }
  runtime::Duration began() const noexcept;
  std::vector<std::string> unused() const;
  const std::vector<std::string>& misses() const noexcept { return misses_; }

  /// The next recorded request that `question` asks, by the cassette's rule; marks it as
  /// used. Null, when there is none. Valid until the next call is recorded.
  const Entry* find(const Question& question);
  /// The next recorded call but for requests, which must be this one; marks it as used.
  const Entry& next(std::string_view call, const boost::json::array& arguments);
  /// The first recorded call of a name; null without one.
  const Entry* first(std::string_view call) const;
  /// How often the request with this key is recorded, with the time that begins now.
  std::int64_t next_occurrence(const std::string& key);
  /// Throws CassetteMiss that says how the request differs from the nearest recorded one.
  [[noreturn]] void miss(const Question& question);

  /// Waits as long as the recorded call took, and ends as it did.
  static boost::asio::awaitable<boost::json::value> play(boost::json::object line);
  /// Runs the operation and writes a line about it: `call`, then how it ended. The
  /// operation's coroutine is made within, so that what it throws at once is recorded too.
  boost::asio::awaitable<boost::json::value> record(boost::json::object call, Operation operation);
  /// A call of the page or of the host that is replayed in order: plays or records it.
  boost::asio::awaitable<boost::json::value> in_order(std::string call, boost::json::array arguments,
                                                      Operation operation);
  /// The same for a call that returns at once.
  boost::json::value in_order_now(std::string_view call, const std::function<boost::json::value()>& operation);

  ///@{
  /// Pictures, by file name.
  std::string store(const Bytes& picture);
  Bytes load(std::string_view name) const;
  ///@}

 private:
  struct Call;

  void read();
  void write(Call call, const char* ending, boost::json::value value, runtime::Duration latency);
  void start_over();

  const std::string folder_;
  const CassetteOptions options_;
  std::vector<Entry> entries_;  // by number
  bool has_recording_ = false;
  bool must_start_over_ = false;
  bool has_warned_ = false;
  std::int64_t last_number_ = 0;
  runtime::Duration last_at_{0};  // the wall clock when a call was last recorded that can tell
  std::map<std::string, std::int64_t> occurrences_;
  std::vector<std::string> misses_;
};

}  // namespace vision::detail
