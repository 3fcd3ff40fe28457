#include "nifti_file.hpp"

#include <nifti1_io.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <type_traits>

#include "npy.hpp"
#include "size_limits.hpp"

namespace splitmerge::io {

namespace {

// Bytes per voxel of the data types that are one grey value per voxel; 0 for others.
int voxel_bytes(int datatype) {
  switch (datatype) {
    case DT_UINT8:
    case DT_INT8:
      return 1;
    case DT_UINT16:
    case DT_INT16:
      return 2;
    case DT_UINT32:
    case DT_INT32:
    case DT_FLOAT32:
      return 4;
    case DT_UINT64:
    case DT_INT64:
    case DT_FLOAT64:
      return 8;
    default:
      return 0;
  }
}

// The pixel type of a data type's voxels (one of those voxel_bytes knows).
pixel_type voxel_type(int datatype) {
  switch (datatype) {
    case DT_UINT8:
      return pixel_type::uint8;
    case DT_INT8:
      return pixel_type::int8;
    case DT_UINT16:
      return pixel_type::uint16;
    case DT_INT16:
      return pixel_type::int16;
    case DT_UINT32:
      return pixel_type::uint32;
    case DT_INT32:
      return pixel_type::int32;
    case DT_UINT64:
      return pixel_type::uint64;
    case DT_INT64:
      return pixel_type::int64;
    case DT_FLOAT32:
      return pixel_type::float32;
    default:
      return pixel_type::float64;
  }
}

// The voxels times slope plus intercept, as Out (float or double).
template <class In, class Out>
void scale_voxels(const std::byte* from, std::byte* to, std::size_t count, double slope,
                  double intercept) {
  for (std::size_t i = 0; i < count; ++i) {
    In v;
    std::memcpy(&v, from + i * sizeof(In), sizeof v);
    const auto scaled = static_cast<Out>(static_cast<double>(v) * slope + intercept);
    std::memcpy(to + i * sizeof(Out), &scaled, sizeof scaled);
  }
}

struct znz_closer {
  void operator()(znzFile file) const { Xznzclose(&file); }
};
using znz_handle = std::unique_ptr<std::remove_pointer_t<znzFile>, znz_closer>;

// What the reader needs of a NIfTI-1 or NIfTI-2 header, in native byte order.
struct nifti_layout {
  int version = 1;
  std::int64_t header_bytes = 348;
  std::int64_t dim[8] = {};
  int datatype = 0, bitpix = 0;
  double vox_offset = 0, slope = 0, intercept = 0;
  bool swapped = false;        // the file's byte order is not the machine's
  nifti_1_header as_nifti1{};  // for the outputs: orientation, voxel size, units
};

// A field of a NIfTI-2 header at its byte offset.
template <class T>
T field(const unsigned char* header, std::size_t offset, bool swapped) {
  unsigned char bytes[sizeof(T)];
  std::memcpy(bytes, header + offset, sizeof(T));
  if (swapped) std::reverse(bytes, bytes + sizeof(T));
  T value;
  std::memcpy(&value, bytes, sizeof(T));
  return value;
}

nifti_layout nifti1_layout(const unsigned char* bytes, bool swapped, const std::string& path) {
  nifti_layout l;
  l.swapped = swapped;
  std::memcpy(&l.as_nifti1, bytes, sizeof l.as_nifti1);
  nifti_1_header& h = l.as_nifti1;
  if (swapped) swap_nifti_header(&h, 1);
  if (std::memcmp(h.magic, "ni1", 4) == 0)
    throw io_error(path + ": the header of a .hdr/.img pair; only single-file NIfTI is read");
  if (std::memcmp(h.magic, "n+1", 4) != 0)
    throw io_error(path + ": not a NIfTI-1 file (its magic is not n+1)");
  for (int d = 0; d < 8; ++d) l.dim[d] = h.dim[d];
  l.datatype = h.datatype;
  l.bitpix = h.bitpix;
  l.vox_offset = h.vox_offset;
  l.slope = h.scl_slope;
  l.intercept = h.scl_inter;
  return l;
}

// NIfTI-2: the same fields, wider, at other offsets; outputs get them as NIfTI-1.
nifti_layout nifti2_layout(const unsigned char* b, bool s, const std::string& path) {
  if (std::memcmp(b + 4, "n+2\0\r\n\032\n", 8) != 0)
    throw io_error(path + ": not a single-file NIfTI-2 file (its magic is not n+2)");
  nifti_layout l;
  l.swapped = s;
  l.version = 2;
  l.header_bytes = 540;
  l.datatype = field<std::int16_t>(b, 12, s);
  l.bitpix = field<std::int16_t>(b, 14, s);
  for (int d = 0; d < 8; ++d) l.dim[d] = field<std::int64_t>(b, 16 + 8 * d, s);
  l.vox_offset = static_cast<double>(field<std::int64_t>(b, 168, s));
  l.slope = field<double>(b, 176, s);
  l.intercept = field<double>(b, 184, s);
  nifti_1_header& h = l.as_nifti1;
  h.sizeof_hdr = 348;
  for (int d = 0; d < 8; ++d) h.pixdim[d] = static_cast<float>(field<double>(b, 104 + 8 * d, s));
  std::memcpy(h.descrip, b + 240, sizeof h.descrip - 1);
  h.qform_code = static_cast<short>(field<std::int32_t>(b, 344, s));
  h.sform_code = static_cast<short>(field<std::int32_t>(b, 348, s));
  float* quaternion[] = {&h.quatern_b, &h.quatern_c, &h.quatern_d,
                         &h.qoffset_x, &h.qoffset_y, &h.qoffset_z};
  for (int i = 0; i < 6; ++i) *quaternion[i] = static_cast<float>(field<double>(b, 352 + 8 * i, s));
  float* rows[] = {h.srow_x, h.srow_y, h.srow_z};
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 4; ++c)
      rows[r][c] = static_cast<float>(field<double>(b, 400 + 32 * r + 8 * c, s));
  h.xyzt_units = static_cast<char>(field<std::int32_t>(b, 500, s));
  std::memcpy(h.magic, "n+1", 4);
  return l;
}

nifti_layout read_layout(znzFile file, const std::string& path) {
  unsigned char bytes[540] = {};
  const auto got = znzread(bytes, 1, 348, file);
  if (got < 348) throw io_error(path + ": not a NIfTI file (shorter than a NIfTI-1 header)");
  std::int32_t size = 0;
  std::memcpy(&size, bytes, 4);
  const std::int32_t swapped_size =
      static_cast<std::int32_t>(__builtin_bswap32(static_cast<std::uint32_t>(size)));
  if (size == 348 || swapped_size == 348) return nifti1_layout(bytes, size != 348, path);
  if (size != 540 && swapped_size != 540)
    throw io_error(path + ": not a NIfTI-1 or NIfTI-2 file (header size " + std::to_string(size) +
                   ")");
  if (znzread(bytes + 348, 1, 540 - 348, file) != 540 - 348)
    throw io_error(path + ": truncated NIfTI-2 header");
  return nifti2_layout(bytes, size != 540, path);
}

// Reads exactly `bytes` bytes into `into`, in pieces, so that a file shorter
// than its header says touches no more memory than it holds.
void read_exactly(znzFile file, std::byte* into, std::uint64_t bytes, const std::string& path) {
  constexpr std::size_t piece = std::size_t{1} << 20;
  for (std::uint64_t at = 0; at < bytes;) {
    const std::size_t want = std::min<std::uint64_t>(piece, bytes - at);
    if (znzread(into + at, 1, want, file) != want)
      throw io_error(path + ": truncated NIfTI file: the header declares " + std::to_string(bytes) +
                     " bytes of voxels, the file holds fewer");
    at += want;
  }
}

}  // namespace

grey_image read_nifti(const std::string& path, const read_options& options) {
  const std::optional<std::int64_t> volume = options.volume;
  const bool compressed = nifti_is_gzfile(path.c_str()) != 0;
  std::error_code error;
  const std::uint64_t file_size = std::filesystem::file_size(path, error);
  if (error) throw io_error(path + ": cannot read NIfTI (" + error.message() + ")");
  const znz_handle file(znzopen(path.c_str(), "rb", compressed ? 1 : 0));
  if (znz_isnull(file.get())) throw io_error(path + ": cannot open the NIfTI file");
  const nifti_layout l = read_layout(file.get(), path);
  const std::string kind = l.version == 1 ? "NIfTI-1" : "NIfTI-2";

  const std::int64_t dims = l.dim[0];
  if (dims < 1 || dims > 7)
    throw io_error(path + ": damaged " + kind + " header (dim[0] " + std::to_string(dims) +
                   " is not 1 to 7)");
  std::int64_t size[8] = {0, 1, 1, 1, 1, 1, 1, 1};
  for (int d = 1; d <= dims; ++d) {
    if (l.dim[d] < 1)
      throw io_error(path + ": damaged " + kind + " header (dim[" + std::to_string(d) + "] is " +
                     std::to_string(l.dim[d]) + ")");
    size[d] = l.dim[d];
  }
  for (int d = 5; d <= 7; ++d)
    if (size[d] > 1)
      throw io_error(path + ": has " + std::to_string(dims) +
                     " dimensions; 2-D and 3-D volumes are read, and one volume of a 4-D file");
  const std::int64_t volumes = size[4];
  if (volumes > 1 && !volume)
    throw io_error(path + ": holds " + std::to_string(volumes) +
                   " volumes (4-D); pick one with --volume K (0 to " + std::to_string(volumes - 1) +
                   ")");
  const std::int64_t picked = volume.value_or(0);
  if (picked < 0 || picked >= volumes)
    throw io_error(path + ": --volume " + std::to_string(picked) + " is not among its " +
                   std::to_string(volumes) + " volume" + (volumes == 1 ? "" : "s") + " (0 to " +
                   std::to_string(volumes - 1) + ")");
  const int bytes_per_voxel = voxel_bytes(l.datatype);
  if (bytes_per_voxel == 0)
    throw io_error(path + ": NIfTI data type " + nifti_datatype_string(l.datatype) +
                   " is not a grey value (integer or float voxels only)");
  if (l.bitpix != 8 * bytes_per_voxel)
    throw io_error(path + ": damaged " + kind + " header (bitpix " + std::to_string(l.bitpix) +
                   " for data type " + nifti_datatype_string(l.datatype) + ")");
  const pixel_type stored = voxel_type(l.datatype);
  check_declared_image(path, size[1], size[2], size[3], stored, options);
  // The voxels start after the header and its four extension bytes, at a
  // whole byte within the file.
  const std::int64_t first_offset = l.header_bytes + 4;
  if (!(l.vox_offset >= static_cast<double>(first_offset) &&
        l.vox_offset <= static_cast<double>(file_size) * (compressed ? 1100.0 : 1.0) &&
        l.vox_offset == std::floor(l.vox_offset)))
    throw io_error(path + ": damaged " + kind + " header: vox_offset " +
                   std::to_string(l.vox_offset) + " is not a byte from " +
                   std::to_string(first_offset) + " to the file's end");
  const auto offset = static_cast<std::uint64_t>(l.vox_offset);
  const std::uint64_t voxels = static_cast<std::uint64_t>(size[1] * size[2] * size[3]);
  const std::uint64_t volume_bytes = voxels * static_cast<std::uint64_t>(bytes_per_voxel);
  const std::uint64_t limit = compressed ? file_size * 1100 + 4096 : file_size;
  if (static_cast<std::uint64_t>(picked) > limit / volume_bytes ||
      offset + (static_cast<std::uint64_t>(picked) + 1) * volume_bytes > limit)
    throw io_error(path + ": truncated " + kind + " file: the header declares " +
                   std::to_string(volume_bytes) + " bytes of voxels per volume from byte " +
                   std::to_string(offset) + ", the file has " + std::to_string(file_size) +
                   " bytes" + (compressed ? " compressed" : ""));
  const std::uint64_t start = offset + static_cast<std::uint64_t>(picked) * volume_bytes;
  if (znzseek(file.get(), static_cast<znz_off_t>(start), SEEK_SET) < 0)
    throw io_error(path + ": truncated " + kind + " file: no voxels at byte " +
                   std::to_string(start));
  grey_image out;
  out.size_x = size[1];
  out.size_y = size[2];
  out.size_z = size[3];
  out.dimensions = out.size_z > 1 ? 3 : 2;
  out.type = stored;
  out.pixels = pixel_buffer(volume_bytes);
  read_exactly(file.get(), out.pixels.writable(), volume_bytes, path);
  if (l.swapped) nifti_swap_Nbytes(voxels, bytes_per_voxel, out.pixels.writable());
  out.nifti_header.assign(reinterpret_cast<const char*>(&l.as_nifti1), sizeof l.as_nifti1);
  // As libniftiio does: a zero or non-finite slope means no scaling. Scaled
  // values are floats: of 32 bits for voxels that have no more digits, else 64.
  const double slope = l.slope, intercept = l.intercept;
  if (std::isfinite(slope) && slope != 0.0 && std::isfinite(intercept) &&
      (slope != 1.0 || intercept != 0.0)) {
    const bool narrow = bytes_per_voxel <= 2 || stored == pixel_type::float32;
    out.type = narrow ? pixel_type::float32 : pixel_type::float64;
    pixel_buffer scaled = frontend::pixel_size(out.type) == frontend::pixel_size(stored)
                              ? out.pixels
                              : pixel_buffer(voxels * frontend::pixel_size(out.type));
    with_pixel_type(stored, [&](auto in) {
      const std::byte* from = out.pixels.data();
      std::byte* to = scaled.writable();
      if (narrow) {
        scale_voxels<decltype(in), float>(from, to, voxels, slope, intercept);
      } else {
        scale_voxels<decltype(in), double>(from, to, voxels, slope, intercept);
      }
    });
    out.pixels = std::move(scaled);
  }
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
                        const std::int32_t* labels, bool compressed) {
  if (size_x > 32767 || size_y > 32767 || size_z > 32767)
    throw io_error(path + ": NIfTI-1 cannot hold more than 32767 pixels along an axis");
  nifti_1_header h = labels_header(input_header, size_x, size_y, size_z);
  move_origin(h, x0, y0, z0);
  znzFile file = znzopen(path.c_str(), "wb", compressed ? 1 : 0);
  if (znz_isnull(file)) throw write_failure(path);
  const char no_extensions[4] = {0, 0, 0, 0};
  const std::size_t bytes = static_cast<std::size_t>(size_x * size_y * size_z) * 4;
  bool written = znzwrite(&h, 1, sizeof h, file) == sizeof h &&
                 znzwrite(no_extensions, 1, 4, file) == 4 &&
                 znzwrite(labels, 1, bytes, file) == bytes;
  const int problem = errno;
  if (Xznzclose(&file) != 0 && written) throw write_failure(path);
  errno = problem;
  if (!written) throw write_failure(path);
}

}  // namespace splitmerge::io
