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

/// What the first bytes of an image say of it.
struct ImageHeader {
  std::string media_type;  ///< "image/png", "image/jpeg", "image/gif", "image/webp"; empty for anything else
  int width = 0;
  int height = 0;
};

/// Reads the header only. Throws BadImage for what is no image of these kinds.
ImageHeader image_header(std::string_view bytes);

/// Reads the words in pictures with Tesseract, on threads of its own, one
/// engine per thread, kept for the next picture.
class Ocr {
 public:
  /// `threads` pictures are read at once. Throws std::runtime_error when
  /// Tesseract's English data is not installed.
  explicit Ocr(std::size_t threads = 2);
  /// Waits for the pictures being read. The event loops whose coroutines wait
  /// for one must still exist.
  ~Ocr();
  Ocr(const Ocr&) = delete;
  Ocr& operator=(const Ocr&) = delete;

  /// The words in an image file (PNG, JPEG, GIF or WebP). Dark and light
  /// letters are both read. Throws BadImage. Terminal cancellation ends the wait
  /// at once.
  boost::asio::awaitable<Picture> read(std::string image);

 private:
  struct Job;
  struct Engines;
  std::unique_ptr<Engines> engines_;
};

}  // namespace local_model
