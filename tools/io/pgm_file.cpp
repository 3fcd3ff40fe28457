#include "pgm_file.hpp"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

class header_reader {
 public:
  header_reader(std::istream& in, const std::string& name) : in_(in), name_(name) {}

  // The next decimal number, skipping white space and '#' comments.
  std::int64_t number(const char* what) {
    skip_space_and_comments();
    std::int64_t value = 0;
    std::size_t digits = 0;
    while (std::isdigit(in_.peek())) {
      value = value * 10 + (in_.get() - '0');
      if (value > (std::int64_t{1} << 31)) throw io_error(name_ + ": PGM " + what + " too large");
      ++digits;
    }
    if (digits == 0) throw io_error(name_ + ": malformed PGM header (expected the " + what + ")");
    return value;
  }

 private:
  void skip_space_and_comments() {
    for (int c = in_.peek(); c != std::char_traits<char>::eof(); c = in_.peek()) {
      if (std::isspace(c)) {
        in_.get();
      } else if (c == '#') {
        while (in_.peek() != std::char_traits<char>::eof() && in_.get() != '\n') {
        }
      } else {
        break;
      }
    }
  }

  std::istream& in_;
  const std::string& name_;
};

// A grey map of `size` bytes from `in`, its pixels read straight into their
// 8 or 16-bit buffer.
grey_image read_pgm_from(std::istream& in, std::uint64_t size, const std::string& name,
                         const read_options& options) {
  char magic[2] = {};
  in.read(magic, 2);
  if (in.gcount() < 2 || magic[0] != 'P' || (magic[1] != '5' && magic[1] != '2'))
    throw io_error(name + ": not a PGM grey map (P5 or P2)");
  const bool plain = magic[1] == '2';
  header_reader header(in, name);
  grey_image out;
  out.size_x = header.number("width");
  out.size_y = header.number("height");
  const std::int64_t maxval = header.number("maximum value");
  if (out.size_x < 1 || out.size_y < 1) throw io_error(name + ": PGM has no pixels");
  if (maxval < 1 || maxval > 65535)
    throw io_error(name + ": PGM maximum value " + std::to_string(maxval) + " is not 1..65535");
  out.type = maxval > 255 ? pixel_type::uint16 : pixel_type::uint8;
  check_declared_image(name, out.size_x, out.size_y, 1, out.type, options);
  // Check the declared size against the file before allocating for it. One
  // white-space byte separates the header from the pixels.
  in.get();
  const std::uint64_t start = in.good() ? static_cast<std::uint64_t>(in.tellg()) : size;
  const std::size_t bytes_per_pixel = frontend::pixel_size(out.type);
  const auto pixels = static_cast<std::size_t>(out.pixel_count());
  const std::size_t least_bytes = plain ? pixels : pixels * bytes_per_pixel;  // a digit each
  if (size < start || size - start < least_bytes)
    throw io_error(name + ": PGM pixel data is shorter than its size says");
  out.pixels = pixel_buffer(pixels * bytes_per_pixel);
  std::byte* p = out.pixels.writable();
  const auto store = [&](std::size_t i, std::int64_t v) {
    if (bytes_per_pixel == 1) {
      p[i] = static_cast<std::byte>(v);
    } else {
      const auto wide = static_cast<std::uint16_t>(v);
      std::memcpy(p + 2 * i, &wide, 2);
    }
  };
  if (plain) {
    if (in.good()) in.unget();  // the separating byte may be a pixel's digit
    for (std::size_t i = 0; i < pixels; ++i) {
      const std::int64_t v = header.number("pixel values");
      if (v > maxval) throw io_error(name + ": PGM pixel above its maximum");
      store(i, v);
    }
    return out;
  }
  in.read(reinterpret_cast<char*>(p), static_cast<std::streamsize>(pixels * bytes_per_pixel));
  if (static_cast<std::size_t>(in.gcount()) != pixels * bytes_per_pixel)
    throw io_error(name + ": PGM pixel data is shorter than its size says");
  if (bytes_per_pixel == 2)  // stored big-endian
    for (std::size_t i = 0; i < pixels; ++i) {
      const auto* b = reinterpret_cast<const unsigned char*>(p + 2 * i);
      store(i, (b[0] << 8) | b[1]);
    }
  return out;
}

}  // namespace

grey_image parse_pgm(const std::string& bytes, const std::string& name) {
  std::istringstream in(bytes);
  return read_pgm_from(in, bytes.size(), name, {});
}

grey_image read_pgm(const std::string& path, const read_options& options) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw io_error(path + ": cannot open for reading");
  std::error_code error;
  return read_pgm_from(in, std::filesystem::file_size(path, error), path, options);
}

void write_pgm(const std::string& path, std::int64_t width, std::int64_t height,
               const std::uint8_t* pixels) {
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw write_failure(path);
  const auto bytes = static_cast<std::size_t>(width * height);
  bool written = std::fprintf(file, "P5\n%lld %lld\n255\n", static_cast<long long>(width),
                              static_cast<long long>(height)) > 0 &&
                 std::fwrite(pixels, 1, bytes, file) == bytes && std::fflush(file) == 0;
  const int problem = errno;
  if (std::fclose(file) != 0 && written) throw write_failure(path);
  errno = problem;
  if (!written) throw write_failure(path);
}

}  // namespace splitmerge::io
