#include "run.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string_view>

#include "frame_stream.hpp"
#include "npy.hpp"
#include "outputs.hpp"
#include "parameter_ranges.hpp"
#include "region_list_file.hpp"
#include "staging.hpp"
#include "terminal_progress.hpp"

namespace splitmerge::tool {

namespace {

void print_notes(const std::vector<std::string>& notes) {
  for (const auto& note : notes) std::cerr << "splitmerge: " << note << '\n';
}

// The library names its parameters as in the code; say which option sets one.
std::string with_option_hint(const std::string& problem) {
  static const char* const names[] = {
      "max_level",     "lim_oct_level", "init_level",      "group_mode",      "max_seed",
      "use_all_seeds", "pred_choice",   "interval_length", "rejection",       "sigma",
      "threshold_row", "pseudo_factor", "small_size",      "statistic_update"};
  for (const char* name : names) {
    if (problem.rfind(std::string("invalid parameter ") + name + " ", 0) != 0) continue;
    std::string option = name;
    for (char& c : option)
      if (c == '_') c = '-';
    return problem + " (--" + option + ")";
  }
  if (problem.rfind("invalid parameter size_", 0) == 0)
    return problem + " (leave out --max-level and --lim-oct-level to take them from the image)";
  return problem;
}

void check_output_extensions(const tool_settings& s) {
  const auto check = [](const std::optional<std::string>& path, const char* option,
                        bool (*accepts)(const std::string&), const char* allowed) {
    if (path && !accepts(io::extension_of(*path)))
      throw usage_error(std::string(option) + " " + *path + ": unsupported format (use " + allowed +
                        ")");
  };
  check(s.labels, "--labels", is_label_extension, ".npy, .tif, .tiff, .png, .nii or .nii.gz");
  check(s.frames, "--frames", is_frame_extension, ".npy or .gif");
  check(s.input_copy, "--save-input", is_input_copy_extension, ".npy, .tif, .tiff, .png or .pgm");
  check(
      s.overlay, "--overlay", [](const std::string& ext) { return ext == ".png"; }, ".png");
  if (s.frames && s.no_display)
    throw usage_error("--frames needs the display frames, which --no-display switches off");
}

// The outputs asked for, in the order they are written.
std::vector<requested_output> requested_outputs(const tool_settings& s) {
  std::vector<requested_output> out;
  const auto add = [&out](const char* option, const std::optional<std::string>& path) {
    if (path) out.push_back({option, *path});
  };
  add("--labels", s.labels);
  add("--frames", s.frames);
  add("--regions", s.regions);
  add("--save-input", s.input_copy);
  add("--overlay", s.overlay);
  return out;
}

// Writes one result; a failure names the file the user asked for.
template <class Writer>
void write_staged(const staged_file& file, Writer&& writer) {
  try {
    writer(file.temporary_path());
  } catch (const io::io_error& e) {
    std::string message = e.what();
    const std::string& temporary = file.temporary_path();
    for (auto at = message.find(temporary); at != std::string::npos;
         at = message.find(temporary, at + file.path().size()))
      message.replace(at, temporary.size(), file.path());
    throw io::io_error(message);
  }
}

std::unique_ptr<staged_file> stage(const std::optional<std::string>& path) {
  return path ? std::make_unique<staged_file>(*path) : nullptr;
}

// The outputs asked for, each staged before the run so that an unwritable
// path is reported before any time is spent.
struct staged_outputs {
  explicit staged_outputs(const tool_settings& s)
      : labels(stage(s.labels)),
        frames(stage(s.frames)),
        regions(stage(s.regions)),
        input_copy(stage(s.input_copy)),
        overlay(stage(s.overlay)) {}

  std::vector<staged_file*> all() const {
    std::vector<staged_file*> files;
    for (auto* file : {labels.get(), frames.get(), regions.get(), input_copy.get(), overlay.get()})
      if (file != nullptr) files.push_back(file);
    return files;
  }

  std::unique_ptr<staged_file> labels, frames, regions, input_copy, overlay;
};

parameters checked_parameters(const image_view& view, const parameters& given) {
  parameters params = given;
  std::string problem = resolve_parameters(view, params);
  if (problem.empty()) problem = check_parameters(view, params);
  if (!problem.empty()) throw usage_error(with_option_hint(problem));
  return params;
}

// Refuses, before any output file is begun, a run whose worst case exceeds
// --memory-limit or the memory available; the run is then given the same
// limit, so it makes the same decision.
std::uint64_t checked_memory_limit(const image_view& view, const parameters& params,
                                   const tool_settings& s) {
  options planned;
  planned.display = s.frames.has_value();
  if (s.frames) planned.frame_sink = [](const std::int32_t*, std::int32_t) {};
  planned.collect_regions = s.regions.has_value();
  const std::uint64_t limit = s.memory_limit != 0 ? s.memory_limit : available_memory();
  const std::uint64_t needed = worst_case_memory(view, params, planned);
  if (limit != 0 && needed > limit)
    throw usage_error("the run may need up to " + format_bytes(needed) + " of memory, but " +
                      format_bytes(limit) +
                      (s.memory_limit != 0 ? " is allowed by --memory-limit" : " is available") +
                      ": crop the image with --fit crop or give a smaller --max-level, or allow "
                      "more with --memory-limit (the estimate is for the worst case, every pixel "
                      "a block of its own; smooth images need far less)");
  return limit;
}

// The library ends its progress lines with this one when it writes no region
// list file; the program writes that file itself and prints, once it is
// written, the lines the library prints around its own writing.
constexpr std::string_view no_region_file_line = "No save_regionlist specified\n";

segmentation segment_with_progress(const image_view& view, const parameters& params,
                                   const tool_settings& s, std::uint64_t memory_limit,
                                   frame_stream* frames, terminal_progress& progress) {
  options opts;
  opts.threads = s.threads;
  opts.memory_limit = memory_limit;
  opts.display = frames != nullptr;  // frames cost time: only when asked for
  if (frames != nullptr) {
    opts.frame_sink = [frames](const std::int32_t* frame, std::int32_t) { frames->add(frame); };
    // A frame that cannot be written fails the run: stop it early.
    opts.interrupt = [frames] { return frames->failed(); };
  }
  opts.collect_regions = s.regions.has_value();
  if (!s.quiet) {
    const bool regions = s.regions.has_value();
    opts.line_sink = [regions, &progress](std::string_view text) {
      if (regions && text == no_region_file_line) return;
      progress.print_line(text);
    };
  }
  std::fflush(stdout);
  segmentation result = segment(view, params, opts);
  std::fflush(stdout);
  return result;
}

void print_progress(const tool_settings& s, terminal_progress& progress, const std::string& line) {
  if (s.quiet) return;
  progress.print_line(line);
  std::fflush(stdout);
}

int report_failed_run(const segmentation& result, terminal_progress& progress) {
  progress.stop();

  std::cerr << "splitmerge: the segmentation failed"
            << (result.error.empty() ? std::string(" (out of memory)") : ": " + result.error)
            << '\n';
  return exit_run_failed;
}

int write_results(const tool_settings& s, const fitted_image& image, const parameters& params,
                  const segmentation& result, const staged_outputs& files, frame_stream* frames,
                  terminal_progress& progress) {
  try {
    std::vector<std::string> notes;
    if (frames != nullptr)
      write_staged(*files.frames, [&](const std::string&) { frames->finish(notes); });
    if (files.regions) {
      print_progress(s, progress, "file = " + files.regions->path() + " \n");
      write_staged(*files.regions, [&](const std::string& path) {
        write_region_list(path, image.size_x, image.size_z, params.pred_choice, result.regions);
      });
      print_progress(s, progress, "finished save_regionlist \n");
    }
    if (files.labels)
      write_staged(*files.labels, [&](const std::string& path) {
        write_labels(path, io::extension_of(*s.labels), image, result.labels, notes);
      });
    if (files.input_copy)
      write_staged(*files.input_copy, [&](const std::string& path) {
        write_input_copy(path, io::extension_of(*s.input_copy), image, notes);
      });
    if (files.overlay)
      write_staged(*files.overlay, [&](const std::string& path) {
        write_overlay(path, image, result.labels, notes);
      });
    commit_all(files.all());
    progress.stop();
    if (!s.quiet) print_notes(notes);
    const auto largest = std::max_element(result.labels.begin(), result.labels.end());
    progress.finish(largest == result.labels.end() ? 0 : std::int64_t{*largest} + 1,
                    static_cast<std::int64_t>(result.labels.size()));
    return exit_success;
  } catch (const io::io_error& e) {
    progress.stop();
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_run_failed;
  }
}

}  // namespace

int run(const tool_settings& s) {
  terminal_progress progress(!s.quiet && terminal_progress::standard_error_is_terminal(), !s.quiet);
  try {
    check_output_extensions(s);
    check_output_paths(s.image, requested_outputs(s));
    warn_about_parameter_ranges(s.params);
    const fitted_image image = fit_image(io::read_grey_image(s.image, {s.volume}), s.fit);
    if (!s.quiet) print_notes(image.notes);
    const image_view view{image.pixels.data(), image.size_x, image.size_y, image.size_z};
    const parameters params = checked_parameters(view, s.params);
    const std::uint64_t memory_limit = checked_memory_limit(view, params, s);
    // Said before the run, which may be long, once the input is known to be usable.
    if (requested_outputs(s).empty())
      std::cerr << "splitmerge: no output asked for (--labels, --regions, --frames, --save-input "
                   "or --overlay): the run only counts the regions\n";
    const staged_outputs files(s);
    std::optional<frame_stream> frames;
    if (files.frames) {
      try {
        write_staged(*files.frames, [&](const std::string& path) {
          frames.emplace(path, io::extension_of(*s.frames), image);
        });
      } catch (const io::io_error& e) {
        std::cerr << "splitmerge: " << e.what() << '\n';
        return exit_run_failed;
      }
    }
    frame_stream* frame_output = frames ? &*frames : nullptr;
    const segmentation result =
        segment_with_progress(view, params, s, memory_limit, frame_output, progress);
    if (frame_output != nullptr && frame_output->failed()) {
      try {
        std::vector<std::string> unused;
        write_staged(*files.frames, [&](const std::string&) { frame_output->finish(unused); });
      } catch (const io::io_error& e) {
        progress.stop();
        std::cerr << "splitmerge: " << e.what() << '\n';
      }
      return exit_run_failed;
    }
    if (result.status != 0) return report_failed_run(result, progress);
    return write_results(s, image, params, result, files, frame_output, progress);
  } catch (const usage_error& e) {
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_bad_input;
  } catch (const io::io_error& e) {  // reading the image
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_bad_input;
  }
}

}  // namespace splitmerge::tool
