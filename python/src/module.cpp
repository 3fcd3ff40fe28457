// splitmerge._core: one segmentation of an int32 image that the Python package
// has already checked and converted. The package turns statuses into
// exceptions; this module only moves data across and releases the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "splitmerge/frontend.hpp"
#include "splitmerge/splitmerge.hpp"

namespace fe = splitmerge::frontend;

namespace py = pybind11;

namespace {

// Hands a vector's buffer to numpy without copying; the array frees it.
template <class T>
py::array_t<T> adopt(std::vector<T>&& values, const std::vector<py::ssize_t>& shape) {
  auto owned = std::make_unique<std::vector<T>>(std::move(values));
  py::capsule release(owned.get(), [](void* p) { delete static_cast<std::vector<T>*>(p); });
  std::vector<T>* data = owned.release();  // the capsule owns it from here on
  return py::array_t<T>(shape, data->data(), release);
}

// Progress lines are ASCII except a file name, which may hold any bytes.
py::str decoded(std::string_view text) {
  PyObject* s =
      PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "surrogateescape");
  if (s == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(s);
}

// What the run's callbacks share with the binding. The callbacks run without
// the GIL and take it only to call into Python.
struct run_state {
  py::object progress;  // None or a callable taking one line
  std::string pending;  // the part of a progress line not yet complete
  // Raised by the progress callable or by a signal handler (Ctrl-C).
  std::optional<py::error_already_set> failure;
  std::vector<std::string> warnings;
};

void deliver_lines(run_state& state, std::string_view text) noexcept {
  try {
    state.pending.append(text);
    py::gil_scoped_acquire gil;
    for (std::size_t nl; (nl = state.pending.find('\n')) != std::string::npos;) {
      const std::string line = state.pending.substr(0, nl);
      state.pending.erase(0, nl + 1);
      if (state.failure) continue;
      try {
        state.progress(decoded(line));
      } catch (py::error_already_set& e) {
        state.failure = std::move(e);
      }
    }
  } catch (...) {  // a lost progress line must not break the run
  }
}

// Polled by the run as it goes, on this (the calling) thread only, every few
// thousand items of each phase: a failed progress call or a pending
// signal (KeyboardInterrupt from Ctrl-C; signal handlers run only in the main
// thread) ends the run.
bool should_stop(run_state& state) noexcept {
  try {
    py::gil_scoped_acquire gil;
    if (!state.failure && PyErr_CheckSignals() != 0) state.failure.emplace();
    return state.failure.has_value();
  } catch (...) {
    return false;
  }
}

std::int32_t int32_entry(const py::dict& params, const char* name) {
  return params[name].cast<std::int32_t>();
}

splitmerge::parameters parameters_from(const py::dict& d) {
  splitmerge::parameters p;
  p.max_level = int32_entry(d, "max_level");
  p.lim_oct_level = int32_entry(d, "lim_oct_level");
  p.init_level = int32_entry(d, "init_level");
  p.group_mode = int32_entry(d, "group_mode");
  p.max_seed = int32_entry(d, "max_seed");
  p.use_all_seeds = int32_entry(d, "use_all_seeds");
  p.pred_choice = int32_entry(d, "pred_choice");
  p.interval_length = int32_entry(d, "interval_length");
  p.rejection = d["rejection"].cast<double>();
  p.sigma = d["sigma"].cast<double>();
  p.threshold_row = int32_entry(d, "threshold_row");
  p.pseudo_factor = d["pseudo_factor"].cast<double>();
  p.small_size = int32_entry(d, "small_size");
  p.statistic_update = int32_entry(d, "statistic_update");
  return p;
}

fe::pixel_type pixel_type_of(const py::array& image) {
  const py::dtype d = image.dtype();
  if (d.byteorder() == '>') throw py::type_error("the image must be of native byte order");
  switch (d.kind()) {
    case 'b':
      return fe::pixel_type::boolean;
    case 'i':
    case 'u': {
      const bool u = d.kind() == 'u';
      switch (d.itemsize()) {
        case 1:
          return u ? fe::pixel_type::uint8 : fe::pixel_type::int8;
        case 2:
          return u ? fe::pixel_type::uint16 : fe::pixel_type::int16;
        case 4:
          return u ? fe::pixel_type::uint32 : fe::pixel_type::int32;
        case 8:
          return u ? fe::pixel_type::uint64 : fe::pixel_type::int64;
        default:
          break;
      }
      break;
    }
    case 'f':
      if (d.itemsize() == 4) return fe::pixel_type::float32;
      if (d.itemsize() == 8) return fe::pixel_type::float64;
      break;
    default:
      break;
  }
  throw py::type_error("the image's dtype " +
                       py::str(static_cast<const py::handle&>(d)).cast<std::string>() +
                       " cannot be segmented; use integers, floats or bool");
}

fe::array_view view_of(const py::array& image) {
  fe::array_view view;
  view.data = image.data();
  view.type = pixel_type_of(image);
  view.order = fe::host_order::numpy;
  view.ndim = static_cast<int>(image.ndim());
  if (view.ndim < 2 || view.ndim > 4)
    throw py::value_error("the image has " + std::to_string(view.ndim) +
                          " dimensions; expected (Y, X), (Z, Y, X), (Y, X, C) or (Z, Y, X, C)");
  for (int d = 0; d < view.ndim; ++d) {
    view.shape[d] = image.shape(d);
    view.strides[d] = image.strides(d);
  }
  return view;
}

py::dict placement_of(const fe::placement& p) {
  py::dict d;
  d["x0"] = p.x0;
  d["y0"] = p.y0;
  d["z0"] = p.z0;
  d["size_x"] = p.size_x;
  d["size_y"] = p.size_y;
  d["size_z"] = p.size_z;
  return d;
}

// Codes are uint32 for images of up to 256 pixels along an edge, uint64 above.
py::list regions_of(std::vector<splitmerge::region_record>&& records, bool wide_codes) {
  py::list out;
  for (auto& r : records) {
    const auto codes = static_cast<py::ssize_t>(r.codes.size());
    const auto neighbours = static_cast<py::ssize_t>(r.neighbours.size());
    py::array code_array;
    if (wide_codes) {
      code_array = adopt(std::move(r.codes), {codes});
    } else {
      code_array = adopt(std::vector<std::uint32_t>(r.codes.begin(), r.codes.end()), {codes});
    }
    out.append(py::make_tuple(r.statistics[0], r.statistics[1], code_array,
                              adopt(std::move(r.neighbours), {neighbours})));
  }
  return out;
}

// The fourteen parameters by name, as Python numbers.
py::dict parameter_dict(const splitmerge::parameters& p) {
  py::dict d;
  for (const auto name : fe::parameter_names()) {
    const std::string key(name);
    const std::string text = fe::parameter_text(p, name);
    if (key == "rejection" || key == "sigma" || key == "pseudo_factor") {
      d[key.c_str()] = std::stod(text);
    } else {
      d[key.c_str()] = std::stoi(text);
    }
  }
  return d;
}

py::dict problem_of(const fe::problem& p) {
  py::dict d;
  d["kind"] = static_cast<int>(p.kind);
  d["parameter"] = p.parameter;
  d["message"] = decoded(fe::worded(p.text, fe::spelling::python));
  return d;
}

py::dict run(const py::array& image, const py::dict& params, const py::dict& around, bool frames,
             bool lines, bool regions, std::optional<py::bytes> region_file,
             std::uint64_t frame_budget, py::object progress, std::int32_t threads,
             std::uint64_t memory_limit) {
  const fe::array_view view = view_of(image);
  const splitmerge::parameters p = parameters_from(params);
  fe::request req;
  req.fit = static_cast<fe::fit_mode>(around["fit"].cast<int>());
  req.colour = around["volume"].cast<bool>() ? fe::colour_mode::volume : fe::colour_mode::automatic;
  req.rescale = around["rescale"].cast<bool>();
  req.low_percentile = around["low"].cast<double>();
  req.high_percentile = around["high"].cast<double>();
  if (!around["slice"].is_none()) req.slice = around["slice"].cast<std::int64_t>();
  req.start_label = around["start_label"].cast<std::int32_t>();

  py::dict out;
  fe::prepared prepared;
  {
    py::gil_scoped_release nogil;
    prepared = fe::prepare(view, p, req);
  }
  py::list notes, warnings;
  for (const auto& n : prepared.notes) notes.append(decoded(n));
  for (const auto& w : prepared.warnings)
    warnings.append(decoded(fe::worded(w.text, fe::spelling::python)));
  out["notes"] = notes;
  out["warnings"] = warnings;
  out["failure"] = problem_of(prepared.failure);
  if (prepared.failure.kind != fe::problem_kind::none) return out;

  run_state state;
  state.progress = std::move(progress);
  splitmerge::options opts;
  opts.display = frames;
  opts.capture_lines = lines;
  opts.collect_regions = regions;
  opts.frame_budget = frame_budget;
  opts.threads = threads;
  opts.memory_limit = memory_limit;
  if (region_file) opts.region_file = std::string(*region_file);
  if (!state.progress.is_none())
    opts.line_sink = [&state](std::string_view text) { deliver_lines(state, text); };
  opts.interrupt = [&state] { return should_stop(state); };
  opts.error_sink = [&state](std::string_view text) { state.warnings.emplace_back(text); };

  fe::result result;
  std::vector<std::int32_t> frame_stack;
  {
    py::gil_scoped_release nogil;
    result = fe::run(prepared, opts);
    if (frames && result.failure.kind == fe::problem_kind::none) {
      // Frames, like labels, have the input's shape.
      const auto n = static_cast<std::size_t>(prepared.input_pixels());
      frame_stack.resize(n * static_cast<std::size_t>(result.run.frame_count));
      const auto segmented = static_cast<std::size_t>(prepared.segmented.size_x) *
                             static_cast<std::size_t>(prepared.segmented.size_y) *
                             static_cast<std::size_t>(prepared.segmented.size_z);
      for (std::size_t k = 0; k < static_cast<std::size_t>(result.run.frame_count); ++k)
        fe::to_input(prepared, result.run.frames.data() + k * segmented, frame_stack.data() + k * n,
                     0, -1);
      result.run.frames = {};
    }
  }
  if (state.failure) throw std::move(*state.failure);
  out["failure"] = problem_of(result.failure);
  if (result.failure.kind != fe::problem_kind::none) {
    out["memory_needed"] = result.run.memory_needed;
    return out;
  }
  std::vector<py::ssize_t> shape;
  for (int d = 3 - prepared.dimensions; d < 3; ++d) shape.push_back(prepared.shape[d]);
  out["labels"] = adopt(std::move(result.labels), shape);
  if (frames) {
    shape.insert(shape.begin(), result.run.frame_count);
    out["frames"] = adopt(std::move(frame_stack), shape);
  } else {
    out["frames"] = py::none();
  }
  py::list line_list;
  for (const auto& line : result.run.lines) line_list.append(decoded(line));
  out["lines"] = line_list;
  out["regions"] = regions_of(std::move(result.run.regions), prepared.segmented.size_x > 256);
  py::list run_warnings;
  for (const auto& w : state.warnings) run_warnings.append(decoded(w));
  out["run_warnings"] = run_warnings;
  out["resolved"] = parameter_dict(prepared.resolved);
  out["region_count"] = result.region_count;
  out["segmented"] = placement_of(prepared.segmented);
  return out;
}

// One message for memory exhaustion, whether the library reported it or a
// result could not be allocated.
py::dict run_or_memory_error(const py::array& image, const py::dict& params, const py::dict& around,
                             bool frames, bool lines, bool regions,
                             std::optional<py::bytes> region_file, std::uint64_t frame_budget,
                             py::object progress, std::int32_t threads,
                             std::uint64_t memory_limit) {
  try {
    return run(image, params, around, frames, lines, regions, std::move(region_file), frame_budget,
               std::move(progress), threads, memory_limit);
  } catch (const std::bad_alloc&) {
    PyErr_SetString(PyExc_MemoryError, "the segmentation ran out of memory");
    throw py::error_already_set();
  }
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Binding of the splitmerge C++ library; use splitmerge.segment instead.";
  m.def("run", &run_or_memory_error, py::arg("image"), py::arg("params"), py::arg("around"),
        py::arg("frames"), py::arg("lines"), py::arg("regions"), py::arg("region_file"),
        py::arg("frame_budget"), py::arg("progress"), py::arg("threads"), py::arg("memory_limit"),
        "Runs one segmentation of an array of any numeric dtype and strides.");
  m.attr("version") = splitmerge::frontend::version();
  m.attr("defaults") = parameter_dict(splitmerge::parameters{});
  m.attr("default_frame_budget") = splitmerge::default_frame_budget;
  m.attr("default_start_label") = splitmerge::frontend::default_start_label;
  m.attr("problem_invalid_argument") = static_cast<int>(fe::problem_kind::invalid_argument);
  m.attr("problem_resource_exhausted") = static_cast<int>(fe::problem_kind::resource_exhausted);
  m.attr("problem_interrupted") = static_cast<int>(fe::problem_kind::interrupted);
  m.attr("problem_input_output") = static_cast<int>(fe::problem_kind::input_output);
}
