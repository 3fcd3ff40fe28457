// Writing the results in the format each output path's extension names (the
// caller stages the files, see staging.hpp).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fit.hpp"

namespace splitmerge::tool {

// The extensions each output accepts, for the checks before a run.
bool is_label_extension(const std::string& ext);
bool is_frame_extension(const std::string& ext);
bool is_input_copy_extension(const std::string& ext);

// The shape of the segmented image as the outputs carry it: (Y, X) or (Z, Y, X).
std::vector<std::int64_t> image_shape(const fitted_image& image);

// The slice a picture of a volume shows: the middle one.
std::int32_t shown_slice(const fitted_image& image);

// Each writes to `file` in the format of the final path's extension. Pictures
// of a volume show shown_slice(); `notes` tells the user so.
void write_labels(const std::string& file, const std::string& ext, const fitted_image& image,
                  const std::vector<std::int32_t>& labels, std::vector<std::string>& notes);
void write_input_copy(const std::string& file, const std::string& ext, const fitted_image& image,
                      std::vector<std::string>& notes);

}  // namespace splitmerge::tool
