#include "npy.hpp"

#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace splitmerge::io {

namespace {

std::string header_value(const std::string& header, const std::string& key,
                         const std::string& name) {
  const auto k = header.find("'" + key + "'");
  if (k == std::string::npos) throw io_error(name + ": .npy header has no '" + key + "'");
  auto colon = header.find(':', k);
  if (colon == std::string::npos) throw io_error(name + ": malformed .npy header");
  ++colon;
  while (colon < header.size() && header[colon] == ' ') ++colon;
  return header.substr(colon);
}

std::vector<std::int64_t> parse_shape(const std::string& rest, const std::string& name) {
  if (rest.empty() || rest[0] != '(') throw io_error(name + ": malformed .npy shape");
  const auto close = rest.find(')');
  if (close == std::string::npos) throw io_error(name + ": malformed .npy shape");
  std::vector<std::int64_t> shape;
  std::string inner = rest.substr(1, close - 1);
  std::stringstream s(inner);
  std::string item;
  while (std::getline(s, item, ',')) {
    const auto first = item.find_first_not_of(' ');
    if (first == std::string::npos) continue;
    try {
      const long long v = std::stoll(item.substr(first));
      if (v < 0) throw io_error(name + ": negative .npy dimension");
      shape.push_back(v);
    } catch (const std::logic_error&) {
      throw io_error(name + ": malformed .npy shape");
    }
  }
  return shape;
}

std::int64_t read_value(const unsigned char* p, char kind, int size, bool big_endian) {
  std::uint64_t u = 0;
  for (int i = 0; i < size; ++i) {
    const int byte = big_endian ? i : size - 1 - i;
    u = (u << 8) | p[byte];
  }
  if (kind == 'i' && size < 8) {
    const std::uint64_t sign = std::uint64_t{1} << (8 * size - 1);
    if (u & sign) u |= ~((sign << 1) - 1);
  }
  return static_cast<std::int64_t>(u);
}

// Reorders the values of a Fortran-order array (first index fastest) to C order.
template <class T>
void to_c_order(const std::vector<std::int64_t>& shape, std::vector<T>& values) {
  if (shape.size() < 2) return;
  std::vector<T> c(values.size());
  const std::size_t nd = shape.size();
  std::vector<std::int64_t> idx(nd, 0);
  for (std::size_t f = 0; f < values.size(); ++f) {
    // idx is the multi-index of Fortran position f (first index fastest).
    std::int64_t ci = 0;
    for (std::size_t d = 0; d < nd; ++d) ci = ci * shape[d] + idx[d];
    c[static_cast<std::size_t>(ci)] = values[f];
    for (std::size_t d = 0; d < nd; ++d) {
      if (++idx[d] < shape[d]) break;
      idx[d] = 0;
    }
  }
  values.swap(c);
}

}  // namespace

io_error write_failure(const std::string& path) {
  return io_error(path + ": write failed (" + std::strerror(errno) + ")");
}

npy_array parse_npy(const std::string& bytes, const std::string& name) {
  if (bytes.size() < 10 || std::memcmp(bytes.data(), "\x93NUMPY", 6) != 0)
    throw io_error(name + ": not a .npy file");
  const auto major = static_cast<unsigned char>(bytes[6]);
  std::size_t header_len;
  std::size_t offset;
  if (major == 1) {
    header_len = static_cast<unsigned char>(bytes[8]) |
                 (static_cast<std::size_t>(static_cast<unsigned char>(bytes[9])) << 8);
    offset = 10;
  } else {
    if (bytes.size() < 12) throw io_error(name + ": truncated .npy header");
    header_len = 0;
    for (int i = 3; i >= 0; --i)
      header_len = (header_len << 8) | static_cast<unsigned char>(bytes[8 + i]);
    offset = 12;
  }
  if (bytes.size() < offset + header_len) throw io_error(name + ": truncated .npy header");
  const std::string header = bytes.substr(offset, header_len);
  offset += header_len;

  npy_array a;
  std::string descr = header_value(header, "descr", name);
  if (descr.size() < 2 || descr[0] != '\'') throw io_error(name + ": malformed .npy dtype");
  descr = descr.substr(1, descr.find('\'', 1) - 1);
  a.dtype = descr;
  const bool fortran = header_value(header, "fortran_order", name).rfind("True", 0) == 0;
  a.shape = parse_shape(header_value(header, "shape", name), name);

  if (descr.size() < 3) throw io_error(name + ": unsupported .npy dtype '" + descr + "'");
  const char order = descr[0];
  const char kind = descr[1];
  int size = 0;
  try {
    size = std::stoi(descr.substr(2));
  } catch (const std::logic_error&) {
    throw io_error(name + ": unsupported .npy dtype '" + descr + "'");
  }
  const bool floating = kind == 'f' && (size == 4 || size == 8);
  if (!floating && ((kind != 'i' && kind != 'u' && kind != 'b') ||
                    (size != 1 && size != 2 && size != 4 && size != 8)))
    throw io_error(name + ": unsupported .npy dtype '" + descr +
                   "' (integers, booleans, float32 or float64 only)");
  const bool big_endian = order == '>';

  std::int64_t count = 1;
  for (const auto d : a.shape) {
    if (d != 0 && count > (std::int64_t{1} << 40) / d) throw io_error(name + ": array too large");
    count *= d;
  }
  if (bytes.size() - offset < static_cast<std::size_t>(count) * static_cast<std::size_t>(size))
    throw io_error(name + ": .npy data is shorter than its shape says");
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data()) + offset;
  if (floating) {
    a.floating_values.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
      const auto bits =
          static_cast<std::uint64_t>(read_value(data + i * size, 'u', size, big_endian));
      a.floating_values[static_cast<std::size_t>(i)] =
          size == 4 ? static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)))
                    : std::bit_cast<double>(bits);
    }
    if (fortran) to_c_order(a.shape, a.floating_values);
  } else {
    a.values.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i)
      a.values[static_cast<std::size_t>(i)] = read_value(data + i * size, kind, size, big_endian);
    if (fortran) to_c_order(a.shape, a.values);
  }
  return a;
}

npy_array read_npy(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw io_error(path + ": cannot open for reading");
  std::ostringstream s;
  s << in.rdbuf();
  return parse_npy(s.str(), path);
}

std::string npy_int32_header(const std::vector<std::int64_t>& shape, std::size_t at_least) {
  std::string dims;
  for (const auto d : shape) dims += std::to_string(d) + ", ";
  if (shape.size() > 1)
    dims.erase(dims.size() - 2);  // "(3,)" keeps its comma
  else if (!shape.empty())
    dims.erase(dims.size() - 1);
  std::string header = "{'descr': '<i4', 'fortran_order': False, 'shape': (" + dims + "), }";
  // The preamble (magic, version, length) and the header end on a multiple of 64.
  std::size_t total = 10 + header.size() + 1;
  total += (64 - total % 64) % 64;
  while (total < at_least) total += 64;
  header.append(total - 10 - header.size() - 1, ' ');
  header += '\n';
  std::string out("\x93NUMPY\x01\x00", 8);
  out += static_cast<char>(header.size() & 0xFF);
  out += static_cast<char>((header.size() >> 8) & 0xFF);
  return out + header;
}

std::string format_npy_int32(const std::vector<std::int64_t>& shape, const std::int32_t* data) {
  std::int64_t count = 1;
  for (const auto d : shape) count *= d;
  std::string out = npy_int32_header(shape, 0);
  const std::size_t start = out.size();
  out.resize(start + static_cast<std::size_t>(count) * 4);
  for (std::int64_t i = 0; i < count; ++i) {
    const auto u = static_cast<std::uint32_t>(data[i]);
    for (int b = 0; b < 4; ++b)
      out[start + static_cast<std::size_t>(i) * 4 + static_cast<std::size_t>(b)] =
          static_cast<char>((u >> (8 * b)) & 0xFF);
  }
  return out;
}

void write_npy_int32(const std::string& path, const std::vector<std::int64_t>& shape,
                     const std::int32_t* data) {
  const std::string bytes = format_npy_int32(shape, data);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw write_failure(path);
  const bool written =
      std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() && std::fflush(file) == 0;
  const int problem = errno;
  if (std::fclose(file) != 0 && written) throw write_failure(path);
  errno = problem;
  if (!written) throw write_failure(path);
}

npy_int32_stream::npy_int32_stream(const std::string& path, std::vector<std::int64_t> item_shape)
    : path_(path), item_shape_(std::move(item_shape)) {
  item_values_ = 1;
  for (const auto d : item_shape_) item_values_ *= static_cast<std::size_t>(d);
  file_ = std::fopen(path.c_str(), "wb");
  if (file_ == nullptr) fail();
  // Room for any item count, so that finish() rewrites the header in place.
  std::vector<std::int64_t> largest = item_shape_;
  largest.insert(largest.begin(), std::int64_t{1} << 62);
  header_size_ = npy_int32_header(largest, 0).size();
  std::vector<std::int64_t> empty = item_shape_;
  empty.insert(empty.begin(), 0);
  write(npy_int32_header(empty, header_size_));
}

npy_int32_stream::~npy_int32_stream() {
  if (file_ != nullptr) std::fclose(file_);
}

void npy_int32_stream::fail() { throw write_failure(path_); }

void npy_int32_stream::write(const std::string& bytes) {
  if (std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) fail();
}

void npy_int32_stream::append(const std::int32_t* item) {
  if constexpr (std::endian::native == std::endian::little) {
    // The file's byte order is the memory's: write the values as they lie.
    const std::size_t bytes = item_values_ * sizeof(std::int32_t);
    if (std::fwrite(item, 1, bytes, file_) != bytes) fail();
    ++count_;
    return;
  }
  buffer_.resize(item_values_ * 4);
  for (std::size_t i = 0; i < item_values_; ++i) {
    const auto u = static_cast<std::uint32_t>(item[i]);
    for (std::size_t b = 0; b < 4; ++b)
      buffer_[4 * i + b] = static_cast<char>((u >> (8 * b)) & 0xFF);
  }
  write(buffer_);
  ++count_;
}

void npy_int32_stream::finish() {
  std::vector<std::int64_t> shape = item_shape_;
  shape.insert(shape.begin(), count_);
  if (std::fseek(file_, 0, SEEK_SET) != 0) fail();
  write(npy_int32_header(shape, header_size_));
  std::FILE* file = file_;
  file_ = nullptr;
  const bool flushed = std::fflush(file) == 0 && std::ferror(file) == 0;
  const int problem = errno;
  if (std::fclose(file) != 0 || !flushed) {
    if (flushed) errno = problem;
    fail();
  }
}

}  // namespace splitmerge::io
