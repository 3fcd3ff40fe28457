// NIfTI-1 volumes (.nii, .nii.gz) through libniftiio.
#pragma once

#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// Reads one volume of integer or floating-point voxels; x is the first (fastest)
// dimension. The header's scaling (scl_slope, scl_inter) is applied.
grey_image read_nifti(const std::string& path);

}  // namespace splitmerge::io
