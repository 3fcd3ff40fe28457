// The front-end layer: every pixel type, layout and colour reads as the same
// grey image; fitting maps labels back onto the input; options are worded
// per front end.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "splitmerge/frontend.hpp"
#include "support/run_setup.hpp"

namespace splitmerge {
namespace {

namespace fe = frontend;

fe::array_view numpy_view(const std::vector<std::int32_t>& v, std::int64_t ny, std::int64_t nx) {
  const std::int64_t shape[2] = {ny, nx};
  return fe::contiguous_view(v.data(), fe::pixel_type::int32, fe::host_order::numpy, 2, shape);
}

fe::request asked(fe::fit_mode fit, std::int32_t start_label = 1, double rescale_to = 0.0) {
  fe::request r;
  r.fit = fit;
  r.start_label = start_label;
  r.rescale = rescale_to > 0.0;  // the high percentile
  r.high_percentile = rescale_to;
  return r;
}

fe::result run(const fe::array_view& view, fe::request req = {}, parameters p = {}) {
  options quiet;
  quiet.display = false;
  quiet.line_sink = [](std::string_view) {};
  return fe::run(fe::prepare(view, p, req), quiet);
}

TEST(FrontEnd, EveryTypeLayoutAndColourReadsAsTheSameGreyImage) {
  std::mt19937 rng(7);
  const int n = 32;
  const std::vector<std::int32_t> grey = testing::blob_image(rng, n, 1);
  const fe::result reference = run(numpy_view(grey, n, n));
  ASSERT_EQ(reference.failure.kind, fe::problem_kind::none) << reference.failure.text;

  // The same values as doubles, uint8, in MATLAB's order (rows y, column-major),
  // and as a colour picture whose three channels are equal.
  std::vector<double> as_double(grey.begin(), grey.end());
  std::vector<std::uint8_t> as_u8(grey.begin(), grey.end()), column_major(grey.size());
  std::vector<std::uint16_t> rgb(grey.size() * 3);
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const auto v = static_cast<std::uint8_t>(grey[static_cast<std::size_t>(y * n + x)]);
      column_major[static_cast<std::size_t>(x * n + y)] = v;
      for (int c = 0; c < 3; ++c) rgb[static_cast<std::size_t>((y * n + x) * 3 + c)] = v;
    }
  const std::int64_t shape2[2] = {n, n}, shape3[3] = {n, n, 3};
  const std::vector<fe::array_view> views = {
      fe::contiguous_view(as_double.data(), fe::pixel_type::float64, fe::host_order::numpy, 2,
                          shape2),
      fe::contiguous_view(as_u8.data(), fe::pixel_type::uint8, fe::host_order::numpy, 2, shape2),
      fe::contiguous_view(column_major.data(), fe::pixel_type::uint8, fe::host_order::matlab, 2,
                          shape2),
      fe::contiguous_view(rgb.data(), fe::pixel_type::uint16, fe::host_order::numpy, 3, shape3)};
  for (std::size_t k = 0; k < views.size(); ++k) {
    const fe::result r = run(views[k]);
    ASSERT_EQ(r.failure.kind, fe::problem_kind::none) << k << ": " << r.failure.text;
    EXPECT_EQ(r.labels, reference.labels) << "view " << k;
  }
}

TEST(FrontEnd, ColourBooleanAndDefaultRules) {
  // (299 R + 587 G + 114 B + 500) / 1000 for whole numbers; true is 255.
  const std::uint8_t rgb[2 * 6 * 3] = {255, 0, 0, 10, 20, 30, 0, 255, 0, 0, 0, 255, 1, 1, 1};
  const std::int64_t shape[3] = {2, 6, 3};
  fe::prepared p =
      fe::prepare(fe::contiguous_view(rgb, fe::pixel_type::uint8, fe::host_order::numpy, 3, shape),
                  {}, asked(fe::fit_mode::crop));
  ASSERT_EQ(p.failure.kind, fe::problem_kind::none) << p.failure.text;
  // Kept: x 2..3 of rows 0..1, (255 * 587 + 500) / 1000 = 150.185 and 29.57.
  EXPECT_EQ(std::vector<int>(p.image().data8, p.image().data8 + 4),
            (std::vector<int>{150, 29, 0, 0}));
  const bool mask[4] = {false, true, true, false};
  const std::int64_t square[2] = {2, 2};
  p = fe::prepare(
      fe::contiguous_view(mask, fe::pixel_type::boolean, fe::host_order::numpy, 2, square), {}, {});
  ASSERT_EQ(p.failure.kind, fe::problem_kind::none);
  EXPECT_EQ(std::vector<int>(p.image().data8, p.image().data8 + 4),
            (std::vector<int>{0, 255, 255, 0}));
  // The defaults every front end documents, levels taken from the image.
  std::string defaults;
  for (const std::string_view name : fe::parameter_names())
    defaults += fe::parameter_text(parameters{}, name) + " ";
  EXPECT_EQ(defaults, "-1 -1 -1 0 8 0 4 10 0.1 5 3 2 30 1 ");
}

TEST(FrontEnd, LabelsKeepTheInputsShapeAfterPadAndCrop) {
  // A 6 x 5 image: pad segments 8 x 8, crop the centred 4 x 4 at x 1..4, y 0..3.
  std::vector<std::int32_t> image(30);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = i % 6 < 3 ? 10 : 200;
  const fe::array_view view = numpy_view(image, 5, 6);
  const fe::result padded = run(view, asked(fe::fit_mode::pad), {.small_size = 0});
  ASSERT_EQ(padded.failure.kind, fe::problem_kind::none) << padded.failure.text;
  ASSERT_EQ(padded.labels.size(), 30u);
  for (std::size_t i = 0; i < 30; ++i)
    EXPECT_EQ(padded.labels[i] == padded.labels[0], i % 6 < 3) << i;

  for (const std::int32_t start : {0, 1, 5}) {
    const fe::result cropped = run(view, asked(fe::fit_mode::crop, start), {.small_size = 0});
    ASSERT_EQ(cropped.failure.kind, fe::problem_kind::none) << cropped.failure.text;
    ASSERT_EQ(cropped.labels.size(), 30u);
    for (std::size_t i = 0; i < 30; ++i) {
      const std::size_t x = i % 6, y = i / 6;
      const bool kept = x >= 1 && x <= 4 && y <= 3;
      if (!kept) {
        EXPECT_EQ(cropped.labels[i], start - 1) << i;
      } else {
        EXPECT_GE(cropped.labels[i], start) << i;
        EXPECT_LT(cropped.labels[i], start + cropped.region_count) << i;
      }
    }
  }
}

TEST(FrontEnd, ProblemsNameTheOptionThatHelpsInEachFrontEndsWords) {
  std::vector<std::int32_t> image(6 * 5, 7);
  const fe::prepared size = fe::prepare(numpy_view(image, 5, 6), {}, {});
  EXPECT_EQ(size.failure.parameter, "fit");
  image[3] = 300;
  const fe::prepared values = fe::prepare(numpy_view(image, 5, 6), {}, asked(fe::fit_mode::pad));
  EXPECT_EQ(values.failure.parameter, "rescale");
  const fe::prepared sigma =
      fe::prepare(numpy_view(std::vector<std::int32_t>(16, 1), 4, 4), {.sigma = 1.0 / 0.0}, {});
  EXPECT_EQ(sigma.failure.parameter, "sigma");
  struct wording {
    fe::spelling how;
    const char* text;
  };
  const char* message =
      "{sigma=inf}: must be finite; use {fit=pad} or {rescale=true} ({small_size})";
  for (const auto& [how, text] : std::vector<wording>{
           {fe::spelling::library,
            "sigma = inf: must be finite; use fit = pad or rescale = true (small_size)"},
           {fe::spelling::command_line,
            "--sigma inf: must be finite; use --fit pad or --rescale (--small-size)"},
           {fe::spelling::python,
            "sigma=inf: must be finite; use fit='pad' or rescale=True (small_size)"},
           {fe::spelling::matlab,
            "'Sigma', inf: must be finite; use 'Fit', 'pad' or 'Rescale', true ('SmallSize')"}})
    EXPECT_EQ(fe::worded(message, how), text);
  EXPECT_EQ(fe::option_name("pred_choice", fe::spelling::matlab), "Predicate");
  EXPECT_EQ(fe::option_name("group_mode", fe::spelling::matlab), "Grouping");
}

TEST(FrontEnd, RescaleMapsTheWholeInputsWindow) {
  // Values 0, 10, ..., 150 over 4 x 4: min-max maps 150 to 255; the 0..50
  // percentile window clips the upper half.
  std::vector<double> values(16);
  for (std::size_t i = 0; i < 16; ++i) values[i] = 10.0 * static_cast<double>(i);
  const std::int64_t shape[2] = {4, 4};
  const auto view =
      fe::contiguous_view(values.data(), fe::pixel_type::float64, fe::host_order::numpy, 2, shape);
  fe::prepared full = fe::prepare(view, {}, asked(fe::fit_mode::none, 1, 100.0));
  ASSERT_EQ(full.failure.kind, fe::problem_kind::none) << full.failure.text;
  EXPECT_EQ(full.image().data8[15], 255);
  EXPECT_EQ(full.image().data8[1], 17);  // 10 * 255 / 150
  fe::prepared window = fe::prepare(view, {}, asked(fe::fit_mode::none, 1, 50.0));
  ASSERT_EQ(window.failure.kind, fe::problem_kind::none) << window.failure.text;
  EXPECT_EQ(window.image().data8[8], 255);                     // 75 is the median: clipped above it
  EXPECT_EQ(fe::prepare(view, {}, {}).failure.parameter, "");  // whole numbers 0..150
  values[2] = 2.5;
  EXPECT_EQ(fe::prepare(view, {}, {}).failure.parameter, "rescale");
}

}  // namespace
}  // namespace splitmerge
