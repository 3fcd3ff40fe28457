"""Dtype, shape and memory-order handling, fitting and value checks."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import noise_image

ARGS = dict(pred_choice="range", interval_length=12, small_size=4)


def test_int32_c_contiguous_is_used_without_a_copy(blocks_64: np.ndarray) -> None:
    assert splitmerge.fit_image(blocks_64).pixels is blocks_64


@pytest.mark.parametrize("dtype", [np.uint8, np.int8, np.uint16, np.int16, np.uint32,
                                   np.int64, np.uint64, np.float16, np.float32, np.float64,
                                   ">i4", "<f8", ">f4"])
def test_every_numeric_dtype_gives_the_int32_labels(blocks_64: np.ndarray, dtype) -> None:
    image = blocks_64.clip(0, 127)  # fits int8 too
    expected = splitmerge.segment(image, **ARGS)
    labels = splitmerge.segment(image.astype(dtype), **ARGS)
    assert labels.dtype == np.int32 and labels.shape == image.shape
    np.testing.assert_array_equal(labels, expected)


def test_boolean_images_are_zero_and_one() -> None:
    mask = np.zeros((16, 16), bool)
    mask[4:12, 4:12] = True
    np.testing.assert_array_equal(splitmerge.segment(mask, **ARGS),
                                  splitmerge.segment(mask.astype(np.int32), **ARGS))


def test_nested_lists_are_accepted() -> None:
    image = [[0, 0, 9, 9], [0, 0, 9, 9], [50, 50, 9, 9], [50, 50, 9, 9]]
    labels = splitmerge.segment(image, pred_choice="range", interval_length=0, small_size=0)
    # Label 0 is the largest region, the 9s.
    assert labels.tolist() == [[1, 1, 0, 0], [1, 1, 0, 0], [2, 2, 0, 0], [2, 2, 0, 0]]


@pytest.mark.parametrize("layout", ["fortran", "strided", "reversed", "transposed_volume"])
def test_memory_order_does_not_change_the_result(layout: str) -> None:
    volume = noise_image((8, 32, 32), seed=3)
    if layout == "fortran":
        given = np.asfortranarray(volume)
    elif layout == "strided":
        big = np.zeros((16, 64, 64), np.int32)
        big[::2, ::2, ::2] = volume
        given = big[::2, ::2, ::2]
    elif layout == "reversed":
        given = volume[::-1, ::-1].copy()[::-1, ::-1]
    else:
        given = np.ascontiguousarray(volume.transpose(2, 1, 0)).transpose(2, 1, 0)
    assert not given.flags.c_contiguous
    np.testing.assert_array_equal(given, volume)
    np.testing.assert_array_equal(splitmerge.segment(given, **ARGS),
                                  splitmerge.segment(volume, **ARGS))


def test_x_is_the_fastest_axis() -> None:
    # Two columns of different grey: the labels keep the (Y, X) layout.
    image = np.zeros((8, 8), np.int32)
    image[:, 4:] = 100
    labels = splitmerge.segment(image, pred_choice="range", interval_length=0, small_size=0)
    assert (labels[:, :4] == labels[0, 0]).all() and (labels[:, 4:] == labels[0, 7]).all()
    assert labels[0, 0] != labels[0, 7]


def test_volume_keeps_its_z_y_x_shape() -> None:
    volume = noise_image((4, 16, 16), seed=4)
    labels = splitmerge.segment(volume, **ARGS)
    assert labels.shape == (4, 16, 16)
    one_slice = noise_image((1, 16, 16), seed=4)
    assert splitmerge.segment(one_slice, **ARGS).shape == (1, 16, 16)


@pytest.mark.parametrize("shape", [(16,), (2, 2, 2, 2), ()])
def test_wrong_dimension_count_is_a_value_error(shape) -> None:
    with pytest.raises(ValueError, match=r"needs a 2-D \(Y, X\) or 3-D \(Z, Y, X\) array"):
        splitmerge.segment(np.zeros(shape, np.int32))


@pytest.mark.parametrize("dtype", [np.complex64, object, "U3", "datetime64[s]"])
def test_non_numeric_dtype_is_a_type_error(dtype) -> None:
    with pytest.raises(TypeError, match="integer or floating-point pixels"):
        splitmerge.segment(np.zeros((8, 8), dtype))


@pytest.mark.parametrize("shape, message", [
    ((5, 5), r"^the image width 5 is not a power of two \(allowed: 2, 4, \.\.\., 4096\)"),
    ((8, 16), r"^invalid parameter size_y = 8: must equal size_x = 16 \(square slices\)"),
    ((3, 8, 8), r"^the slice count 3 is not a power of two"),
    ((16, 8, 8), r"^invalid parameter lim_oct_level = -1: must be 0 to max_level \(3\)"),
    ((2, 1024, 1024), r"^invalid parameter max_level = 10: must be at most 9 for a volume"),
    ((0, 0), r"^the image width 0 is not a power of two"),
    ((1, 1), r"^invalid parameter max_level = 0: must be 1 to 12 \(1 to 9 for a volume\)"),
])
def test_unsegmentable_shape_gives_the_library_message(shape, message) -> None:
    with pytest.raises(ValueError, match=message) as raised:
        splitmerge.segment(np.zeros(shape, np.int32))
    assert str(raised.value).endswith("fit='pad' or fit='crop' makes any shape fit")
    assert "\n" not in str(raised.value)


def test_explicit_levels_are_not_blamed_on_the_shape() -> None:
    with pytest.raises(ValueError) as raised:
        splitmerge.segment(np.zeros((8, 8), np.int32), max_level=4)
    assert str(raised.value) == ("invalid parameter size_x = 8: must be 2^max_level = 16 "
                                 "(the image edge)")


@pytest.mark.parametrize("values, message", [
    ([256], r"^the pixel values range from 0 to 256, but the segmentation needs 0\.\.255: "
            r"use rescale=True$"),
    ([-1], r"^the pixel values range from -1 to 0, but"),
    ([2.5], r"^the image holds non-integer values such as 2\.5: use rescale=True"),
    ([np.nan], r"^the image holds NaN or infinite values$"),
    ([-np.inf], r"^the image holds NaN or infinite values$"),
    ([1e9], r"^the pixel values range from 0 to 1e\+09,"),
])
def test_values_outside_0_to_255_need_rescale(values, message) -> None:
    image = np.zeros((8, 8), np.float64)
    image.flat[5:5 + len(values)] = values
    with pytest.raises(ValueError, match=message):
        splitmerge.segment(image)


def test_int32_values_outside_0_to_255_are_caught_before_the_library() -> None:
    image = np.zeros((8, 8), np.int32)
    image[3, 3] = 1000
    with pytest.raises(ValueError, match="range from 0 to 1000"):
        splitmerge.segment(image)


def test_rescale_maps_the_range_onto_0_to_255_rounding_half_away_from_zero() -> None:
    # (v - 1) * 255 / 4 for v = 1..5: 0, 63.75, 127.5, 191.25, 255.
    ramp = np.array([[1.0, 2.0, 3.0, 4.0], [5.0, 5.0, 5.0, 5.0]] * 2)
    fitted = splitmerge.fit_image(ramp, rescale=True)
    assert fitted.pixels.tolist() == [[0, 64, 128, 191], [255] * 4] * 2
    assert fitted.notes == ["rescaled the values 1..5 to 0..255"]


def test_rescale_of_a_constant_image_is_zero() -> None:
    fitted = splitmerge.fit_image(np.full((4, 4), 7.5), rescale=True)
    assert not fitted.pixels.any()


def test_percentile_window_interpolates_between_ranks_and_clips() -> None:
    # 0..15: the 10th percentile lies at rank 1.5 (1.5), the 90th at 13.5
    # (13.5); 255 / 12 = 21.25 per grey value.
    image = np.arange(16, dtype=np.int16)[::-1].reshape(4, 4)
    fitted = splitmerge.fit_image(image, rescale=(10, 90))
    expected = [0, 0, 11, 32, 53, 74, 96, 117, 138, 159, 181, 202, 223, 244, 255, 255]
    assert fitted.pixels.reshape(-1).tolist() == expected[::-1]
    assert fitted.notes == ["rescaled the values between the 10th and 90th percentiles, "
                            "1.5..13.5, to 0..255 (values outside clipped)"]


def test_percentile_window_with_ties_and_ordinals() -> None:
    # Ranks 0..15 hold 0 x 8, 100 x 7, 1000: rank 0.3 is 0, rank 14.7 is
    # 100 + 0.7 * 900 = 730.
    image = np.array([0] * 8 + [100] * 7 + [1000], dtype=np.uint16).reshape(4, 4)
    fitted = splitmerge.fit_image(image, rescale=(2, 98))
    assert fitted.pixels.reshape(-1).tolist() == [0] * 8 + [35] * 7 + [255]
    assert fitted.notes[0].startswith("rescaled the values between the 2nd and 98th "
                                      "percentiles, 0..730,")
    for window, words in [((1, 99), "1st and 99th"), ((3, 11), "3rd and 11th"),
                          ((12.5, 21), "12.5th and 21st"), ((22, 40), "22nd and 40th"),
                          ((13, 23), "13th and 23rd")]:
        assert f"between the {words}" in splitmerge.fit_image(image, rescale=window).notes[0]
    assert splitmerge.fit_image(image, rescale=(0, 100)).notes == [
        "rescaled the values 0..1000 to 0..255"]


def test_rescale_maps_the_whole_volume_before_the_slice() -> None:
    # Slice 0 spans 0..10 but the volume 0..1000: the slice stays dark, and
    # the crop does not change the mapping either.
    volume = np.zeros((2, 4, 6))
    volume[0] = np.arange(24).reshape(4, 6) % 11
    volume[1, 0, 0] = 1000
    fitted = splitmerge.fit_image(volume, slice=0, fit="crop", rescale=True)
    expected = np.floor(volume[0][:, 1:5] * 0.255 + 0.5).astype(np.int32)
    np.testing.assert_array_equal(fitted.pixels, expected)
    assert fitted.pixels.max() == 3
    assert fitted.notes[0] == "rescaled the values 0..1000 to 0..255"
    # Of the 48 values, 26 are 0, ranks 43 and 44 hold 9, 45 and 46 hold 10:
    # the 95th percentile, rank 44.65, is 9.65 (the slice alone: rank 21.85, 9.85).
    window = splitmerge.fit_image(volume, slice=0, rescale=(0, 95))
    assert ", 0..9.65," in window.notes[0]
    assert window.pixels.max() == 255 and window.pixels[0, 1] == round(255 / 9.65)


def test_values_of_every_slice_are_checked_to_be_finite() -> None:
    volume = np.zeros((2, 4, 4))
    volume[1, 2, 2] = np.nan
    with pytest.raises(ValueError, match="^the image holds NaN or infinite values$"):
        splitmerge.fit_image(volume, slice=0, rescale=True)


@pytest.mark.parametrize("rescale", [(50, 50), (-1, 99), (1, 101), (99, 1), (1, 2, 3), "1,99",
                                     None, (1, "x")])
def test_a_bad_percentile_window_is_a_value_error(rescale) -> None:
    with pytest.raises(ValueError, match="^rescale "):
        splitmerge.fit_image(np.zeros((4, 4)), rescale=rescale)
    with pytest.raises(ValueError, match="^rescale "):
        splitmerge.segment(np.zeros((4, 4)), rescale=rescale)


def test_pad_centres_the_image_in_zeros() -> None:
    image = np.arange(1, 16, dtype=np.int32).reshape(3, 5)
    fitted = splitmerge.fit_image(image, fit="pad")
    assert fitted.pixels.shape == (8, 8)
    # Offsets (8 - 3) // 2 = 2 rows and (8 - 5) // 2 = 1 column.
    np.testing.assert_array_equal(fitted.pixels[2:5, 1:6], image)
    assert fitted.pixels.sum() == image.sum()
    assert fitted.notes == ["padded 5 x 3 to 8 x 8 (centred) for the segmentation; the "
                            "outputs are 5 x 3, as the input"]
    assert fitted.box == (slice(0, 3), slice(0, 5))
    assert fitted.padding == (slice(2, 5), slice(1, 6))
    assert fitted.output_origin == (0, 0, 0)
    np.testing.assert_array_equal(fitted.to_input(fitted.pixels), image)


def test_pad_returns_the_padded_runs_results_at_the_input_place() -> None:
    for shape, seed in (((37, 50), 1), ((5, 40, 33), 2), ((3, 5), 3)):
        image = noise_image(shape, seed=seed, levels=6)
        padded = splitmerge.fit_image(image, fit="pad")
        whole = splitmerge.segment(padded.pixels, frames=True, regions=True)
        result = splitmerge.segment(image, fit="pad", frames=True, regions=True)
        assert result.labels.shape == image.shape and result.labels.dtype == np.int32
        np.testing.assert_array_equal(result.labels, whole.labels[padded.padding])
        assert result.frames.shape == (whole.frames.shape[0],) + image.shape
        np.testing.assert_array_equal(result.frames, whole.frames[(Ellipsis,) + padded.padding])
        assert result.box == tuple(slice(0, n) for n in shape)
        # The region list is the padded image's: the zero border is a region too.
        assert [r.statistics for r in result.regions] == [r.statistics for r in whole.regions]
        assert all(np.array_equal(a.codes, b.codes)
                   for a, b in zip(result.regions, whole.regions))
        labels_only = splitmerge.segment(image, fit="pad")
        np.testing.assert_array_equal(labels_only, result.labels)
        assert labels_only.flags.c_contiguous


def test_pad_of_a_volume_gives_as_many_slices_as_the_next_power_of_two() -> None:
    volume = np.ones((3, 5, 6), np.int32)
    fitted = splitmerge.fit_image(volume, fit="pad")
    assert fitted.pixels.shape == (4, 8, 8)
    np.testing.assert_array_equal(fitted.pixels[0:3, 1:6, 1:7], volume)
    many_slices = splitmerge.fit_image(np.ones((9, 4, 4), np.int32), fit="pad").pixels
    assert many_slices.shape == (16, 16, 16)  # the edge grows to hold 16 slices


def test_crop_cuts_out_the_centred_largest_part() -> None:
    image = np.arange(10 * 12, dtype=np.int32).reshape(10, 12) % 256
    fitted = splitmerge.fit_image(image, fit="crop")
    np.testing.assert_array_equal(fitted.pixels, image[1:9, 2:10])
    assert fitted.box == (slice(1, 9), slice(2, 10)) and fitted.padding == ()
    assert fitted.notes == ["cropped 12 x 10 to 8 x 8 (centred), keeping x 2..9, y 1..8; "
                            "the outputs are 8 x 8"]
    result = splitmerge.segment(image, fit="crop", sigma=3.0, regions=True)
    assert result.box == fitted.box
    np.testing.assert_array_equal(result.labels, splitmerge.segment(image[result.box], sigma=3.0))
    volume = np.arange(5 * 4 * 4, dtype=np.int32).reshape(5, 4, 4)
    cropped = splitmerge.fit_image(volume, fit="crop")
    np.testing.assert_array_equal(cropped.pixels, volume[0:4])
    assert cropped.box == (slice(0, 4), slice(0, 4), slice(0, 4))
    assert cropped.notes[-1].startswith("cropped 4 x 4 x 5 to 4 x 4 x 4 (centred), keeping "
                                        "x 0..3, y 0..3, z 0..3;")
    big = np.zeros((300, 300), np.int32)
    assert splitmerge.fit_image(big, fit="crop").pixels.shape == (256, 256)


def test_fit_leaves_a_segmentable_image_alone(blocks_64: np.ndarray) -> None:
    for mode in ("pad", "crop"):
        fitted = splitmerge.fit_image(blocks_64, fit=mode)
        assert fitted.pixels is blocks_64 and fitted.notes == []


def test_fit_errors_say_what_helps() -> None:
    with pytest.raises(ValueError, match=r"^fit='pad' would need an edge of 8192 pixels for a "
                                         r"5000 x 2 image, above the largest, 4096: "
                                         r"use fit='crop'$"):
        splitmerge.segment(np.zeros((2, 5000), np.int32), fit="pad")
    with pytest.raises(ValueError, match=r"^fit='pad' would need an edge of 1024 pixels for a "
                                         r"2 x 600 x 3 image, above the largest for a volume, "
                                         r"512: use fit='crop' \(or slice=K for one slice\)$"):
        splitmerge.segment(np.zeros((3, 600, 2), np.int32), fit="pad")
    with pytest.raises(ValueError, match=r"^fit='crop' needs at least 2 x 2 pixels; the image "
                                         r"is 7 x 1: use fit='pad'$"):
        splitmerge.segment(np.zeros((1, 7), np.int32), fit="crop")
    with pytest.raises(ValueError, match=r"^fit must be None, 'pad' or 'crop', not 'grow'$"):
        splitmerge.segment(np.zeros((8, 8), np.int32), fit="grow")


def test_slice_takes_one_z_slice_of_a_volume() -> None:
    volume = noise_image((3, 8, 8), seed=9)
    np.testing.assert_array_equal(splitmerge.fit_image(volume, slice=2).pixels, volume[2])
    with pytest.raises(ValueError, match=r"^slice 3 is outside the volume's slices 0\.\.2$"):
        splitmerge.fit_image(volume, slice=3)
    with pytest.raises(ValueError, match="^slice needs a volume, but the image is 2-D$"):
        splitmerge.fit_image(volume[0], slice=0)


CLI = os.environ.get("SPLITMERGE_CLI")


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
@pytest.mark.parametrize("shape, dtype, options", [
    ((37, 50), np.float64, ["--fit", "pad", "--rescale"]),
    ((37, 50), np.float32, ["--fit", "crop", "--rescale"]),
    ((5, 40, 33), np.int16, ["--fit", "pad", "--rescale"]),
    ((5, 40, 33), np.uint8, ["--fit", "crop"]),
    ((6, 20, 20), np.int64, ["--fit", "pad"]),
    ((3, 20, 24), np.float64, ["--slice", "1", "--fit", "crop", "--rescale"]),
    ((37, 50), np.float64, ["--fit", "pad", "--rescale", "1,99"]),
    ((5, 40, 33), np.int16, ["--fit", "crop", "--rescale", "2.5,97.5"]),
    ((6, 20, 20), np.uint16, ["--fit", "pad", "--rescale", "0,90"]),
    ((4, 30, 20), np.float32, ["--slice", "2", "--fit", "crop", "--rescale"]),
    ((4, 30, 20), np.int32, ["--slice", "3", "--fit", "pad", "--rescale", "5,95"]),
    ((3, 16, 16), np.float64, ["--slice", "0", "--rescale", "10,100"]),
])
def test_fitting_matches_the_command_line_program(tmp_path: Path, shape, dtype,
                                                  options) -> None:
    rng = np.random.default_rng(len(shape) * 100 + shape[-1])
    if np.dtype(dtype).kind == "f":
        image = (rng.normal(100, 40, size=shape) * 3.3).astype(dtype)
    else:
        image = rng.integers(0, 256 if "--rescale" not in options else 3000, size=shape)
        image = image.astype(dtype)
    if np.dtype(dtype).kind == "f":
        # The program reads floating-point grey values from NIfTI (x fastest).
        nibabel = pytest.importorskip("nibabel")
        source = tmp_path / "in.nii"
        nibabel.save(nibabel.Nifti1Image(image.T, np.eye(4)), source)
    else:
        source = tmp_path / "in.npy"
        np.save(source, image)
    # Not --quiet: the program's notes on standard error are compared too.
    run = subprocess.run([CLI, str(source), *options, "--labels",
                          str(tmp_path / "labels.npy"), "--save-input",
                          str(tmp_path / "fitted.npy"), "--sigma", "5", "--interval-length",
                          "10", "--small-size", "30"],
                         check=True, timeout=120, capture_output=True, text=True)
    fit = options[options.index("--fit") + 1] if "--fit" in options else None
    k = int(options[options.index("--slice") + 1]) if "--slice" in options else None
    fitted = splitmerge.fit_image(image, fit=fit, rescale=_rescale_option(options), slice=k)
    np.testing.assert_array_equal(fitted.to_input(fitted.pixels), np.load(tmp_path / "fitted.npy"))
    # The same notes (window values included); a NIfTI reader's note may come first. The
    # last line is the run's summary ("splitmerge: N regions in S s (...)").
    notes = run.stderr[:run.stderr.rstrip("\n").rfind("\n") + 1]
    assert notes.endswith("".join(f"splitmerge: {note}\n" for note in fitted.notes))
    assert fitted.notes or not notes
    if k is None:
        labels = splitmerge.segment(image, fit=fit, rescale=_rescale_option(options))
    else:  # segment takes no slice: the fitted slice, cut back to the input as segment does
        labels = fitted.to_input(splitmerge.segment(fitted.pixels))
    assert labels.shape == fitted.to_input(fitted.pixels).shape
    np.testing.assert_array_equal(labels, np.load(tmp_path / "labels.npy"))


def _rescale_option(options: list[str]):
    """fit_image's rescale for the program's options: False, True or (low, high)."""
    if "--rescale" not in options:
        return False
    i = options.index("--rescale")
    if i + 1 < len(options) and "," in options[i + 1]:
        low, high = options[i + 1].split(",")
        return float(low), float(high)
    return True


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
def test_percentile_window_is_the_programs_to_the_last_bit(tmp_path: Path) -> None:
    # The 33rd percentile of these four, rank 0.99, is 6 + 0.99 * 3 =
    # 8.969999999999999 as the program computes it; numpy.percentile gets
    # 8.97 (from 9 - 0.01 * 3), which would put 14.7995... just below 1.5.
    image = np.array([[6.0, 9.0], [14.799588235294117, 1000.0]])
    nibabel = pytest.importorskip("nibabel")
    nibabel.save(nibabel.Nifti1Image(image.T, np.eye(4)), tmp_path / "in.nii")
    subprocess.run([CLI, str(tmp_path / "in.nii"), "--rescale", "33,100", "--quiet",
                    "--save-input", str(tmp_path / "fitted.npy")],
                   check=True, timeout=120, capture_output=True)
    fitted = splitmerge.fit_image(image, rescale=(33, 100))
    assert fitted.pixels.tolist() == [[0, 0], [2, 255]]
    np.testing.assert_array_equal(fitted.pixels, np.load(tmp_path / "fitted.npy"))


SCAN = Path("/usr/share/mricron/templates/ch2.nii.gz")


@pytest.mark.skipif(not CLI or not SCAN.exists(), reason="needs the program and Colin27")
def test_colin27_slice_matches_the_command_line_program(tmp_path: Path) -> None:
    nibabel = pytest.importorskip("nibabel")
    volume = np.asarray(nibabel.load(SCAN).dataobj).T  # (Z, Y, X), x fastest
    subprocess.run([CLI, str(SCAN), "--slice", "90", "--fit", "pad", "--quiet", "--labels",
                    str(tmp_path / "labels.npy")], check=True, timeout=120)
    # The program's defaults for the brain scans.
    labels = splitmerge.segment(volume[90], fit="pad", sigma=3.0, interval_length=12,
                                small_size=50)
    assert labels.shape == volume[90].shape
    np.testing.assert_array_equal(labels, np.load(tmp_path / "labels.npy"))
    assert labels.max() > 10


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
@pytest.mark.parametrize("shape", [(48, 40), (6, 30, 32)])
def test_frames_equal_those_of_the_command_line_program(tmp_path: Path, shape) -> None:
    image = noise_image(shape, seed=sum(shape), levels=6)
    np.save(tmp_path / "in.npy", image)
    subprocess.run([CLI, str(tmp_path / "in.npy"), "--fit", "pad", "--quiet", "--frames",
                    str(tmp_path / "frames.npy"), "--labels", str(tmp_path / "labels.npy"),
                    "--sigma", "5", "--interval-length", "10", "--small-size", "30"],
                   check=True, timeout=120, capture_output=True)
    result = splitmerge.segment(image, fit="pad", frames=True)
    expected = np.load(tmp_path / "frames.npy")
    assert result.frames.shape == expected.shape and expected.shape[0] >= 2
    assert result.frames.shape[1:] == image.shape
    np.testing.assert_array_equal(result.frames, expected)
    np.testing.assert_array_equal(result.labels, np.load(tmp_path / "labels.npy"))
