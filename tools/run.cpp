#include "run.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string_view>

#include "frame_stream.hpp"
#include "npy.hpp"
#include "outputs.hpp"
#include "staging.hpp"
#include "terminal_progress.hpp"

namespace splitmerge::tool {

namespace {

void print_notes(const std::vector<std::string>& notes) {
  for (const auto& note : notes) std::cerr << "splitmerge: " << note << '\n';
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
  if (s.frames_every && !s.frames)
    throw usage_error("--frames-every thins the frames of --frames, which is not given");
}

// Refuses (usage_error) a frames file that may not fit in its file system's
// free space, with the --frames-every that would fit.
void check_frames_room(const tool_settings& s, const fitted_image& image,
                       const frontend::prepared& prepared) {
  if (!s.frames) return;
  const frame_file_bound bound =
      frame_file_bound_of(io::extension_of(*s.frames), image, frontend::most_frames(prepared));
  std::filesystem::path folder = std::filesystem::path(*s.frames).parent_path();
  std::error_code error;
  const std::filesystem::space_info space =
      std::filesystem::space(folder.empty() ? "." : folder, error);
  const std::int64_t every = s.frames_every.value_or(1);
  if (error || bound.bytes(every) <= space.available) return;
  const std::int64_t fits = bound.every_within(space.available);
  throw usage_error("--frames " + *s.frames + " may take up to " +
                    format_bytes(bound.bytes(every)) + " (up to " + std::to_string(bound.most) +
                    " frames" + (every > 1 ? ", one in " + std::to_string(every) + " kept" : "") +
                    "), but its file system has " + format_bytes(space.available) + " free" +
                    (fits == 0
                         ? ": not even the first and the last frame fit"
                         : ": keep fewer frames with --frames-every " + std::to_string(fits)));
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

// A problem in the program's own words: options spelled as on its command line.
std::string in_words(const frontend::problem& p) {
  return frontend::worded(p.text, frontend::spelling::command_line);
}

frontend::result segment_with_progress(const frontend::prepared& input, const tool_settings& s,
                                       const staged_outputs& files, frame_stream* frames,
                                       terminal_progress& progress) {
  options opts;
  opts.threads = s.threads;
  opts.memory_limit = s.memory_limit;
  opts.display = frames != nullptr;  // frames cost time: only when asked for
  if (frames != nullptr) {
    opts.frame_sink = [&](const std::int32_t* segmented, std::int32_t) {
      frontend::to_input(input, segmented, frames->frame(), 0, -1);
      frames->add();
    };
    // A frame that cannot be written fails the run: stop it early.
    opts.interrupt = [frames] { return frames->failed(); };
  }
  opts.error_sink = [](std::string_view) {};  // failures come back in the result
  // The library writes the region list file into the staged file; the
  // progress lines name the file the user asked for.
  std::string staged_regions, regions_path;
  if (files.regions) {
    staged_regions = files.regions->temporary_path();
    regions_path = files.regions->path();
    opts.region_file = staged_regions;
  }
  if (!s.quiet) {
    opts.line_sink = [&](std::string_view text) {
      std::string line(text);
      if (const auto at = line.find(staged_regions); !staged_regions.empty() && at != line.npos)
        line.replace(at, staged_regions.size(), regions_path);
      progress.print_line(line);
    };
  }
  std::fflush(stdout);
  frontend::result result = frontend::run(input, opts);
  if (result.failure.kind == frontend::problem_kind::input_output)
    result.failure.text = regions_path + ": write failed (" + std::strerror(errno) + ")";
  std::fflush(stdout);
  return result;
}

int report_failed_run(const frontend::result& result, terminal_progress& progress) {
  progress.stop();
  const frontend::problem& p = result.failure;
  std::cerr << "splitmerge: " << in_words(p) << '\n';
  if (p.kind == frontend::problem_kind::resource_exhausted) return exit_out_of_memory;
  return p.kind == frontend::problem_kind::invalid_argument ? exit_bad_input : exit_run_failed;
}

int write_results(const tool_settings& s, const fitted_image& image, const frontend::result& result,
                  const staged_outputs& files, frame_stream* frames, terminal_progress& progress) {
  try {
    std::vector<std::string> notes;
    if (frames != nullptr)
      write_staged(*files.frames, [&](const std::string&) { frames->finish(notes); });
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
    progress.finish(result.region_count, static_cast<std::int64_t>(result.labels.size()));
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
    const io::grey_image input =
        io::read_grey_image(s.image, {s.volume, s.memory_limit, s.request.slice.has_value()});
    frontend::request request = s.request;
    if (io::extension_of(s.image) != ".npy") request.colour = frontend::colour_mode::volume;
    if (!s.quiet && !input.note.empty()) print_notes({input.note});
    const frontend::prepared prepared = frontend::prepare(input.view(), s.params, request);
    if (prepared.failure.kind != frontend::problem_kind::none)
      throw usage_error(in_words(prepared.failure));
    for (const auto& w : prepared.warnings)
      std::cerr << "splitmerge: warning: " << in_words(w) << '\n';
    if (!s.quiet) print_notes(prepared.notes);
    const fitted_image image =
        output_image(input, prepared, s.overlay.has_value() || s.input_copy.has_value());
    // Said before the run, which may be long, once the input is known to be usable.
    if (requested_outputs(s).empty())
      std::cerr << "splitmerge: no output asked for (--labels, --regions, --frames, --save-input "
                   "or --overlay): the run only counts the regions\n";
    check_frames_room(s, image, prepared);
    const staged_outputs files(s);
    std::optional<frame_stream> frames;
    if (files.frames) {
      try {
        write_staged(*files.frames, [&](const std::string& path) {
          frames.emplace(path, io::extension_of(*s.frames), image, s.frames_every.value_or(1));
        });
      } catch (const io::io_error& e) {
        std::cerr << "splitmerge: " << e.what() << '\n';
        return exit_run_failed;
      }
    }
    frame_stream* frame_output = frames ? &*frames : nullptr;
    const frontend::result result =
        segment_with_progress(prepared, s, files, frame_output, progress);
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
    if (result.failure.kind != frontend::problem_kind::none)
      return report_failed_run(result, progress);
    return write_results(s, image, result, files, frame_output, progress);
  } catch (const usage_error& e) {
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_bad_input;
  } catch (const io::memory_error& e) {  // the image cannot fit
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_out_of_memory;
  } catch (const io::io_error& e) {  // reading the image
    std::cerr << "splitmerge: " << e.what() << '\n';
    return exit_bad_input;
  }
}

}  // namespace splitmerge::tool
