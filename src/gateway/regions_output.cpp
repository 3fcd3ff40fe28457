// The region list as a host struct array, shared by both gateways.
#include <algorithm>
#include <utility>

#include "gateway/gateway.hpp"

namespace splitmerge::gateway {

namespace {

template <class T>
mxArray* row_of(mxClassID class_id, const T* values, std::size_t count) {
  mxArray* a = mxCreateNumericMatrix(1, static_cast<mwSize>(count), class_id, mxREAL);
  if (count != 0) std::copy_n(values, count, static_cast<T*>(mxGetData(a)));
  return a;
}

}  // namespace

// Output 2: one struct per region, in label order. Codes are uint32 for
// images of up to 256 pixels along an edge and uint64 above.
mxArray* regions_output(const std::vector<region_record>& regions, bool wide_codes) {
  const char* fields[] = {"statistics", "codes", "neighbours"};
  owned_array out(mxCreateStructMatrix(1, static_cast<mwSize>(regions.size()), 3, fields));
  for (std::size_t k = 0; k < regions.size(); ++k) {
    const region_record& region = regions[k];
    const auto index = static_cast<mwIndex>(k);
    mxSetField(out.get(), index, "statistics", row_of(mxINT64_CLASS, region.statistics, 2));
    if (wide_codes) {
      mxSetField(out.get(), index, "codes",
                 row_of(mxUINT64_CLASS, region.codes.data(), region.codes.size()));
    } else {
      const std::vector<std::uint32_t> narrow(region.codes.begin(), region.codes.end());
      mxSetField(out.get(), index, "codes", row_of(mxUINT32_CLASS, narrow.data(), narrow.size()));
    }
    mxSetField(out.get(), index, "neighbours",
               row_of(mxINT32_CLASS, region.neighbours.data(), region.neighbours.size()));
  }
  return out.release();
}

}  // namespace splitmerge::gateway
