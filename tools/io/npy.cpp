#include "npy.hpp"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
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

namespace {

// The size of the preamble and header at the start of `bytes`, from the
// preamble alone.
std::size_t npy_header_end(const std::string& bytes, const std::string& name) {
  if (bytes.size() < 10 || std::memcmp(bytes.data(), "\x93NUMPY", 6) != 0)
    throw io_error(name + ": not a .npy file");
  const auto major = static_cast<unsigned char>(bytes[6]);
  if (major == 1)
    return 10 + (static_cast<unsigned char>(bytes[8]) |
                 (static_cast<std::size_t>(static_cast<unsigned char>(bytes[9])) << 8));
  if (bytes.size() < 12) throw io_error(name + ": truncated .npy header");
  std::size_t header_len = 0;
  for (int i = 3; i >= 0; --i)
    header_len = (header_len << 8) | static_cast<unsigned char>(bytes[8 + i]);
  return 12 + header_len;
}

npy_header parse_npy_header(const std::string& bytes, const std::string& name) {
  npy_header h;
  h.data_offset = npy_header_end(bytes, name);
  if (bytes.size() < h.data_offset) throw io_error(name + ": truncated .npy header");
  const std::size_t start = static_cast<unsigned char>(bytes[6]) == 1 ? 10 : 12;
  const std::string header = bytes.substr(start, h.data_offset - start);

  std::string descr = header_value(header, "descr", name);
  if (descr.size() < 2 || descr[0] != '\'') throw io_error(name + ": malformed .npy dtype");
  descr = descr.substr(1, descr.find('\'', 1) - 1);
  h.dtype = descr;
  h.fortran_order = header_value(header, "fortran_order", name).rfind("True", 0) == 0;
  h.shape = parse_shape(header_value(header, "shape", name), name);

  if (descr.size() < 3) throw io_error(name + ": unsupported .npy dtype '" + descr + "'");
  h.kind = descr[1];
  try {
    h.item_bytes = std::stoi(descr.substr(2));
  } catch (const std::logic_error&) {
    throw io_error(name + ": unsupported .npy dtype '" + descr + "'");
  }
  const int size = h.item_bytes;
  const bool floating = h.kind == 'f' && (size == 4 || size == 8);
  if (!floating && ((h.kind != 'i' && h.kind != 'u' && h.kind != 'b') ||
                    (size != 1 && size != 2 && size != 4 && size != 8)))
    throw io_error(name + ": unsupported .npy dtype '" + descr +
                   "' (integers, booleans, float32 or float64 only)");
  h.big_endian = descr[0] == '>';

  h.count = 1;
  for (const auto d : h.shape) {
    if (d != 0 && h.count > (std::int64_t{1} << 40) / d) throw io_error(name + ": array too large");
    h.count *= d;
  }
  return h;
}

}  // namespace

npy_array parse_npy(const std::string& bytes, const std::string& name) {
  const npy_header h = parse_npy_header(bytes, name);
  npy_array a;
  a.dtype = h.dtype;
  a.shape = h.shape;
  const std::int64_t count = h.count;
  const int size = h.item_bytes;
  const std::size_t offset = h.data_offset;
  if (bytes.size() - offset < static_cast<std::size_t>(count) * static_cast<std::size_t>(size))
    throw io_error(name + ": .npy data is shorter than its shape says");
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data()) + offset;
  if (a.is_floating()) {
    a.floating_values.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i) {
      const auto bits =
          static_cast<std::uint64_t>(read_value(data + i * size, 'u', size, h.big_endian));
      a.floating_values[static_cast<std::size_t>(i)] =
          size == 4 ? static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)))
                    : std::bit_cast<double>(bits);
    }
    if (h.fortran_order) to_c_order(a.shape, a.floating_values);
  } else {
    a.values.resize(static_cast<std::size_t>(count));
    for (std::int64_t i = 0; i < count; ++i)
      a.values[static_cast<std::size_t>(i)] =
          read_value(data + i * size, h.kind, size, h.big_endian);
    if (h.fortran_order) to_c_order(a.shape, a.values);
  }
  return a;
}

npy_header read_npy_header(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw io_error(path + ": cannot open for reading");
  std::string bytes(12, '\0');
  in.read(bytes.data(), 12);
  bytes.resize(static_cast<std::size_t>(in.gcount()));
  const std::size_t end = npy_header_end(bytes, path);
  if (end > bytes.size()) {
    const std::size_t have = bytes.size();
    std::error_code error;
    if (end > std::filesystem::file_size(path, error) || error)
      throw io_error(path + ": truncated .npy header");
    bytes.resize(end);
    in.read(bytes.data() + have, static_cast<std::streamsize>(end - have));
    if (static_cast<std::size_t>(in.gcount()) != end - have)
      throw io_error(path + ": truncated .npy header");
  }
  return parse_npy_header(bytes, path);
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

void write_npy_int32(const std::string& path, const std::vector<std::int64_t>& shape,
                     const std::int32_t* data) {
  // Written as the values lie (in pieces on a big-endian machine): the
  // labels are the largest array the program holds, so no copy is made.
  std::int64_t count = 1;
  for (const auto d : shape) count *= d;
  const std::string header = npy_int32_header(shape, 0);
  std::FILE* file = std::fopen(path.c_str(), "wb");
  if (file == nullptr) throw write_failure(path);
  bool written = std::fwrite(header.data(), 1, header.size(), file) == header.size();
  constexpr std::int64_t piece = std::int64_t{1} << 20;
  for (std::int64_t at = 0; written && at < count; at += piece) {
    const std::int64_t n = std::min(piece, count - at);
    if constexpr (std::endian::native == std::endian::little) {
      written = std::fwrite(data + at, 4, static_cast<std::size_t>(n), file) ==
                static_cast<std::size_t>(n);
    } else {
      std::string bytes(static_cast<std::size_t>(n) * 4, '\0');
      for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(
            (static_cast<std::uint32_t>(data[at + i / 4]) >> (8 * (i % 4))) & 0xFF);
      written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    }
  }
  written = written && std::fflush(file) == 0;
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
