// [L, n, info] = smsegment_mex(I, opts): the gateway of smsegment. smsegment.m
// checks the options' names and kinds the MATLAB way and hands them over in
// one struct; conversion, fitting, the run and the way back are the
// library's front-end layer, as for every other front end. L is double, the
// size of I's grey image, in MATLAB's order (rows are y).
#include <algorithm>
#include <cmath>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include "gateway/gateway.hpp"
#include "splitmerge/frontend.hpp"

namespace splitmerge::gateway {

namespace {

namespace fe = frontend;

double field(const mxArray* opts, const char* name, double fallback) {
  const mxArray* f = mxGetField(opts, 0, name);
  if (f == nullptr || mxIsEmpty(f) || !(mxIsNumeric(f) || mxIsLogical(f))) return fallback;
  return mxGetScalar(f);
}

std::int32_t int_field(const mxArray* opts, const char* name, std::int32_t fallback) {
  const double v = field(opts, name, fallback);
  return std::isfinite(v) && v >= -2147483648.0 && v <= 2147483647.0 ? static_cast<std::int32_t>(v)
                                                                     : fallback;
}

bool pixel_type_of(const mxArray* image, fe::pixel_type& type) {
  switch (mxGetClassID(image)) {
    case mxLOGICAL_CLASS:
      type = fe::pixel_type::boolean;
      return true;
    case mxINT8_CLASS:
      type = fe::pixel_type::int8;
      return true;
    case mxUINT8_CLASS:
      type = fe::pixel_type::uint8;
      return true;
    case mxINT16_CLASS:
      type = fe::pixel_type::int16;
      return true;
    case mxUINT16_CLASS:
      type = fe::pixel_type::uint16;
      return true;
    case mxINT32_CLASS:
      type = fe::pixel_type::int32;
      return true;
    case mxUINT32_CLASS:
      type = fe::pixel_type::uint32;
      return true;
    case mxINT64_CLASS:
      type = fe::pixel_type::int64;
      return true;
    case mxUINT64_CLASS:
      type = fe::pixel_type::uint64;
      return true;
    case mxSINGLE_CLASS:
      type = fe::pixel_type::float32;
      return true;
    case mxDOUBLE_CLASS:
      type = fe::pixel_type::float64;
      return true;
    default:
      return false;
  }
}

// The identifier of a problem: the option that helps, or the run's failure.
const char* identifier(const fe::problem& p) {
  switch (p.kind) {
    case fe::problem_kind::resource_exhausted:
      return "splitmerge:outOfMemory";
    case fe::problem_kind::interrupted:
      return "splitmerge:interrupted";
    case fe::problem_kind::input_output:
      return "splitmerge:file";
    default:
      break;
  }
  if (p.parameter == "fit") return "smsegment:imageSize";
  if (p.parameter == "rescale") return "smsegment:imageRange";
  if (p.parameter == "image") return "smsegment:imageClass";
  return "smsegment:badOption";
}

mxArray* cell_of(const std::vector<std::string>& texts) {
  mxArray* cell = mxCreateCellMatrix(1, static_cast<mwSize>(texts.size()));
  for (std::size_t k = 0; k < texts.size(); ++k)
    mxSetCell(cell, static_cast<mwIndex>(k), mxCreateString(texts[k].c_str()));
  return cell;
}

// Copies values in C order of (Z, Y, X) into MATLAB's (Y, X, Z) order.
template <class T>
void to_matlab_order(const std::int32_t* from, T* to, std::int64_t nz, std::int64_t ny,
                     std::int64_t nx, std::int32_t offset = 0) {
  for (std::int64_t z = 0; z < nz; ++z)
    for (std::int64_t y = 0; y < ny; ++y)
      for (std::int64_t x = 0; x < nx; ++x)
        to[(z * nx + x) * ny + y] = static_cast<T>(from[(z * ny + y) * nx + x] + offset);
}

mxArray* parameters_struct(const parameters& p) {
  const auto& names = fe::parameter_names();
  std::vector<std::string> spelled;
  std::vector<const char*> fields;
  for (const auto name : names) spelled.push_back(fe::option_name(name, fe::spelling::matlab));
  for (const auto& s : spelled) fields.push_back(s.c_str());
  mxArray* out = mxCreateStructMatrix(1, 1, static_cast<int>(fields.size()), fields.data());
  for (std::size_t k = 0; k < names.size(); ++k)
    mxSetField(out, 0, fields[k], mxCreateDoubleScalar(std::stod(fe::parameter_text(p, names[k]))));
  return out;
}

void segment_call(int nlhs, mxArray* plhs[], const mxArray* image, const mxArray* opts, report& r) {
  fe::array_view view;
  if (!pixel_type_of(image, view.type) || mxIsComplex(image) || mxIsSparse(image)) {
    r.fail("smsegment:imageClass", "I must be a full real numeric or logical array, not %s%s%s",
           mxIsSparse(image) ? "sparse " : "", mxIsComplex(image) ? "complex " : "",
           mxGetClassName(image));
    return;
  }
  const mwSize ndims = mxGetNumberOfDimensions(image);
  const mwSize* dims = mxGetDimensions(image);
  if (ndims > 4) {
    r.fail("smsegment:imageSize",
           "I has %d dimensions; a 2-D image or 3-D volume, grey or colour, has at most 4",
           static_cast<int>(ndims));
    return;
  }
  view.data = mxGetData(image);
  view.order = fe::host_order::matlab;
  view.ndim = static_cast<int>(ndims);
  std::vector<std::int64_t> shape(ndims);
  for (mwSize d = 0; d < ndims; ++d) shape[d] = static_cast<std::int64_t>(dims[d]);
  view = fe::contiguous_view(view.data, view.type, view.order, view.ndim, shape.data());
  if (mxIsEmpty(image)) view.data = nullptr;

  parameters p;
  const auto& names = fe::parameter_names();
  std::int32_t* whole[] = {&p.max_level,   &p.lim_oct_level,   &p.init_level,
                           &p.group_mode,  &p.max_seed,        &p.use_all_seeds,
                           &p.pred_choice, &p.interval_length, nullptr,
                           nullptr,        &p.threshold_row,   nullptr,
                           &p.small_size,  &p.statistic_update};
  for (std::size_t k = 0; k < names.size(); ++k)
    if (whole[k] != nullptr) *whole[k] = int_field(opts, std::string(names[k]).c_str(), *whole[k]);
  p.rejection = field(opts, "rejection", p.rejection);
  p.sigma = field(opts, "sigma", p.sigma);
  p.pseudo_factor = field(opts, "pseudo_factor", p.pseudo_factor);

  fe::request req;
  req.fit = static_cast<fe::fit_mode>(int_field(opts, "fit", 0));
  req.rescale = field(opts, "rescale", 0) != 0;
  req.low_percentile = field(opts, "low", 0.0);
  req.high_percentile = field(opts, "high", 100.0);
  req.colour = field(opts, "volume", 0) != 0 ? fe::colour_mode::volume : fe::colour_mode::automatic;
  req.start_label = int_field(opts, "start_label", fe::default_start_label);
  const bool verbose = field(opts, "verbose", 0) != 0;
  const bool want_frames = field(opts, "frames", 0) != 0;
  const bool want_regions = field(opts, "regions", 0) != 0;

  const fe::prepared prepared = fe::prepare(view, p, req);
  if (prepared.failure.kind != fe::problem_kind::none) {
    r.fail(identifier(prepared.failure), "%s",
           fe::worded(prepared.failure.text, fe::spelling::matlab).c_str());
    return;
  }
  for (const auto& w : prepared.warnings)
    mexWarnMsgIdAndTxt("smsegment:outOfRange", "%s",
                       fe::worded(w.text, fe::spelling::matlab).c_str());

  options run_opts;
  run_opts.display = want_frames;
  run_opts.collect_regions = want_regions;
  run_opts.memory_limit = static_cast<std::uint64_t>(std::max(0.0, field(opts, "memory_limit", 0)));
  std::string lines;
  run_opts.line_sink = [&](std::string_view text) {
    lines.append(text);
    if (verbose) mexPrintf("%.*s", static_cast<int>(text.size()), text.data());
  };
  run_opts.error_sink = [](std::string_view) {};
  run_opts.interrupt = [] { return host_interrupt_pending(); };
  fe::result result = fe::run(prepared, run_opts);
  if (result.failure.kind != fe::problem_kind::none) {
    r.fail(identifier(result.failure), "%s",
           fe::worded(result.failure.text, fe::spelling::matlab).c_str());
    return;
  }
  const std::int64_t nz = prepared.shape[0], ny = prepared.shape[1], nx = prepared.shape[2];
  const mwSize out_dims[4] = {static_cast<mwSize>(ny), static_cast<mwSize>(nx),
                              static_cast<mwSize>(nz), 0};
  const mwSize out_ndims = prepared.dimensions == 3 ? 3 : 2;
  mxArray* labels = mxCreateNumericArray(out_ndims, out_dims, mxDOUBLE_CLASS, mxREAL);
  to_matlab_order(result.labels.data(), mxGetPr(labels), nz, ny, nx);
  plhs[0] = labels;
  if (nlhs >= 2) plhs[1] = mxCreateDoubleScalar(result.region_count);
  if (nlhs < 3) return;

  const char* fields[] = {"Lines", "Notes",   "Parameters", "Origin",
                          "Size",  "Version", "Frames",     "Regions"};
  mxArray* info = mxCreateStructMatrix(1, 1, 8, fields);
  std::vector<std::string> line_list;
  for (std::size_t at = 0; at < lines.size();) {
    const std::size_t nl = lines.find('\n', at);
    line_list.push_back(lines.substr(at, nl - at));
    at = nl == std::string::npos ? lines.size() : nl + 1;
  }
  mxSetField(info, 0, "Lines", cell_of(line_list));
  mxSetField(info, 0, "Notes", cell_of(prepared.notes));
  mxSetField(info, 0, "Parameters", parameters_struct(prepared.resolved));
  const fe::placement& box = prepared.segmented;
  mxArray* origin = mxCreateDoubleMatrix(1, 3, mxREAL);
  mxArray* size = mxCreateDoubleMatrix(1, 3, mxREAL);
  const double o[3] = {static_cast<double>(box.y0 + 1), static_cast<double>(box.x0 + 1),
                       static_cast<double>(box.z0 + 1)};
  const double s[3] = {static_cast<double>(box.size_y), static_cast<double>(box.size_x),
                       static_cast<double>(box.size_z)};
  std::copy(o, o + 3, mxGetPr(origin));
  std::copy(s, s + 3, mxGetPr(size));
  mxSetField(info, 0, "Origin", origin);
  mxSetField(info, 0, "Size", size);
  mxSetField(info, 0, "Version", mxCreateString(fe::version()));
  if (want_frames) {
    const std::int32_t count = result.run.frame_count;
    const mwSize frame_dims[4] = {static_cast<mwSize>(ny), static_cast<mwSize>(nx),
                                  static_cast<mwSize>(nz), static_cast<mwSize>(count)};
    mxArray* frames = mxCreateNumericArray(4, frame_dims, mxINT32_CLASS, mxREAL);
    auto* to = static_cast<std::int32_t*>(mxGetData(frames));
    const auto n = static_cast<std::size_t>(prepared.input_pixels());
    const auto segmented = static_cast<std::size_t>(box.size_x) *
                           static_cast<std::size_t>(box.size_y) *
                           static_cast<std::size_t>(box.size_z);
    std::vector<std::int32_t> frame(n);
    for (std::size_t k = 0; k < static_cast<std::size_t>(count); ++k) {
      fe::to_input(prepared, result.run.frames.data() + k * segmented, frame.data(), 0, -1);
      to_matlab_order(frame.data(), to + k * n, nz, ny, nx);
    }
    mxSetField(info, 0, "Frames", frames);
  }
  if (want_regions)
    mxSetField(info, 0, "Regions", regions_output(result.run.regions, box.size_x > 256));
  plhs[2] = info;
}

}  // namespace

}  // namespace splitmerge::gateway

extern "C" void mexFunction(int nlhs, mxArray* plhs[], int nrhs, const mxArray* prhs[]) {
  using namespace splitmerge::gateway;
  report r;
  if (nrhs != 2 || !mxIsStruct(prhs[1])) {
    mexErrMsgIdAndTxt("smsegment:badCall", "smsegment_mex(I, opts) is called by smsegment");
    return;
  }
  try {
    segment_call(nlhs, plhs, prhs[0], prhs[1], r);
  } catch (const std::bad_alloc&) {
    r.fail("splitmerge:outOfMemory", "out of memory while segmenting");
  } catch (const std::exception& e) {
    r.fail("splitmerge:internal", "%s", e.what());
  }
  if (r.failed()) mexErrMsgIdAndTxt(r.id, "%s", r.message);
}
