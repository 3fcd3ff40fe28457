// Reading and writing NumPy .npy arrays of integers.
#pragma once

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace splitmerge::io {

struct io_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// An image whose pixels and labels alone exceed the memory budget.
struct memory_error : io_error {
  using io_error::io_error;
};

// "PATH: write failed (REASON)", the reason from errno: every writer's message.
io_error write_failure(const std::string& path);

// An array in C order (last index fastest): integers converted to 64-bit
// values, floating-point numbers to doubles.
struct npy_array {
  std::vector<std::int64_t> shape;
  std::vector<std::int64_t> values;     // integer, unsigned and boolean dtypes
  std::vector<double> floating_values;  // float32 and float64 dtypes
  std::string dtype;                    // as the file states it, e.g. "<i4"
  bool is_floating() const { return dtype.size() > 1 && dtype[1] == 'f'; }
};

// Reads integer, unsigned, boolean and float32/64 dtypes of any byte order, C
// or Fortran order (Fortran arrays are reordered to C order). Throws io_error.
npy_array read_npy(const std::string& path);
npy_array parse_npy(const std::string& bytes, const std::string& name = "array");

// What a .npy header says of the data after it.
struct npy_header {
  std::vector<std::int64_t> shape;
  std::string dtype;  // as the file states it, e.g. "<i4"
  char kind = 'i';    // 'i', 'u', 'b' or 'f'
  int item_bytes = 1;
  bool big_endian = false;
  bool fortran_order = false;
  std::size_t data_offset = 0;  // where the data start in the file
  std::int64_t count = 0;       // elements
};

// The header of the file, checked (a supported dtype, a sane shape); the data
// are not read. Throws io_error.
npy_header read_npy_header(const std::string& path);

// Writes a little-endian int32 array in C order, straight from `data`.
void write_npy_int32(const std::string& path, const std::vector<std::int64_t>& shape,
                     const std::int32_t* data);

// The preamble and header of a little-endian int32 C-order array, padded to
// at least `at_least` bytes (and a multiple of 64).
std::string npy_int32_header(const std::vector<std::int64_t>& shape, std::size_t at_least);

// Writes an int32 array item by item along its first dimension, so that only
// the item being appended is held: shape (count,) + item_shape, with the
// count written into the header by finish(). Throws io_error on any failed
// write; the file is complete only after finish().
class npy_int32_stream {
 public:
  npy_int32_stream(const std::string& path, std::vector<std::int64_t> item_shape);
  npy_int32_stream(const npy_int32_stream&) = delete;
  npy_int32_stream& operator=(const npy_int32_stream&) = delete;
  ~npy_int32_stream();

  void append(const std::int32_t* item);
  std::int64_t count() const { return count_; }
  void finish();

 private:
  [[noreturn]] void fail();
  void write(const std::string& bytes);

  std::string path_;
  std::vector<std::int64_t> item_shape_;
  std::size_t item_values_ = 0;
  std::size_t header_size_ = 0;
  std::int64_t count_ = 0;
  std::string buffer_;
  std::FILE* file_ = nullptr;
};

}  // namespace splitmerge::io
