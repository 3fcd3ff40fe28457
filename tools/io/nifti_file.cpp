#include "nifti_file.hpp"

#include <fcntl.h>
#include <nifti1_io.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>

#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

struct nifti_deleter {
  void operator()(nifti_image* nim) const { nifti_image_free(nim); }
};
using nifti_handle = std::unique_ptr<nifti_image, nifti_deleter>;

// libniftiio prints some of its errors whatever its debug level; the program
// words the problem itself, in one line, so the library's lines are muted.
class quiet_standard_error {
 public:
  quiet_standard_error() {
    std::fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    const int null = ::open("/dev/null", O_WRONLY);
    if (saved_ >= 0 && null >= 0) ::dup2(null, STDERR_FILENO);
    if (null >= 0) ::close(null);
  }
  quiet_standard_error(const quiet_standard_error&) = delete;
  quiet_standard_error& operator=(const quiet_standard_error&) = delete;
  ~quiet_standard_error() {
    std::fflush(stderr);
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
  }

 private:
  int saved_ = -1;
};

nifti_handle read_header(const std::string& path) {
  nifti_set_debug_level(0);
  const quiet_standard_error quiet;
  return nifti_handle(nifti_image_read(path.c_str(), 0));
}

template <class T>
void convert(const unsigned char* bytes, std::vector<double>& out) {
  for (std::size_t i = 0; i < out.size(); ++i) {
    T v;
    std::memcpy(&v, bytes + i * sizeof(T), sizeof(T));
    out[i] = static_cast<double>(v);
  }
}

// False for data types that are not one grey value per voxel.
bool convert_voxels(int datatype, const unsigned char* bytes, std::vector<double>& out) {
  switch (datatype) {
    case DT_UINT8:
      convert<std::uint8_t>(bytes, out);
      return true;
    case DT_INT8:
      convert<std::int8_t>(bytes, out);
      return true;
    case DT_UINT16:
      convert<std::uint16_t>(bytes, out);
      return true;
    case DT_INT16:
      convert<std::int16_t>(bytes, out);
      return true;
    case DT_UINT32:
      convert<std::uint32_t>(bytes, out);
      return true;
    case DT_INT32:
      convert<std::int32_t>(bytes, out);
      return true;
    case DT_UINT64:
      convert<std::uint64_t>(bytes, out);
      return true;
    case DT_INT64:
      convert<std::int64_t>(bytes, out);
      return true;
    case DT_FLOAT32:
      convert<float>(bytes, out);
      return true;
    case DT_FLOAT64:
      convert<double>(bytes, out);
      return true;
    default:
      return false;
  }
}

// The stored voxel bytes, exactly: libniftiio would fill a short file with
// zeros and replace NaN by 0, so the data are read here.
std::vector<unsigned char> read_voxel_bytes(const nifti_image& nim, const std::string& path,
                                            std::size_t bytes) {
  const bool compressed = nifti_is_gzfile(nim.iname) != 0;
  std::error_code error;
  const auto file_size = std::filesystem::file_size(nim.iname, error);
  if (error) throw io_error(path + ": cannot read NIfTI voxels (" + error.message() + ")");
  const auto offset = static_cast<std::uint64_t>(std::max(nim.iname_offset, 0));
  if (!compressed && file_size < offset + bytes)
    throw io_error(path + ": truncated NIfTI file: the header declares " + std::to_string(bytes) +
                   " bytes of voxels from byte " + std::to_string(offset) + ", the file has " +
                   std::to_string(file_size) + " bytes");
  if (compressed) check_declared_size(path, bytes, file_size);
  znzFile file = znzopen(nim.iname, "rb", compressed ? 1 : 0);
  if (znz_isnull(file)) throw io_error(path + ": cannot open the NIfTI voxels");
  std::vector<unsigned char> data;
  bool complete = znzseek(file, static_cast<znz_off_t>(offset), SEEK_SET) >= 0;
  // Read in pieces, so that a file shorter than its header says costs no
  // more memory than it holds.
  constexpr std::size_t piece = std::size_t{1} << 20;
  while (complete && data.size() < bytes) {
    const std::size_t want = std::min(piece, bytes - data.size());
    const std::size_t at = data.size();
    data.resize(at + want);
    const std::size_t got = znzread(data.data() + at, 1, want, file);
    complete = got == want;
  }
  znzclose(file);
  if (!complete)
    throw io_error(path + ": truncated NIfTI file: the header declares " + std::to_string(bytes) +
                   " bytes of voxels, the file holds fewer");
  return data;
}

}  // namespace

grey_image read_nifti(const std::string& path) {
  const nifti_handle nim = read_header(path);
  if (!nim) throw io_error(path + ": cannot read NIfTI volume (not a NIfTI-1 file, or damaged)");
  for (int d = 4; d <= nim->dim[0] && d <= 7; ++d)
    if (nim->dim[d] > 1)
      throw io_error(path + ": has " + std::to_string(nim->dim[0]) +
                     " dimensions; only single 2-D or 3-D volumes are read");
  grey_image out;
  out.size_x = nim->nx;
  out.size_y = nim->ny;
  out.size_z = nim->nz;
  out.dimensions = out.size_z > 1 ? 3 : 2;
  if (out.size_x < 1 || out.size_y < 1 || out.size_z < 1 ||
      out.pixel_count() != static_cast<std::int64_t>(nim->nvox))
    throw io_error(path + ": inconsistent NIfTI dimensions");
  check_pixel_count(path, out.size_x, out.size_y, out.size_z);
  std::vector<double> probe(0);
  if (!convert_voxels(nim->datatype, nullptr, probe) || nim->nbyper < 1)
    throw io_error(path + ": NIfTI data type " + nifti_datatype_string(nim->datatype) +
                   " is not a grey value (integer or float voxels only)");
  const std::size_t bytes = nim->nvox * static_cast<std::size_t>(nim->nbyper);
  std::vector<unsigned char> data = read_voxel_bytes(*nim, path, bytes);
  if (nim->byteorder != nifti_short_order()) nifti_swap_Nbytes(nim->nvox, nim->nbyper, data.data());
  out.values.resize(nim->nvox);
  convert_voxels(nim->datatype, data.data(), out.values);
  const nifti_1_header header = nifti_convert_nim2nhdr(nim.get());
  out.nifti_header.assign(reinterpret_cast<const char*>(&header), sizeof header);
  const double slope = nim->scl_slope, intercept = nim->scl_inter;
  if (slope != 0.0 && (slope != 1.0 || intercept != 0.0))
    for (auto& v : out.values) v = v * slope + intercept;
  return out;
}

namespace {

// The header of the labels: the input's, or a fresh one.
nifti_1_header labels_header(const std::string& input_header, std::int64_t size_x,
                             std::int64_t size_y, std::int64_t size_z) {
  nifti_1_header h{};
  if (input_header.size() == sizeof h) {
    std::memcpy(&h, input_header.data(), sizeof h);
  } else {
    const int dims[8] = {3, 1, 1, 1, 1, 1, 1, 1};
    nifti_1_header* fresh = nifti_make_new_header(dims, DT_INT32);
    if (fresh == nullptr) throw std::bad_alloc();
    h = *fresh;
    std::free(fresh);
  }
  h.dim[0] = 3;
  h.dim[1] = static_cast<short>(size_x);
  h.dim[2] = static_cast<short>(size_y);
  h.dim[3] = static_cast<short>(size_z);
  for (int d = 4; d < 8; ++d) h.dim[d] = 1;
  h.datatype = DT_INT32;
  h.bitpix = 32;
  h.scl_slope = 0.0f;  // no scaling: the values are the labels
  h.scl_inter = 0.0f;
  h.cal_min = h.cal_max = 0.0f;
  h.intent_code = NIFTI_INTENT_LABEL;
  h.intent_p1 = h.intent_p2 = h.intent_p3 = 0.0f;
  std::memset(h.intent_name, 0, sizeof h.intent_name);
  h.vox_offset = 352.0f;  // the header, then four bytes saying "no extensions"
  std::memcpy(h.magic, "n+1\0", 4);
  h.sizeof_hdr = 348;
  return h;
}

// Moves the first voxel to voxel (x0, y0, z0) of the original grid, in both
// the quaternion (qform) and the matrix (sform) orientation.
void move_origin(nifti_1_header& h, std::int64_t x0, std::int64_t y0, std::int64_t z0) {
  if (x0 == 0 && y0 == 0 && z0 == 0) return;
  const double v[3] = {static_cast<double>(x0), static_cast<double>(y0), static_cast<double>(z0)};
  if (h.sform_code > 0) {
    for (float* row : {h.srow_x, h.srow_y, h.srow_z})
      row[3] = static_cast<float>(row[3] + row[0] * v[0] + row[1] * v[1] + row[2] * v[2]);
  }
  if (h.qform_code > 0) {
    const float qfac = h.pixdim[0] < 0 ? -1.0f : 1.0f;
    const mat44 m =
        nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x, h.qoffset_y,
                               h.qoffset_z, h.pixdim[1], h.pixdim[2], h.pixdim[3], qfac);
    float* offsets[3] = {&h.qoffset_x, &h.qoffset_y, &h.qoffset_z};
    for (int r = 0; r < 3; ++r)
      *offsets[r] =
          static_cast<float>(m.m[r][3] + m.m[r][0] * v[0] + m.m[r][1] * v[1] + m.m[r][2] * v[2]);
  }
}

}  // namespace

picture_layout nifti_picture_layout(const std::string& header) {
  picture_layout layout;
  nifti_1_header h{};
  if (header.size() != sizeof h) return layout;
  std::memcpy(&h, header.data(), sizeof h);
  mat44 m{};
  if (h.sform_code > 0) {
    for (int c = 0; c < 4; ++c) {
      m.m[0][c] = h.srow_x[c];
      m.m[1][c] = h.srow_y[c];
      m.m[2][c] = h.srow_z[c];
      m.m[3][c] = c == 3 ? 1.0f : 0.0f;
    }
  } else if (h.qform_code > 0) {
    m = nifti_quatern_to_mat44(h.quatern_b, h.quatern_c, h.quatern_d, h.qoffset_x, h.qoffset_y,
                               h.qoffset_z, h.pixdim[1], h.pixdim[2], h.pixdim[3],
                               h.pixdim[0] < 0 ? -1.0f : 1.0f);
  } else {
    return layout;
  }
  int i = 0, j = 0, k = 0;
  nifti_mat44_to_orientation(m, &i, &j, &k);
  // The anatomical axis of an orientation code: 0 left-right, 1 anterior-
  // posterior, 2 inferior-superior; and whether the index grows towards the
  // patient's right, anterior or superior side.
  const auto axis = [](int code) { return (code - 1) / 2; };
  const auto grows_to_right_anterior_superior = [](int code) {
    return code == NIFTI_L2R || code == NIFTI_P2A || code == NIFTI_I2S;
  };
  if (i == 0 || j == 0 || axis(i) == axis(j)) return layout;
  // Columns run along left-right when it is in the slice, else along
  // anterior-posterior; rows along the other axis.
  const bool x_horizontal = axis(i) == 0 || (axis(j) != 0 && axis(i) == 1);
  const int horizontal = x_horizontal ? i : j, vertical = x_horizontal ? j : i;
  layout.transpose = !x_horizontal;
  // Column 0 is the patient's right (or anterior); row 0 anterior (or superior).
  layout.flip_columns = grows_to_right_anterior_superior(horizontal);
  layout.flip_rows = grows_to_right_anterior_superior(vertical);
  static const char* const side_names[] = {"",         "left",     "right",   "posterior",
                                           "anterior", "inferior", "superior"};
  // The side at index 0 is the one the code starts from (its own number in
  // side_names); flipped, the opposite one.
  const auto first_side = [](int code, bool flipped) {
    const int opposite = code % 2 == 1 ? code + 1 : code - 1;
    return flipped ? opposite : code;
  };
  const int left_side = first_side(horizontal, layout.flip_columns);
  const int top_side = first_side(vertical, layout.flip_rows);
  layout.description = std::string("in the scan's orientation (radiological: ") +
                       side_names[left_side] + " on the left, " + side_names[top_side] +
                       " at the top)";
  return layout;
}

void write_nifti_labels(const std::string& path, const std::string& input_header,
                        std::int64_t size_x, std::int64_t size_y, std::int64_t size_z,
                        std::int64_t x0, std::int64_t y0, std::int64_t z0,
                        const std::int32_t* labels) {
  if (size_x > 32767 || size_y > 32767 || size_z > 32767)
    throw io_error(path + ": NIfTI-1 cannot hold more than 32767 pixels along an axis");
  nifti_1_header h = labels_header(input_header, size_x, size_y, size_z);
  move_origin(h, x0, y0, z0);
  const bool compressed = path.size() > 3 && path.compare(path.size() - 3, 3, ".gz") == 0;
  znzFile file = znzopen(path.c_str(), "wb", compressed ? 1 : 0);
  if (znz_isnull(file))
    throw io_error(path + ": cannot open for writing (" + std::strerror(errno) + ")");
  const char no_extensions[4] = {0, 0, 0, 0};
  const std::size_t bytes = static_cast<std::size_t>(size_x * size_y * size_z) * 4;
  bool written = znzwrite(&h, 1, sizeof h, file) == sizeof h &&
                 znzwrite(no_extensions, 1, 4, file) == 4 &&
                 znzwrite(labels, 1, bytes, file) == bytes;
  const int problem = errno;
  const bool closed = Xznzclose(&file) == 0;
  if (!written || !closed)
    throw io_error(path + ": write failed (" + std::strerror(written ? errno : problem) + ")");
}

}  // namespace splitmerge::io
