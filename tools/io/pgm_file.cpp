#include "pgm_file.hpp"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

class header_reader {
 public:
  header_reader(const std::string& bytes, const std::string& name) : bytes_(bytes), name_(name) {}

  // The next decimal number, skipping white space and '#' comments.
  std::int64_t number(const char* what) {
    skip_space_and_comments();
    std::int64_t value = 0;
    std::size_t digits = 0;
    while (pos_ < bytes_.size() && std::isdigit(static_cast<unsigned char>(bytes_[pos_]))) {
      value = value * 10 + (bytes_[pos_++] - '0');
      if (value > (std::int64_t{1} << 31)) throw io_error(name_ + ": PGM " + what + " too large");
      ++digits;
    }
    if (digits == 0) throw io_error(name_ + ": malformed PGM header (expected the " + what + ")");
    return value;
  }

  std::size_t position() const { return pos_; }

 private:
  void skip_space_and_comments() {
    while (pos_ < bytes_.size()) {
      if (std::isspace(static_cast<unsigned char>(bytes_[pos_]))) {
        ++pos_;
      } else if (bytes_[pos_] == '#') {
        while (pos_ < bytes_.size() && bytes_[pos_] != '\n') ++pos_;
      } else {
        break;
      }
    }
  }

  const std::string& bytes_;
  const std::string& name_;
  std::size_t pos_ = 2;  // after the magic number
};

}  // namespace

grey_image parse_pgm(const std::string& bytes, const std::string& name) {
  if (bytes.size() < 2 || bytes[0] != 'P' || (bytes[1] != '5' && bytes[1] != '2'))
    throw io_error(name + ": not a PGM grey map (P5 or P2)");
  const bool plain = bytes[1] == '2';
  header_reader header(bytes, name);
  grey_image out;
  out.size_x = header.number("width");
  out.size_y = header.number("height");
  const std::int64_t maxval = header.number("maximum value");
  if (out.size_x < 1 || out.size_y < 1) throw io_error(name + ": PGM has no pixels");
  check_pixel_count(name, out.size_x, out.size_y, 1);
  if (maxval < 1 || maxval > 65535)
    throw io_error(name + ": PGM maximum value " + std::to_string(maxval) + " is not 1..65535");
  // Check the declared size against the file before allocating for it.
  const std::size_t start = header.position() + 1;
  const std::size_t bytes_per_pixel = maxval > 255 ? 2 : 1;
  const auto pixels = static_cast<std::size_t>(out.pixel_count());
  const std::size_t least_bytes = plain ? pixels : pixels * bytes_per_pixel;  // a digit each
  if (bytes.size() < start || bytes.size() - start < least_bytes)
    throw io_error(name + ": PGM pixel data is shorter than its size says");
  out.values.resize(pixels);

  if (plain) {
    for (auto& v : out.values) {
      v = static_cast<double>(header.number("pixel values"));
      if (v > static_cast<double>(maxval)) throw io_error(name + ": PGM pixel above its maximum");
    }
    return out;
  }
  // One white-space byte separates the header from the binary pixels.
  const auto* p = reinterpret_cast<const unsigned char*>(bytes.data()) + start;
  for (std::size_t i = 0; i < out.values.size(); ++i)
    out.values[i] = bytes_per_pixel == 1 ? p[i] : (p[2 * i] << 8) | p[2 * i + 1];
  return out;
}

grey_image read_pgm(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw io_error(path + ": cannot open for reading");
  std::ostringstream s;
  s << in.rdbuf();
  return parse_pgm(s.str(), path);
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
