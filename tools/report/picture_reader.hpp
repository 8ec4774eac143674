#pragma once

#include <string>
#include <vector>

#include "tools/report/fixtures.hpp"
#include "vision/records/bytes.hpp"

namespace report {

/// Reads the pictures of one page, up to 64 MB together.
class PictureReader {
 public:
  /// `fixtures` may be null: then there are none.
  explicit PictureReader(const Fixtures* fixtures) : fixtures_(fixtures) {}

  /// A picture, or why there is none. One of the two is empty.
  struct Loaded {
    vision::Bytes png;
    std::string missing;
  };
  Loaded of(const Moment& moment);
  std::vector<Loaded> of(const Mission& mission);

 private:
  Loaded load(const Picture& picture);

  const Fixtures* fixtures_;
  std::size_t bytes_ = 0;
};

}  // namespace report
