#include "tools/report/byte_source.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <vector>

namespace report {
namespace {

constexpr std::size_t packed_buffer = 256 * 1024;

// A descriptor whose first bytes can be looked at without taking them.
class FileSource : public ByteSource {
 public:
  explicit FileSource(int descriptor) : descriptor_(descriptor) {}
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;
  ~FileSource() override {
    if (descriptor_ != STDIN_FILENO) ::close(descriptor_);
  }

  std::string_view first_bytes() {
    while (ahead_size_ < ahead_.size()) {
      const std::size_t got = read_descriptor(ahead_.data() + ahead_size_, ahead_.size() - ahead_size_);
      if (got == 0) break;
      ahead_size_ += got;
    }
    return {ahead_.data(), ahead_size_};
  }

  std::size_t read(char* into, std::size_t size) override {
    if (ahead_at_ == ahead_size_) return read_descriptor(into, size);
    const std::size_t part = std::min(size, ahead_size_ - ahead_at_);
    std::memcpy(into, ahead_.data() + ahead_at_, part);
    ahead_at_ += part;
    return part;
  }

  std::uint64_t consumed() const override { return consumed_; }

 private:
  std::size_t read_descriptor(char* into, std::size_t size) {
    ssize_t got = 0;
    do got = ::read(descriptor_, into, size);
    while (got < 0 && errno == EINTR);
    if (got < 0) throw std::runtime_error(std::strerror(errno));
    consumed_ += static_cast<std::uint64_t>(got);
    return static_cast<std::size_t>(got);
  }

  int descriptor_;
  std::array<char, 4> ahead_;
  std::size_t ahead_size_ = 0, ahead_at_ = 0;
  std::uint64_t consumed_ = 0;
};

// What both decompressors share: the packed bytes that are at hand.
class PackedSource : public ByteSource {
 public:
  explicit PackedSource(std::unique_ptr<FileSource> file) : file_(std::move(file)), packed_(packed_buffer) {}
  std::uint64_t consumed() const override { return file_->consumed(); }

 protected:
  // False at the end of the file.
  bool refill() {
    at_ = 0;
    size_ = file_->read(packed_.data(), packed_.size());
    return size_ > 0;
  }
  bool exhausted() const { return at_ == size_; }

  std::unique_ptr<FileSource> file_;
  std::vector<char> packed_;
  std::size_t at_ = 0, size_ = 0;
};

class GzipSource : public PackedSource {
 public:
  explicit GzipSource(std::unique_ptr<FileSource> file) : PackedSource(std::move(file)) {
    constexpr int gzip_only = 15 + 16;
    if (inflateInit2(&stream_, gzip_only) != Z_OK) throw std::bad_alloc();
  }
  GzipSource(const GzipSource&) = delete;
  GzipSource& operator=(const GzipSource&) = delete;
  ~GzipSource() override { inflateEnd(&stream_); }

  std::size_t read(char* into, std::size_t size) override {
    stream_.next_out = reinterpret_cast<Bytef*>(into);
    stream_.avail_out = static_cast<uInt>(size);
    while (stream_.avail_out == size) {
      if (exhausted() && !refill()) {
        if (in_member_) throw std::runtime_error("the gzip data end too early");
        break;
      }
      if (!in_member_) inflateReset(&stream_);
      in_member_ = true;
      stream_.next_in = reinterpret_cast<Bytef*>(packed_.data() + at_);
      stream_.avail_in = static_cast<uInt>(size_ - at_);
      const int status = inflate(&stream_, Z_NO_FLUSH);
      at_ = size_ - stream_.avail_in;
      if (status == Z_STREAM_END)
        in_member_ = false;
      else if (status != Z_OK && status != Z_BUF_ERROR)
        throw std::runtime_error("the gzip data are damaged");
    }
    return size - stream_.avail_out;
  }

 private:
  z_stream stream_{};
  bool in_member_ = false;
};

class ZstdSource : public PackedSource {
 public:
  explicit ZstdSource(std::unique_ptr<FileSource> file) : PackedSource(std::move(file)), context_(ZSTD_createDCtx()) {
    if (context_ == nullptr) throw std::bad_alloc();
  }
  ZstdSource(const ZstdSource&) = delete;
  ZstdSource& operator=(const ZstdSource&) = delete;
  ~ZstdSource() override { ZSTD_freeDCtx(context_); }

  std::size_t read(char* into, std::size_t size) override {
    ZSTD_outBuffer out{into, size, 0};
    while (out.pos == 0) {
      if (exhausted() && !refill()) {
        if (in_frame_) throw std::runtime_error("the Zstandard data end too early");
        break;
      }
      ZSTD_inBuffer in{packed_.data(), size_, at_};
      const std::size_t left = ZSTD_decompressStream(context_, &out, &in);
      if (ZSTD_isError(left)) throw std::runtime_error("the Zstandard data are damaged");
      in_frame_ = left != 0;
      at_ = in.pos;
    }
    return out.pos;
  }

 private:
  ZSTD_DCtx* context_;
  bool in_frame_ = false;
};

int open_descriptor(const std::string& path) {
  if (path == "-") return STDIN_FILENO;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) throw InputError(path + ": " + std::strerror(errno));
  struct stat status {};
  if (::fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode)) {
    ::close(descriptor);
    throw InputError(path + ": is a folder; name the logs in it, for example '" + path + "/*.jsonl'");
  }
  return descriptor;
}

}  // namespace

std::unique_ptr<ByteSource> open_source(const std::string& path) {
  auto file = std::make_unique<FileSource>(open_descriptor(path));
  const std::string_view first = file->first_bytes();
  if (first.starts_with("\x1f\x8b")) return std::make_unique<GzipSource>(std::move(file));
  if (first.starts_with("\x28\xb5\x2f\xfd")) return std::make_unique<ZstdSource>(std::move(file));
  return file;
}

}  // namespace report
