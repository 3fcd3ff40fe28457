#include "command_line.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "option_values.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::tool {

namespace {

std::string description() {
  return "Segments a grey image or volume into homogeneous regions by split and merge over a\n"
         "quadtree (2-D) or octree (3-D): the image is covered with square blocks, homogeneous\n"
         "neighbouring blocks are merged, inhomogeneous ones split, adjacent blocks grouped\n"
         "into regions, and regions below --small-size pixels absorbed. Labels number the\n"
         "regions 1, 2, ... by decreasing size (see --start-label).\n\n"
         "The image must have square slices of 2, 4, ..., " +
         std::to_string(frontend::largest_edge(false)) + " pixels (at most " +
         std::to_string(frontend::largest_edge(true)) +
         " in a volume\n"
         "of more than one slice), a power-of-two slice count no larger than the edge and\n"
         "integer pixels 0..255; --fit, --slice and --rescale adapt other images. Progress\n"
         "lines go to standard output, problems to standard error.\n"
         "Exit status: 0 done, 1 the segmentation or writing its results failed, 2 bad usage\n"
         "or an unusable input, 3 out of memory (above the budget, see --memory-limit).\n";
}

constexpr const char* footer =
    "Formats (chosen by the file name's extension):\n"
    "  IMAGE          .npy (integers or floats; (Y, X) or (Z, Y, X)), .png and .pgm (8/16-bit),\n"
    "                 .jpg/.jpeg, .tif/.tiff (8/16/32-bit or float; each page a slice),\n"
    "                 .nii/.nii.gz (NIfTI-1 or -2, x fastest; a 4-D file needs --volume);\n"
    "                 colour pictures are read as their luma (0.299 R + 0.587 G + 0.114 B)\n"
    "  --labels       .npy (int32, the image's shape), .tif (32-bit, a page per slice),\n"
    "                 .png (a colour picture, one colour per label; a volume's middle slice)\n"
    "                 .nii/.nii.gz (int32 labels with a NIfTI input's header and orientation,\n"
    "                 so viewers lay them over the scan)\n"
    "  --frames       .npy (int32, shape (frames,) + image shape), .gif (an animation; a\n"
    "                 volume's middle slice)\n"
    "  --save-input   .png, .pgm (grey; a volume's middle slice), .npy, .tif\n"
    "  --overlay      .png (the input in grey, region borders in yellow)\n"
    "Every output but --regions has the input's own size: after --fit pad the padding is\n"
    "removed, after --fit crop the pixels outside the box kept get the label before\n"
    "--start-label (0) and a note names the box.\n\n"
    "Parameters outside their ranges above still run as given, with a warning.\n\n"
    "Examples:\n"
    "  splitmerge scan.nii.gz --slice 90 --fit pad --labels labels.png --frames run.gif\n"
    "  splitmerge scan.nii.gz --fit crop --labels labels.npy --regions regions.txt\n"
    "  splitmerge photo.png --fit crop --pred-choice range --interval-length 20 --labels l.png";

// The type a converted number is stored as: T, or the T of std::optional<T>.
template <class T>
struct optional_value {
  using type = T;
};
template <class T>
struct optional_value<std::optional<T>> {
  using type = T;
};

// CLI11 does not wrap option descriptions; keep them within 100 columns.
std::string wrapped(const std::string& text) {
  constexpr std::size_t width = 72;
  std::string out;
  std::size_t line_start = 0;
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find(' ', pos);
    if (end == std::string::npos) end = text.size();
    if (end - line_start > width && pos > line_start) {
      out.back() = '\n';
      line_start = pos;
    }
    out.append(text, pos, end - pos);
    if (end < text.size()) out += ' ';
    pos = end + 1;
  }
  return out;
}

// Predicate names, as the user may spell them.
const std::map<std::string, std::int32_t>& predicate_names() {
  static const std::map<std::string, std::int32_t> names = {
      {"range", 1}, {"mean", 2}, {"median", 3}, {"chi2", 4}, {"pseudo", 5}};
  return names;
}

std::int32_t predicate_number(const std::string& text) {
  if (const auto it = predicate_names().find(text); it != predicate_names().end())
    return it->second;
  std::size_t used = 0;
  int value = 0;
  try {
    value = std::stoi(text, &used);
  } catch (const std::logic_error&) {
    used = 0;
  }
  if (used == 0 || used != text.size())
    throw CLI::ValidationError("--pred-choice",
                               "expected 1 to 5 or range, mean, median, chi2, "
                               "pseudo, got '" +
                                   text + "'");
  return value;
}

// "LOW,HIGH" with 0 <= LOW < HIGH <= 100.
void parse_percentile_window(const std::string& text, double& low, double& high) {
  const auto comma = text.find(',');
  std::size_t used_low = 0, used_high = 0;
  bool valid = comma != std::string::npos;
  try {
    if (valid) {
      low = std::stod(text.substr(0, comma), &used_low);
      high = std::stod(text.substr(comma + 1), &used_high);
      valid = used_low == comma && used_high == text.size() - comma - 1;
    }
  } catch (const std::logic_error&) {
    valid = false;
  }
  if (!valid || !(low >= 0 && low < high && high <= 100))
    throw CLI::ValidationError("--rescale",
                               "expected LOW,HIGH percentiles with 0 <= LOW < HIGH "
                               "<= 100, e.g. 1,99, got '" +
                                   text + "'");
}

// Options whose values the program converts itself, so that a bad value is
// refused in its own words (option_values.hpp): whole numbers from `low` to
// `high`, stored as T (or the T of std::optional<T>), and finite reals.
template <class T>
CLI::Option* add_number(CLI::App& app, const std::string& name, T& target, const std::string& help,
                        std::int64_t low = std::numeric_limits<std::int32_t>::min(),
                        std::int64_t high = std::numeric_limits<std::int32_t>::max()) {
  return app.add_option_function<std::string>(
      name,
      [&target, name, low, high](const std::string& text) {
        target = static_cast<typename optional_value<T>::type>(whole_number(name, text, low, high));
      },
      help);
}

CLI::Option* add_number(CLI::App& app, const std::string& name, double& target,
                        const std::string& help) {
  return app.add_option_function<std::string>(
      name, [&target, name](const std::string& text) { target = finite_number(name, text); }, help);
}

void add_parameter_options(CLI::App& app, parameters& p, std::string& predicate) {
  const parameters d;
  const auto add = [&](const char* name, auto& value, const std::string& text) {
    return add_number(app, name, value, wrapped(text))->group("Segmentation parameters");
  };
  add("--max-level", p.max_level,
      "the image edge is 2^N pixels, 1..12 (1..9 for a volume; default: from the image "
      "width)")
      ->type_name("N");
  add("--lim-oct-level", p.lim_oct_level,
      "blocks of level N and below are one slice thick, so a volume has "
      "2^(max-level - N) slices; 0..max-level (default: from the slice count)")
      ->type_name("N");
  add("--init-level", p.init_level,
      "level of the first blocks, 2^N pixels wide; 0..max-level - 1 (default: 3, or "
      "max-level - 1 for smaller images)")
      ->type_name("N");
  add("--group-mode", p.group_mode,
      "0 grows regions one after another; 1 grows several seeded regions side by side "
      "(default " +
          std::to_string(d.group_mode) + ")")
      ->type_name("N");
  add("--max-seed", p.max_seed,
      "with --group-mode 1, the number of seed regions, at least 1 (default " +
          std::to_string(d.max_seed) + ")")
      ->type_name("N");
  add("--use-all-seeds", p.use_all_seeds,
      "with --group-mode 1, 1 takes seeds among blocks of any size, 0 only among the "
      "largest (default " +
          std::to_string(d.use_all_seeds) + ")")
      ->type_name("N");
  app.add_option(
         "--pred-choice", predicate,
         "homogeneity test: 1 or range (grey range at most --interval-length), 2 or mean (range, "
         "then region means closer than --interval-length), 3 or median (at most --rejection of "
         "the pixels outside the median +- --interval-length/2), 4 or chi2 (variance against "
         "--sigma^2 by a chi-square quantile), 5 or pseudo (variance against --sigma^2 (1 + "
         "--pseudo-factor/sqrt(pixels))) (default " +
             std::to_string(d.pred_choice) + ")")
      ->type_name("TEST")
      ->group("Segmentation parameters");
  add("--interval-length", p.interval_length,
      "largest grey range (tests 1-3) or difference of region means (tests 2, 4, 5), 0 or more "
      "(default " +
          std::to_string(d.interval_length) + ")")
      ->type_name("N");
  add("--rejection", p.rejection,
      "test 3, largest share of outlying pixels, a fraction 0..1 (0.1 = 10 %) (default " +
          CLI::detail::to_string(d.rejection) + ")")
      ->type_name("X");
  add("--sigma", p.sigma,
      "tests 4 and 5, standard deviation of the noise in grey values, above 0 (default " +
          CLI::detail::to_string(d.sigma) + ")")
      ->type_name("X");
  add("--threshold-row", p.threshold_row,
      "test 4, 1, 2 or 3 for the 50, 75 or 90 % chi-square quantile (default " +
          std::to_string(d.threshold_row) + ")")
      ->type_name("N");
  add("--pseudo-factor", p.pseudo_factor,
      "test 5, how much more variance small blocks may have, 0 or more (default " +
          CLI::detail::to_string(d.pseudo_factor) + ")")
      ->type_name("X");
  add("--small-size", p.small_size,
      "regions of fewer pixels are absorbed by their most similar neighbour; 0 keeps "
      "them (default " +
          std::to_string(d.small_size) + ")")
      ->type_name("N");
  add("--statistic-update", p.statistic_update,
      "1, a region absorbing a small one takes in its statistics; 0, it keeps its own "
      "(default " +
          std::to_string(d.statistic_update) + ")")
      ->type_name("N");
}

std::vector<std::string> long_option_names(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options())
    for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

// The option a command-line word names ("--labels=x" names --labels).
std::string option_word(const std::string& word) { return word.substr(0, word.find('=')); }

// CLI11's messages ("The following argument was not expected", "At Most 1
// required but received 2") in the program's words.
std::string in_own_words(const CLI::ParseError& e, const CLI::App& app, int argc,
                         const char* const* argv) {
  const std::vector<std::string> known = long_option_names(app);
  if (dynamic_cast<const CLI::ExtrasError*>(&e) != nullptr) {
    const std::vector<std::string> extras = app.remaining();
    if (extras.empty()) return e.what();
    const std::string& first = extras.front();
    if (first.size() < 2 || first[0] != '-')
      return "unexpected argument '" + first + "': one IMAGE at a time";
    const std::string name = option_word(first);
    const auto near = closest_option(name, known);
    return "unknown option " + name + (near ? "; did you mean " + *near + "?" : "");
  }
  if (dynamic_cast<const CLI::ArgumentMismatch*>(&e) != nullptr) {
    std::map<std::string, int> given;
    for (int i = 1; i < argc; ++i) {
      const std::string word = option_word(argv[i]);
      if (std::find(known.begin(), known.end(), word) != known.end() && ++given[word] == 2)
        return word + " is given more than once; give it once";
    }
    if (argc > 1 && std::string(argv[argc - 1]).starts_with("--"))
      return option_word(argv[argc - 1]) + " needs a value";
  }
  return e.what();
}

}  // namespace

std::optional<std::uint64_t> parse_byte_size(const std::string& text) {
  std::size_t digits = 0;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (digits == 0 || digits > 19) return std::nullopt;
  std::string unit = text.substr(digits);
  for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  int shift = 0;
  if (!unit.empty()) {
    const std::string prefixes = "KMGT";
    const std::size_t at = prefixes.find(unit[0]);
    if (at == std::string::npos) return std::nullopt;
    if (unit.size() > 1 && unit.substr(1) != "B" && unit.substr(1) != "IB") return std::nullopt;
    shift = 10 * static_cast<int>(at + 1);
  }
  const std::uint64_t value = std::stoull(text.substr(0, digits));
  if (value > (~std::uint64_t{0} >> shift)) return std::nullopt;
  return value << shift;
}

parse_result parse_command_line(int argc, const char* const* argv) {
  tool_settings s;
  std::string predicate = std::to_string(s.params.pred_choice);
  std::string fit = "none";

  CLI::App app(description(), "splitmerge");
  app.footer(footer);
  app.set_version_flag("--version", std::string("splitmerge ") + SPLITMERGE_VERSION);
  app.get_formatter()->column_width(26);
  // Not required here: "--rescale IMAGE" hands the image to --rescale first.
  CLI::Option* image = app.add_option("IMAGE", s.image, "the image or volume to segment");

  const std::string outputs = "Outputs (written only when the whole run succeeds)";
  app.add_option("--labels", s.labels,
                 wrapped("write the label image: --start-label (1) for the largest region, the "
                         "next for the next largest, and so on"))
      ->type_name("PATH")
      ->group(outputs);
  app.add_option("--frames", s.frames, "write the segmentation as it progresses")
      ->type_name("PATH")
      ->group(outputs);
  add_number(app, "--frames-every", s.frames_every,
             wrapped("keep every N-th frame of --frames (the first, the N+1-th, ...) and the "
                     "last, for a smaller file (default 1: every frame)"),
             1, std::numeric_limits<std::int64_t>::max())
      ->type_name("N")
      ->group(outputs);
  app.add_option("--regions", s.regions,
                 wrapped("write the region list file: per region its statistics, block codes and "
                         "neighbours"))
      ->type_name("PATH")
      ->group(outputs);
  app.add_option("--save-input", s.input_copy,
                 wrapped("write the image as segmented, after --rescale, --slice and --fit (at "
                         "the input's size after --fit pad)"))
      ->type_name("PATH")
      ->group(outputs);
  app.add_option("--overlay", s.overlay,
                 wrapped("write a .png of the input with the region borders drawn over it in "
                         "yellow (a volume's middle slice)"))
      ->type_name("PATH")
      ->group(outputs);
  app.add_flag("--no-display", s.no_display,
               "record no frames (the default unless --frames is given)")
      ->group(outputs);
  app.add_flag("--quiet", s.quiet, "print no progress lines")->group(outputs);
  std::int64_t frame_budget = static_cast<std::int64_t>(s.frame_budget);
  add_number(app, "--frame-budget", frame_budget,
             wrapped("accepted for older command lines; it limits nothing now, as --frames writes "
                     "each frame to its file as the run makes it and holds at most two"),
             0, std::numeric_limits<std::int64_t>::max())
      ->type_name("BYTES")
      ->group(outputs);

  add_number(app, "--threads", s.threads,
             wrapped("threads for the steps that can share the work; 0 (the default) uses "
                     "every core, 1 runs single-threaded; the results are the same for every "
                     "count"),
             0)
      ->type_name("N")
      ->group("Running");

  std::string memory_limit;
  app.add_option("--memory-limit", memory_limit,
                 wrapped("the run's memory budget: a run that would hold more than SIZE bytes "
                         "stops there with exit status 3, e.g. 512M, 4G or 1000000 (K, M, G, T: "
                         "powers of 1024); 0 (the default) allows the memory available, less a "
                         "margin"))
      ->type_name("SIZE")
      ->group("Running");

  app.add_option("--start-label", s.request.start_label,
                 wrapped("label of the largest region; 0 numbers the regions from 0, as the "
                         "library does. Pixels outside a --fit crop get one less (default " +
                         std::to_string(frontend::default_start_label) + ")"))
      ->type_name("N")
      ->group(outputs);

  const std::string fitting = "Fitting the input";
  app.add_option(
         "--fit", fit,
         wrapped("pad (with 0, centred) up to, or crop (centred) down to, the nearest size the "
                 "segmentation accepts; after pad the outputs have the input's size"))
      ->type_name("pad|crop")
      ->group(fitting);
  add_number(app, "--slice", s.request.slice, "segment slice K (0-based, along z) of a volume", 0,
             std::numeric_limits<std::int64_t>::max())
      ->type_name("K")
      ->group(fitting);
  add_number(app, "--volume", s.volume,
             wrapped("segment volume K (0-based) of a 4-D NIfTI file, e.g. one time point of an "
                     "fMRI series; a 4-D file needs it"),
             0, std::numeric_limits<std::int64_t>::max())
      ->type_name("K")
      ->group(fitting);
  std::string rescale_window;
  CLI::Option* rescale =
      app.add_option("--rescale", rescale_window,
                     wrapped("map the values linearly onto 0..255, before --slice so that every "
                             "slice shares one mapping: all of them (min to max), or with LOW,HIGH "
                             "the window between those percentiles of the whole input, values "
                             "outside it clipped (e.g. --rescale 1,99)"))
          ->expected(0, 1)
          ->type_name("[LOW,HIGH]")
          ->group(fitting);

  add_parameter_options(app, s.params, predicate);

  try {
    app.parse(argc, argv);
    s.params.pred_choice = predicate_number(predicate);
    if (fit != "none" && fit != "pad" && fit != "crop")
      throw CLI::ValidationError("--fit", "expected pad or crop, got '" + fit + "'");
    if (image->count() == 0 && rescale->count() > 0 &&
        rescale_window.find(',') == std::string::npos && !rescale_window.empty()) {
      s.image = rescale_window;  // "--rescale IMAGE": the image, not a window
      rescale_window.clear();
    } else if (image->count() == 0) {
      throw CLI::RequiredError("IMAGE");
    }
    if (s.image.empty()) throw CLI::ValidationError("IMAGE", "the image path is empty");
    s.frame_budget = static_cast<std::uint64_t>(frame_budget);
    if (!memory_limit.empty()) {
      const auto bytes = parse_byte_size(memory_limit);
      if (!bytes)
        throw CLI::ValidationError(
            "--memory-limit",
            "expected bytes such as 512M, 4G or 1000000, got '" + memory_limit + "'");
      s.memory_limit = *bytes;
    }
    s.request.rescale = rescale->count() > 0;
    if (s.request.rescale && !rescale_window.empty())
      parse_percentile_window(rescale_window, s.request.low_percentile, s.request.high_percentile);
  } catch (const CLI::CallForHelp&) {
    std::cout << app.help();
    return 0;
  } catch (const CLI::CallForVersion&) {
    std::cout << app.version() << '\n';
    return 0;
  } catch (const usage_error& e) {
    std::cerr << "splitmerge: " << e.what() << " (see splitmerge --help)\n";
    return 2;
  } catch (const CLI::ParseError& e) {
    std::cerr << "splitmerge: " << in_own_words(e, app, argc, argv) << " (see splitmerge --help)\n";
    return 2;
  }
  s.request.fit = fit == "pad"    ? frontend::fit_mode::pad
                  : fit == "crop" ? frontend::fit_mode::crop
                                  : frontend::fit_mode::none;
  return s;
}

}  // namespace splitmerge::tool
