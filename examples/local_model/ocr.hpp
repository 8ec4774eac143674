#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "examples/local_model/picture.hpp"

namespace local_model {

/// An image that cannot be decoded.
class BadImage : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What the first bytes of an image say about it.
struct ImageHeader {
  std::string media_type;  ///< "image/png", "image/jpeg", "image/gif", "image/webp"
  int width = 0;
  int height = 0;
};

/// Reads only the header. Throws BadImage for data that is not an image of these types.
ImageHeader image_header(std::string_view bytes);

/// Reads the words in pictures with Tesseract, on threads of its own. Every thread
/// has an engine, which is kept for the next picture.
class Ocr {
 public:
  /// Up to `threads` pictures are read at once. Throws std::runtime_error when
  /// Tesseract's English data is not installed.
  explicit Ocr(std::size_t threads = 2);
  /// Blocks while pictures are being read. The event loops whose coroutines wait for
  /// one must still exist.
  ~Ocr();
  Ocr(const Ocr&) = delete;
  Ocr& operator=(const Ocr&) = delete;

  /// Returns the words in an image file (PNG, JPEG, GIF or WebP), in dark and in
  /// light letters. Throws BadImage. Terminal cancellation ends the wait at once; the
  /// picture is still read to the end.
  boost::asio::awaitable<Picture> read(std::string image);

 private:
  struct Job;
  struct Engines;
  std::unique_ptr<Engines> engines_;
};

}  // namespace local_model
