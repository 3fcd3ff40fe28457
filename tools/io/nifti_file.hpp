// NIfTI volumes (.nii, .nii.gz): NIfTI-1 and NIfTI-2 read, NIfTI-1 written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// Reads one volume of integer or floating-point voxels in their stored type;
// x is the first (fastest) dimension. The header's scaling (scl_slope,
// scl_inter) is applied, the values then floats. A 4-D file needs
// options.volume (0-based). Every field that sizes or places the voxels is
// checked against the file before anything is allocated; the header is kept
// (as NIfTI-1) for the outputs.
grey_image read_nifti(const std::string& path, const read_options& options);

// How to turn a stored slice (x along columns, y along rows) into a picture
// that follows the scan's orientation in the radiological convention: the
// patient's right on the picture's left, anterior (axial slices) or superior
// (coronal and sagittal slices) at the top, anterior on the left of sagittal
// slices. Without an orientation in the header, the stored order is kept.
struct picture_layout {
  bool transpose = false;  // rows are x, columns are y
  bool flip_columns = false, flip_rows = false;
  std::string description;  // for the user; empty when the stored order is kept
};
picture_layout nifti_picture_layout(const std::string& header);

// Writes a NIfTI-1 volume of int32 labels (intent "label", no scaling), .nii or
// .nii.gz by the path. With a header from read_nifti, the output keeps its
// orientation, voxel size, units and description, its first voxel moved to
// voxel (x0, y0, z0) of that header's grid; without one, an identity
// orientation of 1 mm voxels; gzip-compressed when asked. Throws io_error on
// any failed write.
void write_nifti_labels(const std::string& path, const std::string& input_header,
                        std::int64_t size_x, std::int64_t size_y, std::int64_t size_z,
                        std::int64_t x0, std::int64_t y0, std::int64_t z0,
                        const std::int32_t* labels, bool compressed);

}  // namespace splitmerge::io
