"""The fourteen run parameters: names, defaults and conversion to library values.

Ranges are checked by the library itself (one source of the rules); here each
value is only turned into the C type the library takes, and names such as
``pred_choice="chi2"`` are mapped onto their numbers.
"""

from __future__ import annotations

import numbers
import operator
from typing import Any, Optional, Union

import numpy as np

from . import _core

__all__ = ["DEFAULTS", "PARAMETER_NAMES", "PRED_CHOICES", "GROUP_MODES", "library_parameters"]

INT32_MIN, INT32_MAX = -(2**31), 2**31 - 1

PRED_CHOICES = {"range": 1, "mean": 2, "median": 3, "chi2": 4, "pseudo": 5}
GROUP_MODES = {"sequential": 0, "parallel": 1}

# The library's defaults (declared once, in its public header); None means
# derived from the image's shape.
DEFAULTS: dict[str, Any] = {
    name: (None if value == -1 and name in ("max_level", "lim_oct_level", "init_level")
           else value)
    for name, value in _core.defaults.items()
}
PARAMETER_NAMES = tuple(DEFAULTS)
_DERIVED = ("max_level", "lim_oct_level", "init_level")
_REAL = ("rejection", "sigma", "pseudo_factor")
_NAMED = {"pred_choice": PRED_CHOICES, "group_mode": GROUP_MODES}

IntLike = Union[int, bool, np.integer]


def _int32(name: str, value: Any) -> int:
    if isinstance(value, np.bool_):
        value = bool(value)
    try:
        v = operator.index(value)
    except TypeError:
        raise TypeError(
            f"{name} must be an integer, not {type(value).__name__} ({value!r})") from None
    if not INT32_MIN <= v <= INT32_MAX:
        raise ValueError(f"{name}={v}: outside the 32-bit integer range")
    return v


def _real(name: str, value: Any) -> float:
    if isinstance(value, (str, bytes)) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a real number, not {type(value).__name__} ({value!r})")
    return float(value)


def _named(name: str, value: Any) -> Any:
    names = _NAMED.get(name)
    if names is None or not isinstance(value, str):
        return value
    try:
        return names[value]
    except KeyError:
        allowed = ", ".join(repr(n) for n in names)
        raise ValueError(
            f"{name}={value!r}: use {allowed} or a number") from None


def library_parameters(given: dict[str, Any]) -> dict[str, Union[int, float]]:
    """The library values of the parameters: defaults filled in, names mapped.

    Derived levels left as None become -1, which tells the library to derive
    them from the image.
    """
    out: dict[str, Union[int, float]] = {}
    for name in PARAMETER_NAMES:
        value: Optional[Any] = given.get(name, DEFAULTS[name])
        if value is None and name in _DERIVED:
            out[name] = -1
        elif name in _REAL:
            out[name] = _real(name, value)
        else:
            out[name] = _int32(name, _named(name, value))
    return out
