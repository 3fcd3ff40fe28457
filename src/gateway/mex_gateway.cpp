// [labels, frames, regions] = splitmerge(image, max_level, lim_oct_level, init_level,
//     group_mode, max_seed, use_all_seeds, pred_choice, interval_length,
//     rejection, sigma, threshold_row, pseudo_factor, small_size,
//     statistic_update)
//
// Runs one segmentation without a region list file; frames are recorded only
// when the caller asks for the second output, the region list is collected
// only for the third. The progress lines go to the
// command window as the library prints them.
#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "gateway/frame_store.hpp"
#include "gateway/gateway.hpp"

namespace splitmerge::gateway {

namespace {

void print_to_host(std::string_view text) {
  // The text is never the format: it may hold a '%'.
  mexPrintf("%.*s", static_cast<int>(text.size()), text.data());
}

std::size_t pixel_count(const image_view& im) {
  return static_cast<std::size_t>(im.size_x) * static_cast<std::size_t>(im.size_y) *
         static_cast<std::size_t>(im.size_z);
}

// How many frames fit the budget; at least one, the final state.
std::int32_t frames_within(std::uint64_t budget, std::size_t pixels) {
  const std::uint64_t frame_bytes = std::uint64_t{pixels} * sizeof(std::int32_t);
  const std::uint64_t n = budget / frame_bytes;
  return static_cast<std::int32_t>(std::clamp<std::uint64_t>(n, 1, 0x7fffffff));
}

// Output 1: the image's dimensions plus one for the frames, in recording order.
mxArray* frames_output(const frame_store& store, const call& c, report& r) {
  std::array<mwSize, 4> dims{};
  std::copy(c.dims, c.dims + c.ndims, dims.begin());
  dims[static_cast<std::size_t>(c.ndims)] = to_mwsize(store.frame_count());
  mxArray* frames = create_int32_output(c.ndims + 1, dims.data());
  if (frames == nullptr) {
    r.fail("splitmerge:outOfMemory", "out of memory for the frames output");
    return nullptr;
  }
  store.write_to(static_cast<std::int32_t*>(mxGetData(frames)));
  return frames;
}

void segment_call(int nlhs, mxArray* plhs[], const call& c, call_settings& settings, report& r) {
  const bool want_frames = nlhs >= 2;
  const std::size_t pixels = pixel_count(c.image);
  frame_store store(pixels, frames_within(settings.frame_budget, pixels));
  store.fail_request(settings.fail_frame_request);
  bool store_failed = false;

  options opts;
  opts.display = want_frames;
  opts.collect_regions = nlhs >= 3;
  opts.memory_limit = settings.memory_limit;
  opts.threads = settings.threads;
  opts.line_sink = print_to_host;
  opts.error_sink = [](std::string_view) {};  // the status says what went wrong
  opts.interrupt = [&store_failed] { return store_failed || host_interrupt_pending(); };
  if (want_frames)
    opts.frame_sink = [&](const std::int32_t* frame, std::int32_t) {
      if (!store_failed && !store.append(frame)) store_failed = true;
    };

  const segmentation result = segment(c.image, c.params, opts);
  settings.frame_requests = store.requests();
  if (store_failed) {
    r.fail("splitmerge:outOfMemory", "out of memory while recording the frames");
    return;
  }
  if (result.status == status_interrupted) {
    r.fail("splitmerge:interrupted", "interrupted by the user; nothing is returned");
    return;
  }
  if (result.memory_needed != 0) {
    // Above the memory limit: the message says how much was in use.
    r.fail("splitmerge:memory", "%s", result.error.c_str());
    return;
  }
  if (result.status == status_failed && result.error.empty()) {
    r.fail("splitmerge:outOfMemory", "the segmentation ran out of memory");
    return;
  }
  if (result.status != status_ok) {
    r.fail("splitmerge:runFailed", "the segmentation failed with status %d%s%s", result.status,
           result.error.empty() ? "" : ": ", result.error.c_str());
    return;
  }

  owned_array labels(mxCreateNumericArray(c.ndims, c.dims, mxINT32_CLASS, mxREAL));
  std::copy(result.labels.begin(), result.labels.end(),
            static_cast<std::int32_t*>(mxGetData(labels.get())));
  // Only the slots the host provides: max(nlhs, 1).
  const bool wide_codes = c.image.size_x > 256;  // more than 8 levels
  owned_array regions(nlhs >= 3 ? regions_output(result.regions, wide_codes) : nullptr);
  if (want_frames) {
    owned_array frames(frames_output(store, c, r));
    if (r.failed()) return;
    if (store.dropped_frames())
      r.warn(
          "frame recording stopped at %d frames: the next frame would exceed the frame "
          "budget of %llu bytes; the last frame shows the final state",
          store.frame_count(), static_cast<unsigned long long>(settings.frame_budget));
    plhs[1] = frames.release();
  }
  if (nlhs >= 3) plhs[2] = regions.release();
  plhs[0] = labels.release();
}

}  // namespace

void run_gateway(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[],
                 call_settings& settings) {
  report r;
  call c;
  if (read_call(nlhs, nrhs, prhs, c, r)) {
    // No exception may reach the host; each becomes an error report below.
    try {
      segment_call(nlhs, plhs, c, settings, r);
    } catch (const std::bad_alloc&) {
      r.fail("splitmerge:outOfMemory", "out of memory while segmenting");
    } catch (const std::exception& e) {
      r.fail("splitmerge:internal", "%s", e.what());
    } catch (...) {
      r.fail("splitmerge:internal", "the segmentation failed unexpectedly");
    }
  }
  // Every object that owns memory is gone; the host may now leave at once.
  if (r.warning[0] != '\0') mexWarnMsgIdAndTxt("splitmerge:frameBudget", "%s", r.warning);
  if (r.failed()) mexErrMsgIdAndTxt(r.id, "%s", r.message);
}

}  // namespace splitmerge::gateway

extern "C" void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
  splitmerge::gateway::call_settings settings;
  splitmerge::gateway::run_gateway(nlhs, plhs, nrhs, prhs, settings);
}
