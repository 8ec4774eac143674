#include "tools/report/picture_reader.hpp"

#include <fstream>
#include <sstream>

namespace report {
namespace {

constexpr std::size_t most_bytes = 64'000'000;

}  // namespace

PictureReader::Loaded PictureReader::of(const Moment& moment) {
  if (fixtures_ == nullptr) return {{}, "Give the folder of screenshots with --fixtures to see what the model saw."};
  return load(fixtures_->find(moment));
}

std::vector<PictureReader::Loaded> PictureReader::of(const Mission& mission) {
  std::vector<Loaded> out;
  if (fixtures_ == nullptr) {
    for (const auto& step : mission.steps) out.push_back(of(step));
    return out;
  }
  for (const auto& picture : fixtures_->find(mission)) out.push_back(load(picture));
  return out;
}

PictureReader::Loaded PictureReader::load(const Picture& picture) {
  switch (picture.state) {
    case Picture::State::none: return {{}, "No screenshot was stored for this record."};
    case Picture::State::ambiguous:
      return {{}, "Ambiguous: several screenshots match this record, or several records match the screenshot."};
    case Picture::State::found: break;
  }
  if (bytes_ >= most_bytes) {
    return {{}, "Left out: the page already holds 64 MB of pictures. Use --split for a page per site."};
  }
  std::ifstream file(picture.path, std::ios::binary);
  std::ostringstream content;
  if (!(file && content << file.rdbuf())) return {{}, "The screenshot cannot be read: " + picture.path};
  bytes_ += content.view().size();
  return {vision::Bytes(std::move(content).str()), {}};
}

}  // namespace report
