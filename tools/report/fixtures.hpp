#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "tools/report/moment.hpp"

namespace report {

/// The picture that a moment was asked about, as far as it can be told.
struct Picture {
  enum class State {
    found,
    none,       ///< no fixture was stored at that time
    ambiguous,  ///< several fixtures fit, or the fixture fits several records
  };
  State state = State::none;
  std::string path;  ///< with found
};

/// The seconds in which the screenshot of a record can have been stored, both ends
/// included: the record's time less what the model took, or the agent, as a
/// miss-path record waits for both. Both times are whole seconds, which alone makes
/// two candidates. When the agent failed, its duration is unknown: the last
/// ten minutes.
struct StoredBetween {
  std::int64_t first, last;
  bool vague = false;
};
StoredBetween stored_between(const Moment& moment);

/// Screenshots named SITE/RUN_SECONDS.png below a folder. A record and a picture are
/// paired when no other record and no other picture could be.
class Fixtures {
 public:
  /// Reads the names below `folder`. Throws InputError when it cannot be read.
  explicit Fixtures(const std::string& folder);

  /// Registers that a record may have a picture. Call it for every record before
  /// the first `find`.
  void claim(const Moment& moment);
  Picture find(const Moment& moment) const;

  /// The pictures of a mission's steps. When there are as many pictures as steps in
  /// the mission's time, they are paired in order; otherwise each step is paired
  /// on its own.
  std::vector<Picture> find(const Mission& mission) const;

  std::int64_t size() const { return size_; }

 private:
  struct Fixture {
    std::int64_t second;
    // Of the records that may have it; no part of the order. A vague one takes what no other record wants.
    mutable std::int64_t claims = 0, vague_claims = 0;
    bool operator<(const Fixture& other) const { return second < other.second; }
  };
  // Fixtures of one site and run within some seconds, as a range.
  struct Range {
    const Fixture *begin, *end;
  };

  void add(const std::string& site, const std::string& file_name);
  Range within(const std::string& key, StoredBetween window) const;
  std::string path(const Moment& moment, const Fixture& fixture) const;

  std::string folder_;
  std::unordered_map<std::string, std::vector<Fixture>> fixtures_;  // by site and run
  std::int64_t size_ = 0;
};

}  // namespace report
