"""The fourteen parameters: names, defaults, types and the library's ranges."""

from __future__ import annotations

import inspect
import pydoc
import warnings
from typing import Optional

import numpy as np
import pytest

import splitmerge
from conftest import noise_image

INT32_MAX = 2**31 - 1

# The C++ library's defaults (struct parameters), levels derived (-1).
LIBRARY_DEFAULTS = dict(max_level=-1, lim_oct_level=-1, init_level=-1, group_mode=0,
                        max_seed=8, use_all_seeds=0, pred_choice=4, interval_length=10,
                        rejection=0.1, sigma=5.0, threshold_row=3, pseudo_factor=2.0,
                        small_size=30, statistic_update=1)


@pytest.fixture(scope="module")
def image() -> np.ndarray:
    return noise_image((32, 32), seed=11, levels=6)


def test_every_parameter_is_keyword_only_with_the_library_name() -> None:
    signature = inspect.signature(splitmerge.segment)
    for name in LIBRARY_DEFAULTS:
        assert signature.parameters[name].kind is inspect.Parameter.KEYWORD_ONLY
    assert tuple(LIBRARY_DEFAULTS) == splitmerge.PARAMETER_NAMES
    assert splitmerge.DEFAULTS == {n: None if v == -1 else v for n, v in LIBRARY_DEFAULTS.items()}
    assert splitmerge.segment(np.zeros((2, 2)), info=True).version == splitmerge.__version__
    with pytest.raises(TypeError):
        splitmerge.segment(np.zeros((8, 8), np.int32), 3)  # type: ignore[misc]


def test_defaults_are_the_library_defaults(image: np.ndarray) -> None:
    explicit = dict(LIBRARY_DEFAULTS, max_level=5, lim_oct_level=5, init_level=3)
    np.testing.assert_array_equal(splitmerge.segment(image),
                                  splitmerge.segment(image, **explicit))
    np.testing.assert_array_equal(splitmerge.segment(image),
                                  splitmerge.segment(image, max_level=-1, lim_oct_level=-1,
                                                     init_level=-1))


@pytest.mark.parametrize("name, number", sorted(splitmerge.PRED_CHOICES.items()))
def test_predicates_by_name_equal_their_numbers(image: np.ndarray, name: str,
                                                number: int) -> None:
    np.testing.assert_array_equal(splitmerge.segment(image, pred_choice=name),
                                  splitmerge.segment(image, pred_choice=number))


def test_group_mode_and_flags_by_name_and_boolean(image: np.ndarray) -> None:
    np.testing.assert_array_equal(
        splitmerge.segment(image, group_mode="parallel", use_all_seeds=True, max_seed=3,
                           statistic_update=False),
        splitmerge.segment(image, group_mode=1, use_all_seeds=1, max_seed=3,
                           statistic_update=0))
    np.testing.assert_array_equal(splitmerge.segment(image, group_mode="sequential"),
                                  splitmerge.segment(image, group_mode=0))
    # Any non-zero number is a switch that is on.
    with pytest.warns(UserWarning, match="other values act as 1"):
        odd = splitmerge.segment(image, group_mode=-7, use_all_seeds=99)
    np.testing.assert_array_equal(odd, splitmerge.segment(image, group_mode=1, use_all_seeds=1))


def test_numpy_scalars_are_accepted(image: np.ndarray) -> None:
    np.testing.assert_array_equal(
        splitmerge.segment(image, pred_choice=np.int64(2), sigma=np.float32(4.0),
                           use_all_seeds=np.bool_(True), small_size=np.uint8(5)),
        splitmerge.segment(image, pred_choice=2, sigma=4.0, use_all_seeds=1, small_size=5))


@pytest.mark.parametrize("extreme, warned", [
    (dict(interval_length=-2**31), "interval_length=-2147483648 is outside its meaningful "
                                   "range (0 or more); running with it as given"),
    (dict(interval_length=INT32_MAX), None), (dict(small_size=-3), "small_size=-3 "),
    (dict(small_size=INT32_MAX), None), (dict(small_size=0), None),
    (dict(max_seed=-2**31), None), (dict(threshold_row=0, pred_choice="range"), None),
    (dict(threshold_row=-5, pred_choice="pseudo"), None),
    (dict(group_mode="parallel", max_seed=INT32_MAX), None),
    (dict(rejection=-3.5), "rejection=-3.5 "), (dict(rejection=21474836.46), "rejection="),
    (dict(sigma=0.0), "sigma=0 is outside its meaningful range (above 0)"),
    (dict(sigma=-1e300), "sigma="), (dict(pseudo_factor=-9.0), "pseudo_factor=-9 "),
    (dict(statistic_update=-1), "statistic_update=-1 is outside its meaningful range (0 or 1; "
                                "other values act as 1)"),
    (dict(max_level=5, lim_oct_level=5, init_level=0), None),
])
def test_every_value_the_library_accepts_is_accepted(image: np.ndarray, extreme,
                                                     warned: Optional[str]) -> None:
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        labels = splitmerge.segment(image, **extreme)
    assert labels.shape == image.shape and labels.min() == 1
    assert [str(w.message)[:len(warned)] for w in caught] == ([warned] if warned else [])
    assert all(w.category is UserWarning for w in caught)


@pytest.mark.parametrize("given, message", [
    (dict(pred_choice=6), r"^pred_choice=6: must be 1 \(range\), 2 \(mean\)"),
    (dict(pred_choice=0), r"^pred_choice=0: "),
    (dict(threshold_row=4), r"^threshold_row=4: must be 1, 2 or 3 "),
    (dict(group_mode=1, max_seed=0), r"^max_seed=0: must be at least 1"),
    (dict(init_level=5), r"^init_level=5: must be 0 to max_level - 1 \(4\)"),
    (dict(init_level=-2), r"^init_level=-2: "),
    (dict(lim_oct_level=6), r"^lim_oct_level=6: must be 0 to max_level"),
    (dict(max_level=15), r"^max_level=15: must be 1 to 14 \(1 to 10 for a volume\)$"),
    (dict(sigma=float("nan")), r"^sigma=nan: must be finite$"),
    (dict(pseudo_factor=float("inf")), r"^pseudo_factor=inf: "),
    (dict(rejection=21474836.48), r"^rejection=2\.14748e\+07: must be a finite fraction"),
    (dict(pred_choice="chi-square"), r"^pred_choice='chi-square': use "
                                     r"'range', 'mean', 'median', 'chi2', 'pseudo' or a number$"),
    (dict(group_mode="serial"), r"^group_mode='serial': use 'sequential', "
                                r"'parallel' or a number$"),
    (dict(small_size=2**31), r"^small_size=2147483648: outside the 32-bit "
                             r"integer range$"),
    (dict(interval_length=-2**31 - 1), r"^interval_length=-2147483649: "),
])
def test_rejected_values_raise_value_error_with_the_reason(image: np.ndarray, given,
                                                           message) -> None:
    with pytest.raises(ValueError, match=message):
        splitmerge.segment(image, **given)


@pytest.mark.parametrize("given, message", [
    (dict(max_level=5.0), r"^max_level must be an integer, not float \(5\.0\)$"),
    (dict(small_size="30"), r"^small_size must be an integer, not str \('30'\)$"),
    (dict(sigma="5"), r"^sigma must be a real number, not str \('5'\)$"),
    (dict(rejection=None), r"^rejection must be a real number, not NoneType"),
    (dict(interval_length=None), r"^interval_length must be an integer, not NoneType"),
    (dict(progress=42), r"^progress must be callable, not int$"),
])
def test_wrong_types_raise_type_error(image: np.ndarray, given, message) -> None:
    with pytest.raises(TypeError, match=message):
        splitmerge.segment(image, **given)


def test_unknown_keyword_is_a_type_error(image: np.ndarray) -> None:
    with pytest.raises(TypeError, match="sigmaa"):
        splitmerge.segment(image, sigmaa=3.0)  # type: ignore[call-arg]


def parameter_entries(doc: str) -> dict[str, str]:
    """The numpydoc Parameters entries of a docstring, by name."""
    section = doc[doc.index("Parameters\n    ----------\n"):doc.index("Returns\n    -------")]
    entries: dict[str, str] = {}
    name = None
    for line in section.splitlines()[2:]:
        if line.startswith("    ") and not line.startswith("     ") and " : " in line:
            name = line.strip().split(" : ")[0]
            entries[name] = line
        elif name is not None:
            entries[name] += "\n" + line
    return entries


def test_help_shows_every_parameter_with_its_range_and_default() -> None:
    text = pydoc.render_doc(splitmerge.segment, renderer=pydoc.plaintext)
    entries = parameter_entries(splitmerge.segment.__doc__)
    for name in splitmerge.PARAMETER_NAMES:
        assert f"{name} : " in text
        assert "default" in entries[name].lower(), name
    assert "1..12" in entries["max_level"] and "1..9 for a volume" in entries["max_level"]
    assert "1..5" in entries["pred_choice"]
    assert "0..max_level-1" in entries["init_level"]
    for name in ("fit", "rescale", "channel_axis", "slice", "start_label", "frames", "regions",
                 "lines", "info", "progress", "region_file", "frame_budget"):
        assert name in entries, name


def test_docstring_examples_run() -> None:
    import doctest

    import splitmerge._api

    failures, tried = doctest.testmod(splitmerge._api, raise_on_error=False)
    assert tried >= 3 and failures == 0
