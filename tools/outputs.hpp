// Writing the results in the format each output path's extension names (the
// caller stages the files, see staging.hpp).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "fit.hpp"

namespace splitmerge::tool {

// The extensions each output accepts, for the checks before a run.
bool is_label_extension(const std::string& ext);
bool is_frame_extension(const std::string& ext);
bool is_input_copy_extension(const std::string& ext);

// The shape of the outputs, (Y, X) or (Z, Y, X): the shown box of the
// segmented image (see fitted_image::shown).
std::vector<std::int64_t> image_shape(const fitted_image& image);

// The shown box of a volume of the segmented image's size (labels, a frame).
std::vector<std::int32_t> shown_part(const fitted_image& image, const std::int32_t* volume);
// The same without a copy when the box is the whole volume (else copied into
// `part`): the labels are the largest array the program holds.
const std::int32_t* shown_values(const fitted_image& image, const std::int32_t* volume,
                                 std::vector<std::int32_t>& part);

// The slice a picture of a volume shows: the middle one of the shown box.
std::int32_t shown_slice(const fitted_image& image);

// That slice of the shown box as a picture: rows from the top, x fastest, in
// the scan's orientation for a NIfTI input (see io::nifti_picture_layout).
struct picture {
  std::int64_t width = 0, height = 0;
  std::vector<std::int32_t> values;
};
picture shown_picture(const fitted_image& image, const std::int32_t* volume);
// The width and height of that picture.
std::array<std::int64_t, 2> picture_size(const fitted_image& image);
// What the user is told about a picture (`what`, e.g. "the overlay"): the
// slice it shows and its orientation; empty when there is nothing to say.
std::string picture_note(const std::string& what, const fitted_image& image);

// Each writes to `file` in the format of the final path's extension. Pictures
// of a volume show shown_slice(); `notes` tells the user so.
void write_labels(const std::string& file, const std::string& ext, const fitted_image& image,
                  const std::vector<std::int32_t>& labels, std::vector<std::string>& notes);
// The input picture (the shown slice) with the region borders drawn over it
// in yellow: a pixel is on a border when its right or lower neighbour has
// another label.
void write_overlay(const std::string& file, const fitted_image& image,
                   const std::vector<std::int32_t>& labels, std::vector<std::string>& notes);
void write_input_copy(const std::string& file, const std::string& ext, const fitted_image& image,
                      std::vector<std::string>& notes);

}  // namespace splitmerge::tool
