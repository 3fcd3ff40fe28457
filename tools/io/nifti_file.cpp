#include "nifti_file.hpp"

#include <nifti1_io.h>

#include <cstring>
#include <memory>

#include "npy.hpp"

namespace splitmerge::io {

namespace {

struct nifti_deleter {
  void operator()(nifti_image* nim) const { nifti_image_free(nim); }
};

template <class T>
void convert(const void* data, std::vector<double>& out) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (std::size_t i = 0; i < out.size(); ++i) {
    T v;
    std::memcpy(&v, bytes + i * sizeof(T), sizeof(T));
    out[i] = static_cast<double>(v);
  }
}

// False for data types that are not one grey value per voxel.
bool convert_voxels(const nifti_image& nim, std::vector<double>& out) {
  switch (nim.datatype) {
    case DT_UINT8:
      convert<std::uint8_t>(nim.data, out);
      return true;
    case DT_INT8:
      convert<std::int8_t>(nim.data, out);
      return true;
    case DT_UINT16:
      convert<std::uint16_t>(nim.data, out);
      return true;
    case DT_INT16:
      convert<std::int16_t>(nim.data, out);
      return true;
    case DT_UINT32:
      convert<std::uint32_t>(nim.data, out);
      return true;
    case DT_INT32:
      convert<std::int32_t>(nim.data, out);
      return true;
    case DT_UINT64:
      convert<std::uint64_t>(nim.data, out);
      return true;
    case DT_INT64:
      convert<std::int64_t>(nim.data, out);
      return true;
    case DT_FLOAT32:
      convert<float>(nim.data, out);
      return true;
    case DT_FLOAT64:
      convert<double>(nim.data, out);
      return true;
    default:
      return false;
  }
}

}  // namespace

grey_image read_nifti(const std::string& path) {
  nifti_set_debug_level(0);  // its messages would repeat ours
  const std::unique_ptr<nifti_image, nifti_deleter> nim(nifti_image_read(path.c_str(), 1));
  if (!nim || nim->data == nullptr) throw io_error(path + ": cannot read NIfTI volume");
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
  out.values.resize(nim->nvox);
  if (!convert_voxels(*nim, out.values))
    throw io_error(path + ": NIfTI data type " + nifti_datatype_string(nim->datatype) +
                   " is not a grey value (integer or float voxels only)");
  const double slope = nim->scl_slope, intercept = nim->scl_inter;
  if (slope != 0.0 && (slope != 1.0 || intercept != 0.0))
    for (auto& v : out.values) v = v * slope + intercept;
  return out;
}

}  // namespace splitmerge::io
