#include "npy_int32.hpp"

#include <cstring>
#include <fstream>
#include <stdexcept>

namespace splitmerge::bench {

namespace {

std::vector<std::int32_t> shape_of(const std::string& header, const std::string& path) {
  const auto open = header.find('(', header.find("'shape'"));
  const auto close = header.find(')', open);
  if (open == std::string::npos || close == std::string::npos)
    throw std::runtime_error(path + ": no shape in the .npy header");
  std::vector<std::int32_t> shape;
  const char* p = header.c_str() + open + 1;
  const char* end = header.c_str() + close;
  while (p < end) {
    char* next = nullptr;
    const long v = std::strtol(p, &next, 10);
    if (next == p) {
      ++p;  // a separator
      continue;
    }
    shape.push_back(static_cast<std::int32_t>(v));
    p = next;
  }
  return shape;
}

}  // namespace

int32_image read_npy_int32(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error(path + ": cannot open");
  char preamble[10];
  if (!in.read(preamble, sizeof preamble) || std::memcmp(preamble, "\x93NUMPY\x01", 7) != 0)
    throw std::runtime_error(path + ": not a version 1 .npy file");
  const std::size_t header_size = static_cast<unsigned char>(preamble[8]) |
                                  static_cast<std::size_t>(static_cast<unsigned char>(preamble[9]))
                                      << 8;
  std::string header(header_size, ' ');
  in.read(header.data(), static_cast<std::streamsize>(header_size));
  if (header.find("'<i4'") == std::string::npos ||
      header.find("'fortran_order': False") == std::string::npos)
    throw std::runtime_error(path + ": expected a C-order little-endian int32 array");

  const std::vector<std::int32_t> shape = shape_of(header, path);
  int32_image image;
  if (shape.size() == 2) {
    image.size_y = shape[0];
    image.size_x = shape[1];
  } else if (shape.size() == 3) {
    image.size_z = shape[0];
    image.size_y = shape[1];
    image.size_x = shape[2];
  } else {
    throw std::runtime_error(path + ": expected shape (Y, X) or (Z, Y, X)");
  }
  image.pixels.resize(static_cast<std::size_t>(image.size_x) * image.size_y * image.size_z);
  if (!in.read(reinterpret_cast<char*>(image.pixels.data()),
               static_cast<std::streamsize>(image.pixels.size() * sizeof(std::int32_t))))
    throw std::runtime_error(path + ": truncated data");
  return image;
}

}  // namespace splitmerge::bench
