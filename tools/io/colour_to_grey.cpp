#include "colour_to_grey.hpp"

namespace splitmerge::io {

std::int64_t grey_of_colour(std::int64_t red, std::int64_t green, std::int64_t blue) {
  return (299 * red + 587 * green + 114 * blue + 500) / 1000;
}

std::string colour_note(const std::string& path, const std::string& kind) {
  return path + " is a colour " + kind + ": segmenting its luma (0.299 R + 0.587 G + 0.114 B)";
}

}  // namespace splitmerge::io
