"""Dtype, shape and memory-order handling, colour, rescaling and fitting (the
messages for unusable images are rows of test_parameters)."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest

import splitmerge
from conftest import noise_image

ARGS = dict(pred_choice="range", interval_length=12, small_size=4)


@pytest.mark.parametrize("dtype", [np.uint8, np.int8, np.uint16, np.int16, np.uint32,
                                   np.int64, np.uint64, np.float16, np.float32, np.float64,
                                   ">i4", "<f8", ">f4"])
def test_every_numeric_dtype_gives_the_int32_labels(dtype) -> None:
    image = noise_image((64, 64), seed=1).clip(0, 127)  # fits int8 too
    expected = splitmerge.segment(image, **ARGS)
    labels = splitmerge.segment(image.astype(dtype), **ARGS)
    assert labels.dtype == np.int32 and labels.shape == image.shape
    np.testing.assert_array_equal(labels, expected)


def test_boolean_images_are_0_and_255_and_lists_are_arrays() -> None:
    mask = np.zeros((16, 16), bool)
    mask[4:12, 4:12] = True
    np.testing.assert_array_equal(splitmerge.segment(mask, **ARGS),
                                  splitmerge.segment(mask * np.int32(255), **ARGS))
    image = [[0, 0, 9, 9], [0, 0, 9, 9], [50, 50, 9, 9], [50, 50, 9, 9]]
    labels = splitmerge.segment(image, pred_choice="range", interval_length=0, small_size=0)
    # Label 1 is the largest region, the 9s.
    assert labels.tolist() == [[2, 2, 1, 1], [2, 2, 1, 1], [3, 3, 1, 1], [3, 3, 1, 1]]


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


def test_colour_pictures_are_segmented_as_their_grey_levels() -> None:
    rgb = np.random.default_rng(5).integers(0, 256, size=(32, 32, 3)).astype(np.uint8)
    r, g, b = (rgb[..., k].astype(np.int64) for k in range(3))
    grey = (299 * r + 587 * g + 114 * b + 500) // 1000
    result = splitmerge.segment(rgb, info=True)
    np.testing.assert_array_equal(result.labels, splitmerge.segment(grey))
    assert result.labels.shape == (32, 32) and result.notes
    rgba = np.concatenate([rgb, np.full((32, 32, 1), 7, np.uint8)], axis=2)
    np.testing.assert_array_equal(splitmerge.segment(rgba), result.labels)


def grey_levels(image: np.ndarray, **options: Any) -> tuple[list[int], list[str]]:
    """The grey levels the run saw (its range statistics) and its notes."""
    result = splitmerge.segment(image, pred_choice="range", interval_length=0, small_size=0,
                                regions=True, **options)
    return sorted({v for r in result.regions for v in r.statistics}), result.notes


@pytest.mark.parametrize("image, rescale, levels, note", [
    # (v - 1) * 255 / 4 for v = 1..5: 0, 63.75, 127.5, 191.25, 255, half away from 0.
    (np.array([[1.0, 2.0, 3.0, 4.0], [5.0] * 4] * 2), True, [0, 64, 128, 191, 255],
     "rescaled the values 1..5 to 0..255"),
    (np.full((4, 4), 7.5), True, [0], None),
    # 0..15: the 10th percentile at rank 1.5, the 90th at 13.5; 21.25 per value.
    (np.arange(16, dtype=np.int16)[::-1].reshape(4, 4), (10, 90),
     [0, 11, 32, 53, 74, 96, 117, 138, 159, 181, 202, 223, 244, 255],
     "rescaled the values between the 10th and 90th percentiles, 1.5..13.5, to 0..255 "
     "(values outside clipped)"),
    # Ranks 0..15 hold 0 x 8, 100 x 7, 1000: rank 14.7 is 100 + 0.7 * 900 = 730.
    (np.array([0] * 8 + [100] * 7 + [1000], np.uint16).reshape(4, 4), (2, 98), [0, 35, 255],
     "rescaled the values between the 2nd and 98th percentiles, 0..730,"),
    (np.arange(16.0).reshape(4, 4), (12.5, 21), None, "between the 12.5th and 21st"),
    (np.arange(16.0).reshape(4, 4), (22, 43), None, "between the 22nd and 43rd"),
    (np.arange(16.0).reshape(4, 4), (0, 100), None, "rescaled the values 0..15 to 0..255"),
])
def test_rescale_maps_values_onto_0_to_255(image, rescale, levels, note) -> None:
    seen, notes = grey_levels(image, rescale=rescale)
    if levels is not None:
        assert seen == levels
    if note is not None:
        assert note in notes[0]


def test_rescale_maps_the_whole_volume_before_the_slice() -> None:
    # Slice 0 spans 0..10 but the volume 0..1000: the slice stays dark.
    volume = np.zeros((2, 4, 6))
    volume[0] = np.arange(24).reshape(4, 6) % 11
    volume[1, 0, 0] = 1000
    seen, notes = grey_levels(volume, slice=0, fit="crop", rescale=True)
    assert seen == [0, 1, 2, 3] and notes[0] == "rescaled the values 0..1000 to 0..255"
    # Of the 48 values, the 95th percentile (rank 44.65) is 9.65.
    seen, notes = grey_levels(volume, slice=0, fit="crop", rescale=(0, 95))
    assert ", 0..9.65," in notes[0] and seen[-1] == 255
    volume[1, 2, 2] = np.nan
    with pytest.raises(ValueError, match="^the image holds NaN or infinite values$"):
        splitmerge.segment(volume, slice=0, rescale=True)


@pytest.mark.parametrize("shape, fit, box, max_level", [
    ((3, 5), "pad", (slice(0, 3), slice(0, 5)), 3),
    ((37, 50), "pad", (slice(0, 37), slice(0, 50)), 6),
    ((5, 40, 33), "pad", (slice(0, 5), slice(0, 40), slice(0, 33)), 6),
    ((10, 12), "crop", (slice(1, 9), slice(2, 10)), 3),
    ((5, 4, 4), "crop", (slice(0, 4), slice(0, 4), slice(0, 4)), 2),
    ((300, 300), "pad", (slice(0, 300), slice(0, 300)), 9),
    ((520, 600), "crop", (slice(4, 516), slice(44, 556)), 9),
    ((4, 600, 700), "crop", (slice(0, 4), slice(44, 556), slice(94, 606)), 9),
])
@pytest.mark.parametrize("start_label", [1, 0])
def test_fit_gives_labels_of_the_inputs_shape(shape, fit, box, max_level, start_label) -> None:
    image = noise_image(shape, seed=sum(shape), levels=6)
    frames = image.size <= 64 * 64 * 8  # those of the large images take gigabytes
    result = splitmerge.segment(image, fit=fit, frames=frames, regions=True,
                                start_label=start_label)
    labels = result.labels
    assert labels.shape == image.shape and labels.dtype == np.int32
    assert labels.flags.c_contiguous
    assert not frames or result.frames.shape[1:] == image.shape
    assert result.box == box and result.parameters["max_level"] == max_level
    assert len(result.regions) == result.region_count
    np.testing.assert_array_equal(labels, splitmerge.segment(image, fit=fit,
                                                             start_label=start_label))
    if fit == "pad":
        # The padded run's labels at the input's place: the zero border is a
        # region of its own that may not show here.
        edge = 2**max_level
        slices = 2**(max_level - result.parameters["lim_oct_level"])
        padded = np.zeros(((slices,) if len(shape) == 3 else ()) + (edge, edge), np.int32)
        at = tuple(slice((p - n) // 2, (p - n) // 2 + n) for p, n in zip(padded.shape, shape))
        padded[at] = image
        whole = splitmerge.segment(padded, frames=frames, start_label=start_label, info=True)
        np.testing.assert_array_equal(labels, whole.labels[at])
        if frames:
            np.testing.assert_array_equal(result.frames, whole.frames[(Ellipsis,) + at])
        assert labels.max() <= result.region_count - 1 + start_label
    else:
        np.testing.assert_array_equal(labels[box], splitmerge.segment(
            image[box], start_label=start_label))
        outside = np.ones(shape, bool)
        outside[box] = False
        assert (labels[outside] == start_label - 1).all()
        assert not frames or (result.frames[:, outside] == -1).all()

