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

#include "splitmerge/splitmerge.hpp"

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

// Polled by the run between its phases: a failed progress call or a pending
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

splitmerge::image_view view_of(const py::array& image) {
  if (!image.dtype().is(py::dtype::of<std::int32_t>()))
    throw py::type_error("_core.run needs an int32 array of native byte order");
  if ((image.flags() & py::array::c_style) == 0 ||
      (image.flags() & py::detail::npy_api::NPY_ARRAY_ALIGNED_) == 0)
    throw py::value_error("_core.run needs an aligned C-contiguous array");
  if (image.ndim() != 2 && image.ndim() != 3)
    throw py::value_error("_core.run needs a 2-D or 3-D array");
  for (py::ssize_t d = 0; d < image.ndim(); ++d)
    if (image.shape(d) > std::numeric_limits<std::int32_t>::max())
      throw py::value_error("_core.run: an extent does not fit in 32 bits");
  splitmerge::image_view view;
  view.data = static_cast<const std::int32_t*>(image.data());
  const py::ssize_t n = image.ndim();
  view.size_x = static_cast<std::int32_t>(image.shape(n - 1));
  view.size_y = static_cast<std::int32_t>(image.shape(n - 2));
  view.size_z = n == 3 ? static_cast<std::int32_t>(image.shape(0)) : 1;
  return view;
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

py::dict run(const py::array& image, const py::dict& params, bool frames, bool lines, bool regions,
             std::optional<py::bytes> region_file, std::uint64_t frame_budget, py::object progress,
             std::int32_t threads, std::uint64_t memory_limit) {
  const splitmerge::image_view view = view_of(image);
  const splitmerge::parameters p = parameters_from(params);
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

  splitmerge::segmentation result;
  {
    py::gil_scoped_release nogil;
    result = splitmerge::segment(view, p, opts);
  }
  if (state.failure) throw std::move(*state.failure);

  std::vector<py::ssize_t> shape(image.shape(), image.shape() + image.ndim());
  py::dict out;
  out["status"] = result.status;
  out["error"] = decoded(result.error);
  out["memory_needed"] = result.memory_needed;  // non-zero: refused for memory
  out["labels"] = adopt(std::move(result.labels), shape);
  if (frames) {
    shape.insert(shape.begin(), result.frame_count);
    out["frames"] = adopt(std::move(result.frames), shape);
  } else {
    out["frames"] = py::none();
  }
  py::list line_list;
  for (const auto& line : result.lines) line_list.append(decoded(line));
  out["lines"] = line_list;
  out["regions"] = regions_of(std::move(result.regions), view.size_x > 256);
  py::list warning_list;
  for (const auto& w : state.warnings) warning_list.append(decoded(w));
  out["warnings"] = warning_list;
  return out;
}

// One message for memory exhaustion, whether the library reported it or a
// result could not be allocated.
py::dict run_or_memory_error(const py::array& image, const py::dict& params, bool frames,
                             bool lines, bool regions, std::optional<py::bytes> region_file,
                             std::uint64_t frame_budget, py::object progress, std::int32_t threads,
                             std::uint64_t memory_limit) {
  try {
    return run(image, params, frames, lines, regions, std::move(region_file), frame_budget,
               std::move(progress), threads, memory_limit);
  } catch (const std::bad_alloc&) {
    PyErr_SetString(PyExc_MemoryError, "the segmentation ran out of memory");
    throw py::error_already_set();
  }
}

}  // namespace

PYBIND11_MODULE(_core, m) {
  m.doc() = "Binding of the splitmerge C++ library; use splitmerge.segment instead.";
  m.def("run", &run_or_memory_error, py::arg("image"), py::arg("params"), py::arg("frames"),
        py::arg("lines"), py::arg("regions"), py::arg("region_file"), py::arg("frame_budget"),
        py::arg("progress"), py::arg("threads"), py::arg("memory_limit"),
        "Runs one segmentation; the image must be int32, C-contiguous, 2-D or 3-D.");
  m.attr("status_ok") = splitmerge::status_ok;
  m.attr("status_failed") = splitmerge::status_failed;
  m.attr("status_file_failed") = splitmerge::status_file_failed;
  m.attr("status_interrupted") = splitmerge::status_interrupted;
}
