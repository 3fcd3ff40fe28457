// JPEG pictures through libjpeg.
#pragma once

#include <string>

#include "grey_image.hpp"

namespace splitmerge::io {

// Grey JPEGs keep their decoded values; colour ones (YCbCr or RGB) are
// decoded to RGB and become grey levels by the one colour rule
// (colour_to_grey.hpp). A file that ends early or holds damaged data is
// refused, not padded with grey as libjpeg would.
grey_image read_jpeg(const std::string& path, const read_options& options = {});

}  // namespace splitmerge::io
