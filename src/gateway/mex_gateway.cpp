// [labels, frames] = splitmerge(image, max_level, lim_oct_level, init_level,
//     group_mode, max_seed, use_all_seeds, pred_choice, interval_length,
//     rejection, sigma, threshold_row, pseudo_factor, small_size,
//     statistic_update)
//
// Runs one segmentation with frame recording on and no region list file. The
// progress lines go to the command window as the library prints them.
#include <algorithm>
#include <array>
#include <cstddef>
#include <exception>
#include <new>
#include <string_view>
#include <utility>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway {

namespace {

// Whatever happens, the context is left without frames and without sinks
// that point into this call's stack (a test's context outlives the call).
class context_guard {
 public:
  explicit context_guard(run_context& ctx) : ctx_(ctx) {}
  context_guard(const context_guard&) = delete;
  context_guard& operator=(const context_guard&) = delete;
  ~context_guard() {
    ctx_.release_frames();
    ctx_.out = nullptr;
    ctx_.err = nullptr;
  }

 private:
  run_context& ctx_;
};

// A host array that is destroyed unless it is handed to the host.
class owned_array {
 public:
  explicit owned_array(mxArray* a) : array_(a) {}
  owned_array(const owned_array&) = delete;
  owned_array& operator=(const owned_array&) = delete;
  ~owned_array() {
    if (array_ != nullptr) mxDestroyArray(array_);
  }
  [[nodiscard]] mxArray* get() const { return array_; }
  mxArray* release() { return std::exchange(array_, nullptr); }

 private:
  mxArray* array_;
};

void print_to_host(std::string_view text) {
  // The text is never the format: it may hold a '%'.
  mexPrintf("%.*s", static_cast<int>(text.size()), text.data());
}

std::int32_t frames_in_list(const run_context& ctx) {
  std::int32_t n = 0;
  for (const disp_frame* f = ctx.smg_disp; f != nullptr; f = f->next) ++n;
  return n;
}

// Output 1: the image's dimensions plus one for the frames, in recording
// order. Each frame is released as soon as it is copied, to keep the peak low.
mxArray* take_frames(run_context& ctx, const call& c, report& r) {
  const std::int32_t count = ctx.smg_dsp_count;
  if (frames_in_list(ctx) != count) {
    r.fail("splitmerge:internal", "the run recorded %d frames but its list holds %d", count,
           frames_in_list(ctx));
    return nullptr;
  }
  std::array<mwSize, 4> dims{};
  std::copy(c.dims, c.dims + c.ndims, dims.begin());
  dims[static_cast<std::size_t>(c.ndims)] = to_mwsize(count);
  mxArray* frames = mxCreateNumericArray(c.ndims + 1, dims.data(), mxINT32_CLASS, mxREAL);
  const auto pixels = static_cast<std::size_t>(c.args.size_x) *
                      static_cast<std::size_t>(c.args.size_y) *
                      static_cast<std::size_t>(c.args.size_z);
  auto* dest = static_cast<std::int32_t*>(mxGetData(frames));
  while (ctx.smg_disp != nullptr) {
    disp_frame* frame = ctx.smg_disp;
    dest = std::copy_n(frame->pixels, pixels, dest);
    ctx.smg_disp = frame->next;
    ctx.allocator.release(frame->pixels);
    ctx.allocator.release(frame);
  }
  ctx.smg_disp_cur = nullptr;
  return frames;
}

void segment(int nlhs, mxArray* plhs[], const call& c, run_context& ctx, report& r) {
  const context_guard guard(ctx);
  ctx.out = print_to_host;
  ctx.err = [&r](std::string_view line) { r.add_warning(line); };

  owned_array labels(mxCreateNumericArray(c.ndims, c.dims, mxINT32_CLASS, mxREAL));
  const run_arguments& a = c.args;
  const std::int32_t status =
      split_merge_group(ctx, a.image, a.size_x, a.size_y, a.size_z, a.max_level, a.lim_oct_level,
                        static_cast<std::int32_t*>(mxGetData(labels.get())), a.init_level,
                        a.group_mode, a.max_seed, a.use_all_seeds, a.pred_choice, a.interval_length,
                        a.threshold_row, a.small_size, a.statistic_update, /*save_flag=*/0,
                        /*display=*/1, /*filename=*/"", a.rejection, a.sigma, a.pseudo_factor);
  if (status == status_no_memory) {
    r.fail("splitmerge:outOfMemory", "the segmentation ran out of memory");
    return;
  }
  if (status != 0) {
    r.fail("splitmerge:runFailed", "the segmentation failed with status %d", status);
    return;
  }

  // Only the slots the host provides: max(nlhs, 1).
  if (nlhs >= 2) {
    owned_array frames(take_frames(ctx, c, r));
    if (r.failed()) return;
    plhs[1] = frames.release();
  }
  plhs[0] = labels.release();
}

}  // namespace

void run_gateway(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[],
                 run_context* ctx_for_tests) {
  report r;
  call c;
  if (read_call(nlhs, nrhs, prhs, c, r)) {
    // No exception may reach the host; each becomes an error report below.
    try {
      if (ctx_for_tests != nullptr) {
        segment(nlhs, plhs, c, *ctx_for_tests, r);
      } else {
        run_context ctx;
        segment(nlhs, plhs, c, ctx, r);
      }
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
  splitmerge::gateway::run_gateway(nlhs, plhs, nrhs, prhs, nullptr);
}
