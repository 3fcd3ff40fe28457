#include "fit.hpp"

namespace splitmerge::tool {

fitted_image output_image(const io::grey_image& input, const frontend::prepared& run,
                          bool with_pixels) {
  fitted_image out;
  out.size_z = static_cast<std::int32_t>(run.shape[0]);
  out.size_y = static_cast<std::int32_t>(run.shape[1]);
  out.size_x = static_cast<std::int32_t>(run.shape[2]);
  out.dimensions = run.dimensions;
  out.shown = {0, 0, 0, out.size_x, out.size_y, out.size_z};
  out.input_z0 = run.asked.slice.value_or(0);
  out.nifti_header = input.nifti_header;
  if (with_pixels) {
    out.pixels.resize(static_cast<std::size_t>(run.input_pixels()));
    frontend::to_input(run, run.image().data, out.pixels.data(), 0, 0);
  }
  return out;
}

}  // namespace splitmerge::tool
