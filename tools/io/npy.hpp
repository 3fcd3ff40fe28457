// Reading and writing NumPy .npy arrays of integers.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace splitmerge::io {

struct io_error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// An integer array converted to 64-bit values, in C order (last index fastest).
struct npy_array {
  std::vector<std::int64_t> shape;
  std::vector<std::int64_t> values;
  std::string dtype;  // as the file states it, e.g. "<i4"
};

// Reads integer, unsigned and boolean dtypes of any byte order, C or Fortran
// order (Fortran arrays are reordered to C order). Throws io_error.
npy_array read_npy(const std::string& path);
npy_array parse_npy(const std::string& bytes, const std::string& name = "array");

// Writes a little-endian int32 array in C order.
void write_npy_int32(const std::string& path, const std::vector<std::int64_t>& shape,
                     const std::int32_t* data);
std::string format_npy_int32(const std::vector<std::int64_t>& shape, const std::int32_t* data);

}  // namespace splitmerge::io
