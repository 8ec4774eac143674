#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>

namespace report {

/// Bad input from the caller. The message names the value and says what is wrong.
class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A stream of bytes, unpacked.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  /// Fills at most `size` bytes; 0 at the end. Throws std::runtime_error when the
  /// packed data are damaged or end too early, and for an error of the system.
  virtual std::size_t read(char* into, std::size_t size) = 0;
  /// Bytes taken from the file so far, packed.
  virtual std::uint64_t consumed() const = 0;
};

/// Opens a file, or standard input for "-". Gzip and Zstandard are recognised
/// by their first bytes, whatever the name; several members in a row are read as one
/// stream. Throws InputError when the file cannot be opened, or is a folder.
std::unique_ptr<ByteSource> open_source(const std::string& path);

}  // namespace report
