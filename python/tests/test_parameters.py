"""The fourteen parameters and the run options: names, defaults, types, the
library's ranges, and one row for every kind of message a bad call gets."""

from __future__ import annotations

import doctest
import inspect
import pydoc
import re
import warnings
from typing import Optional

import numpy as np
import pytest

import splitmerge
import splitmerge._api
from conftest import noise_image

INT32_MAX = 2**31 - 1

# The C++ library's defaults (struct parameters), levels derived (-1).
LIBRARY_DEFAULTS = dict(max_level=-1, lim_oct_level=-1, init_level=-1, group_mode=0,
                        max_seed=8, use_all_seeds=0, pred_choice=4, interval_length=10,
                        rejection=0.1, sigma=5.0, threshold_row=3, pseudo_factor=2.0,
                        small_size=30, statistic_update=1)
IMAGE = noise_image((32, 32), seed=11, levels=6)


def test_every_parameter_is_keyword_only_with_the_library_name() -> None:
    signature = inspect.signature(splitmerge.segment)
    for name in LIBRARY_DEFAULTS:
        assert signature.parameters[name].kind is inspect.Parameter.KEYWORD_ONLY
    assert tuple(LIBRARY_DEFAULTS) == splitmerge.PARAMETER_NAMES
    assert splitmerge.DEFAULTS == {n: None if v == -1 else v for n, v in LIBRARY_DEFAULTS.items()}
    assert splitmerge.segment(np.zeros((2, 2)), info=True).version == splitmerge.__version__


@pytest.mark.parametrize("given, same", [
    (dict(LIBRARY_DEFAULTS, max_level=5, lim_oct_level=5, init_level=3), {}),
    (dict(max_level=-1, lim_oct_level=-1, init_level=-1), {}),
    *[(dict(pred_choice=name), dict(pred_choice=number))
      for name, number in sorted(splitmerge.PRED_CHOICES.items())],
    (dict(group_mode="parallel", use_all_seeds=True, max_seed=3, statistic_update=False),
     dict(group_mode=1, use_all_seeds=1, max_seed=3, statistic_update=0)),
    (dict(group_mode="sequential"), dict(group_mode=0)),
    (dict(pred_choice=np.int64(2), sigma=np.float32(4.0), use_all_seeds=np.bool_(True),
          small_size=np.uint8(5), threads=np.int64(3), memory_limit=2**30),
     dict(pred_choice=2, sigma=4.0, use_all_seeds=1, small_size=5, threads=1)),
])
def test_spellings_of_the_same_run_give_the_same_labels(given, same) -> None:
    np.testing.assert_array_equal(splitmerge.segment(IMAGE, **given),
                                  splitmerge.segment(IMAGE, **same))


@pytest.mark.parametrize("extreme, warned", [
    (dict(interval_length=-2**31), "interval_length=-2147483648 is outside its meaningful "
                                   "range (0 or more); running with it as given"),
    (dict(interval_length=INT32_MAX, small_size=INT32_MAX, max_seed=-2**31), None),
    (dict(threshold_row=0, pred_choice="range"), None),
    (dict(threshold_row=-5, pred_choice="pseudo"), None),
    (dict(group_mode="parallel", max_seed=INT32_MAX), None),
    (dict(rejection=-3.5), "rejection=-3.5 "), (dict(rejection=21474836.46), "rejection="),
    (dict(sigma=0.0), "sigma=0 is outside its meaningful range (above 0)"),
    (dict(pseudo_factor=-9.0), "pseudo_factor=-9 "),
    (dict(statistic_update=-1), "statistic_update=-1 is outside its meaningful range (0 or 1; "
                                "other values act as 1)"),
    (dict(max_level=5, lim_oct_level=5, init_level=0), None),
])
def test_every_value_the_library_accepts_is_accepted(extreme, warned: Optional[str]) -> None:
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        labels = splitmerge.segment(IMAGE, **extreme)
    assert labels.shape == IMAGE.shape and labels.min() == 1
    assert [str(w.message)[:len(warned)] for w in caught] == ([warned] if warned else [])
    assert all(w.category is UserWarning for w in caught)


def test_any_non_zero_switch_acts_as_1() -> None:
    with pytest.warns(UserWarning, match="other values act as 1"):
        odd = splitmerge.segment(IMAGE, group_mode=-7, use_all_seeds=99)
    np.testing.assert_array_equal(odd, splitmerge.segment(IMAGE, group_mode=1, use_all_seeds=1))


Z = np.zeros
V, T = ValueError, TypeError


@pytest.mark.parametrize("image, given, error, message", [
    # Images.
    (Z(16), {}, V, r"^the image has 1 dimensions; expected \(Y, X\), "),
    (Z((2, 2, 2, 2)), {}, V, r"^a 4-D image must have 3 or 4 colour channels"),
    (Z((0, 0)), {}, V, r"^the image is empty$"),
    (Z((5, 5)), {}, V, r"^the image is 5 x 5 pixels, but the segmentation needs square slices "
                       r"of 2, 4, 8, \.\.\., 16384 pixels: use fit='pad' or fit='crop'$"),
    (Z((3, 8, 8)), {}, V, r"^the image is 8 x 8 x 3 pixels, .* no more than the edge: use "
                          r"fit='pad' or fit='crop' \(or slice=K for one slice\)$"),
    (Z((8, 8), np.complex64), {}, T, r"^the image's dtype complex64 cannot be segmented"),
    (np.full((8, 8), 256.0), {}, V, r"^the pixel values range from 256 to 256, but the "
                                    r"segmentation needs 0\.\.255: use rescale=True$"),
    (np.full((8, 8), 2.5), {}, V, r"^the image holds non-integer values such as 2\.5: use "
                                  r"rescale=True"),
    (np.full((8, 8), np.nan), {}, V, r"^the image holds NaN or infinite values$"),
    (np.ones((32, 32, 3)), dict(channel_axis=None), V, "use fit='pad' or fit='crop'"),
    (np.ones((32, 32, 3)), dict(channel_axis=0), V, "channel_axis must be -1 or None"),
    # Fitting, slices and percentile windows.
    (Z((2, 17000)), dict(fit="pad"), V, r"^fit='pad' would need an edge of 32768 pixels for a "
                                        r"17000 x 2 image, above the largest, 16384: use "
                                        r"fit='crop'$"),
    (Z((1, 7)), dict(fit="crop"), V, r"^fit='crop' needs at least 2 x 2 pixels; the image is "
                                     r"7 x 1: use fit='pad'$"),
    (Z((8, 8)), dict(fit="grow"), V, r"^fit must be None, 'pad' or 'crop', not 'grow'$"),
    (Z((3, 8, 8)), dict(slice=3), V, r"^slice=3 is outside the volume's slices 0\.\.2$"),
    (Z((8, 8)), dict(slice=0), V, r"^slice needs a volume, but the image is 2-D$"),
    (Z((8, 8)), dict(max_level=4), V, r"^max_level=4 and lim_oct_level=4 do not fit the "
                                      r"segmented image of 8 x 8 x 1 pixels"),
    (Z((4, 4)), dict(rescale=(50, 50)), V, "percentile"),
    (Z((4, 4)), dict(rescale=(1, 2, 3)), T, "percentile"),
    (Z((4, 4)), dict(rescale="1,99"), T, "percentile"),
    # Parameters the library rejects.
    (None, dict(pred_choice=6), V, r"^pred_choice=6: must be 1 \(range\), 2 \(mean\)"),
    (None, dict(threshold_row=4), V, r"^threshold_row=4: must be 1, 2 or 3 "),
    (None, dict(max_level=15), V, r"^max_level=15: must be 1 to 14 \(1 to 10 for a volume\)$"),
    (None, dict(sigma=float("nan")), V, r"^sigma=nan: must be finite$"),
    (None, dict(rejection=21474836.48), V, r"^rejection=2\.14748e\+07: must be a finite "
                                           r"fraction"),
    (None, dict(pred_choice="chi-square"), V, r"^pred_choice='chi-square': use 'range', "
                                              r"'mean', 'median', 'chi2', 'pseudo' or a "
                                              r"number$"),
    (None, dict(group_mode="serial"), V, r"^group_mode='serial': use 'sequential', "
                                         r"'parallel' or a number$"),
    (None, dict(small_size=2**31), V, r"^small_size=2147483648: outside the 32-bit integer "
                                      r"range$"),
    # Types.
    (None, dict(max_level=5.0), T, r"^max_level must be an integer, not float \(5\.0\)$"),
    (None, dict(sigma="5"), T, r"^sigma must be a real number, not str \('5'\)$"),
    (None, dict(progress=42), T, r"^progress must be callable, not int$"),
    (None, dict(sigmaa=3.0), T, "sigmaa"),
    # Threads and memory.
    (None, dict(threads=-1), V, r"^threads = -1 must be 0 \(every core\) to 2\*\*31 - 1$"),
    (None, dict(threads=1.5), T, "^threads must be an int"),
    (None, dict(memory_limit=0), V, "memory_limit"),
    (None, dict(memory_limit=1.5), T, "memory_limit"),
])
def test_bad_calls_say_why_in_one_line(image, given, error, message) -> None:
    with pytest.raises(error, match=message) as raised:
        splitmerge.segment(IMAGE if image is None else image, **given)
    assert "\n" not in str(raised.value)


def parameter_entries(doc: str) -> dict[str, str]:
    """The numpydoc Parameters entries of a docstring, by name."""
    section = doc[doc.index("Parameters\n    ----------\n"):doc.index("Returns\n    -------")]
    return {m[1]: m[0] for m in re.finditer(r"^    (\w+) : .*?(?=^    \w+ : |\Z)", section,
                                            re.S | re.M)}


def test_help_shows_every_parameter_with_its_range_and_default() -> None:
    text = pydoc.render_doc(splitmerge.segment, renderer=pydoc.plaintext)
    entries = parameter_entries(splitmerge.segment.__doc__)
    for name in splitmerge.PARAMETER_NAMES:
        assert f"{name} : " in text and "default" in entries[name].lower(), name
    assert "1..12" in entries["max_level"] and "1..9 for a volume" in entries["max_level"]
    assert "1..5" in entries["pred_choice"] and "0..max_level-1" in entries["init_level"]
    for name in ("fit", "rescale", "channel_axis", "slice", "start_label", "frames", "regions",
                 "lines", "info", "progress", "region_file", "frame_budget"):
        assert name in entries, name
    failures, tried = doctest.testmod(splitmerge._api, raise_on_error=False)
    assert tried >= 3 and failures == 0
