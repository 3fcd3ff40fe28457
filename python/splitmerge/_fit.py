"""Turning an array into the image the segmentation accepts.

The rules are those of the command-line program's ``--rescale``, ``--slice``
and ``--fit``: check the values are finite, find the grey window over the
whole input (so every slice of a volume shares one mapping), take the slice,
crop, map the window onto 0..255 or check the values, pad; so the same input
gives the same pixels here and there.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

__all__ = ["Box", "FittedImage", "Rescale", "fit_image", "is_segmentable_shape"]

# The largest edge of a 2-D image (one slice) and of a volume (more slices).
LARGEST_EDGE = 4096
LARGEST_VOLUME_EDGE = 512
FIT_MODES = ("pad", "crop")


Box = tuple[slice, ...]
Rescale = Union[bool, Sequence[float]]


@dataclass
class FittedImage:
    """An int32 C-contiguous image of a segmentable shape and what changed.

    `origin` is the input's (z, y, x) index of the first pixel: where the
    slice, the crop or the padding put it (negative after padding).

    `box` is the part of the input (of the slice, with `slice`) that the
    outputs cover, as a tuple of slices, (y, x) or (z, y, x): all of it
    unless cropped, so ``image[box]`` has the outputs' shape. `padding` is
    where that part lies in `pixels` after padding; () when not padded.
    """

    pixels: np.ndarray
    notes: list[str] = field(default_factory=list)
    origin: tuple[int, int, int] = (0, 0, 0)
    box: Box = ()
    padding: Box = ()

    def to_input(self, a: np.ndarray) -> np.ndarray:
        """Cut an array over `pixels` (frames: with a leading axis) back to `box`.

        A no-op unless the image was padded; the result is C-contiguous.
        """
        if not self.padding:
            return a
        return np.ascontiguousarray(a[(Ellipsis,) + self.padding])

    @property
    def output_origin(self) -> tuple[int, int, int]:
        """The input's (z, y, x) index of the outputs' first pixel."""
        z, y, x = self.origin
        if self.padding:
            starts = [s.start for s in self.padding]
            if len(starts) == 2:
                starts.insert(0, 0)
            z, y, x = z + starts[0], y + starts[1], x + starts[2]
        return z, y, x


def _box(starts: tuple[int, ...], shape: tuple[int, ...]) -> Box:
    return tuple(slice(start, start + n) for start, n in zip(starts, shape))


def _box_text(box: Box) -> str:
    names = ("x", "y", "z")[:len(box)]
    return ", ".join(f"{name} {s.start}..{s.stop - 1}" for name, s in zip(names, box[::-1]))


def _power_of_two_at_least(v: int) -> int:
    v = max(v, 1)
    return 1 << (v - 1).bit_length()


def _power_of_two_at_most(v: int) -> int:
    return 1 << (max(v, 1).bit_length() - 1)


def _is_power_of_two(v: int) -> bool:
    return v > 0 and v & (v - 1) == 0


def _largest_edge(slices: int) -> int:
    return LARGEST_VOLUME_EDGE if slices > 1 else LARGEST_EDGE


def is_segmentable_shape(shape: tuple[int, ...]) -> bool:
    """True for a (Y, X) or (Z, Y, X) shape the segmentation accepts as it is."""
    if len(shape) not in (2, 3):
        return False
    z = shape[0] if len(shape) == 3 else 1
    y, x = shape[-2], shape[-1]
    return (x == y and 2 <= x <= _largest_edge(z) and _is_power_of_two(x)
            and 1 <= z <= x and _is_power_of_two(z))


def _size_text(shape: tuple[int, ...]) -> str:
    if len(shape) == 3:
        return f"{shape[2]} x {shape[1]} x {shape[0]}"
    return f"{shape[1]} x {shape[0]}"


def _number_text(v: float) -> str:
    # The command-line program prints numbers with six significant digits.
    return f"{float(v):g}"


def _fitted_size(shape: tuple[int, ...], mode: str) -> tuple[int, int]:
    """The edge and slice count that pad or crop gives for a shape."""
    z = shape[0] if len(shape) == 3 else 1
    y, x = shape[-2], shape[-1]
    if mode == "pad":
        slices = _power_of_two_at_least(z)
        edge = max(_power_of_two_at_least(max(x, y)), slices, 2)
        if edge > _largest_edge(slices):
            volume = " for a volume" if slices > 1 else ""
            or_slice = " (or slice=K for one slice)" if slices > 1 else ""
            raise ValueError(
                f"fit='pad' would need an edge of {edge} pixels for a "
                f"{_size_text(shape)} image, above the largest{volume}, "
                f"{_largest_edge(slices)}: use fit='crop'{or_slice}")
        return edge, slices
    # A crop keeps two slices or more of an input that has two or more, so the
    # input's slice count decides the largest edge.
    edge = min(_power_of_two_at_most(min(x, y)), _largest_edge(z))
    if edge < 2:
        raise ValueError(
            f"fit='crop' needs at least 2 x 2 pixels; the image is "
            f"{_size_text(shape)}: use fit='pad'")
    return edge, min(_power_of_two_at_most(z), edge)


def _as_volume(a: np.ndarray) -> np.ndarray:
    return a if a.ndim == 3 else a[np.newaxis]


def _centred_offsets(outer: tuple[int, ...], inner: tuple[int, ...]) -> tuple[int, int, int]:
    z0, y0, x0 = ((o - i) // 2 for o, i in zip(outer, inner))
    return z0, y0, x0


def _crop(a: np.ndarray, edge: int, slices: int) -> tuple[np.ndarray, tuple[int, int, int]]:
    v = _as_volume(a)
    z0, y0, x0 = _centred_offsets(v.shape, (slices, edge, edge))
    v = v[z0:z0 + slices, y0:y0 + edge, x0:x0 + edge]
    return (v if a.ndim == 3 else v[0]), (z0, y0, x0)


def _pad(a: np.ndarray, edge: int, slices: int) -> tuple[np.ndarray, tuple[int, int, int]]:
    v = _as_volume(a)
    out = np.zeros((slices, edge, edge), dtype=v.dtype)
    z0, y0, x0 = _centred_offsets((slices, edge, edge), v.shape)
    out[z0:z0 + v.shape[0], y0:y0 + v.shape[1], x0:x0 + v.shape[2]] = v
    return (out if a.ndim == 3 else out[0]), (-z0, -y0, -x0)


def _round_half_away(t: np.ndarray) -> np.ndarray:
    # C's round() for t >= 0; numpy's rounds half to even, and floor(t + 0.5)
    # is off for the double just below 0.5.
    low = np.floor(t)
    return low + (t - low >= 0.5)


def _percentile(values: np.ndarray, percent: float) -> float:
    """The value below which `percent` of the values lie.

    Linear interpolation between neighbouring ranks (numpy.percentile's
    default), computed as the command-line program does it, so that the
    window is the same to the last bit.
    """
    position = percent / 100.0 * float(values.size - 1)
    below = int(np.floor(position))
    if below + 1 >= values.size:
        return float(np.partition(values, below)[below])
    ranked = np.partition(values, (below, below + 1))
    low, high = float(ranked[below]), float(ranked[below + 1])
    return low + (position - below) * (high - low)


def _ordinal(percent: float) -> str:
    n = _number_text(percent)
    if not float(percent).is_integer():
        return n + "th"
    whole = int(percent)
    if 11 <= whole % 100 <= 13:
        return n + "th"
    return n + {1: "st", 2: "nd", 3: "rd"}.get(whole % 10, "th")


def _rescale_window(rescale: Rescale) -> Optional[tuple[float, float]]:
    """None for no rescaling, else the (low, high) percentiles of the window."""
    if isinstance(rescale, (bool, np.bool_)):
        return (0.0, 100.0) if rescale else None
    try:
        low, high = (float(v) for v in rescale)
    except (TypeError, ValueError):
        raise ValueError(
            f"rescale must be True, False or (low, high) percentiles, not {rescale!r}") from None
    if not 0 <= low < high <= 100:
        raise ValueError(
            f"rescale needs (low, high) percentiles with 0 <= low < high <= 100, e.g. "
            f"(1, 99), not {rescale!r}")
    return low, high


def _grey_window(a: np.ndarray, percentiles: tuple[float, float],
                 notes: list[str]) -> tuple[float, float]:
    """The values mapped onto 0 and 255, found over the whole input."""
    values = a.astype(np.float64, copy=False).reshape(-1)
    low_percent, high_percent = percentiles
    if low_percent <= 0 and high_percent >= 100:
        low, high = float(values.min()), float(values.max())
        notes.append(f"rescaled the values {_number_text(low)}..{_number_text(high)} to 0..255")
    else:
        low, high = _percentile(values, low_percent), _percentile(values, high_percent)
        notes.append(
            f"rescaled the values between the {_ordinal(low_percent)} and "
            f"{_ordinal(high_percent)} percentiles, {_number_text(low)}..{_number_text(high)}, "
            "to 0..255 (values outside clipped)")
    return low, high


def _rescaled(a: np.ndarray, low: float, high: float) -> np.ndarray:
    # Maps [low, high] linearly onto 0..255, clipping outside it; a constant
    # image becomes 0.
    scale = 255.0 / (high - low) if high > low else 0.0
    return _round_half_away(np.clip((a.astype(np.float64) - low) * scale, 0.0, 255.0))


def _check_values(a: np.ndarray) -> None:
    low, high = a.min(), a.max()
    if low < 0 or high > 255:
        raise ValueError(
            f"the pixel values range from {_number_text(low)} to {_number_text(high)}, "
            "but the segmentation needs 0..255: use rescale=True")
    if a.dtype.kind == "f":
        fractional = np.flatnonzero(a != np.floor(a))
        if fractional.size:
            v = a.reshape(-1)[fractional[0]]
            raise ValueError(
                f"the image holds non-integer values such as {_number_text(v)}: "
                "use rescale=True to map them onto 0..255")


def _checked_array(image: npt.ArrayLike) -> np.ndarray:
    a = np.asarray(image)
    if a.dtype.kind == "b":
        a = a.astype(np.uint8)
    if a.dtype.kind not in "iuf":
        raise TypeError(
            f"the image has dtype {a.dtype}, but the segmentation needs integer or "
            "floating-point pixels")
    if a.ndim not in (2, 3):
        raise ValueError(
            f"the image has shape {a.shape}, but the segmentation needs a 2-D (Y, X) "
            "or 3-D (Z, Y, X) array")
    return a


def fit_image(image: npt.ArrayLike, fit: Optional[str] = None, rescale: Rescale = False,
              slice: Optional[int] = None) -> FittedImage:
    """Prepare an array for the segmentation as the command-line program does.

    Parameters
    ----------
    image : array_like
        2-D (Y, X) or 3-D (Z, Y, X) array of integers or floats, x fastest.
    fit : {None, "pad", "crop"}, optional
        None leaves the shape as it is (the segmentation then rejects a shape
        it cannot take); "pad" centres the image in a zero-filled one of the
        next segmentable size, "crop" cuts out the centred largest
        segmentable part.
    rescale : bool or (float, float), optional
        True maps the value range of the whole input (before `slice` and
        the crop, so every slice of a volume shares one mapping) linearly
        onto 0..255, rounded half away from zero; a constant image becomes 0.
        ``(low, high)``, percentiles with 0 <= low < high <= 100, maps the
        window between those percentiles of the whole input instead, values
        outside it clipped (``(1, 99)`` ignores outliers). Percentiles
        interpolate linearly between ranks, as ``numpy.percentile`` does by
        default. Default False: values must be whole numbers in 0..255.
    slice : int, optional
        Take this z slice of a volume as a 2-D image.

    Returns
    -------
    FittedImage
        ``pixels``, int32 and C-contiguous (the input itself when it already
        was such an array and nothing had to change), ``notes``, what was
        changed, ``origin``, the input's (z, y, x) index of the first pixel,
        ``box``, the part of the input the outputs cover (``image[box]``),
        and ``padding``, where that part lies in ``pixels``; ``to_input``
        cuts labels or frames of a padded image back to the input's shape.

    Raises
    ------
    TypeError
        The dtype is not integer, boolean or floating point.
    ValueError
        The shape, the values or the request cannot be used; the message says
        what would help.
    """
    if fit not in (None, "none") + FIT_MODES:
        raise ValueError(f"fit must be None, 'pad' or 'crop', not {fit!r}")
    percentiles = _rescale_window(rescale)
    a = _checked_array(image)
    notes: list[str] = []
    origin = [0, 0, 0]
    if a.size and a.dtype.kind == "f" and not np.isfinite(a).all():
        raise ValueError("the image holds NaN or infinite values")
    window = _grey_window(a, percentiles, notes) if percentiles and a.size else None
    if slice is not None:
        if a.ndim != 3:
            raise ValueError("slice needs a volume, but the image is 2-D")
        k = int(slice)
        if not 0 <= k < a.shape[0]:
            raise ValueError(
                f"slice {k} is outside the volume's slices 0..{a.shape[0] - 1}")
        a = a[k]
        origin[0] = k

    if fit == "none":
        fit = None
    # Without a fit, an unsegmentable shape is left for the library to name.
    fits = fit is None or is_segmentable_shape(a.shape)
    before = _size_text(a.shape)
    target = None if fits else _fitted_size(a.shape, fit)
    box = _box((0,) * a.ndim, a.shape)
    padding: Box = ()
    if target is not None and fit == "crop":
        a, shift = _crop(a, *target)
        origin = [o + d for o, d in zip(origin, shift)]
        box = _box(shift[3 - a.ndim:], a.shape)
    if window is not None:
        a = _rescaled(a, *window)
    elif a.size and not percentiles:
        _check_values(a)
    if target is not None and fit == "crop":
        after = _size_text(a.shape)
        notes.append(f"cropped {before} to {after} (centred), keeping {_box_text(box)}; "
                     f"the outputs are {after}")
    if target is not None and fit == "pad":
        inner = a.shape
        a, shift = _pad(a, *target)
        origin = [o + d for o, d in zip(origin, shift)]
        padding = _box(tuple(-d for d in shift[3 - a.ndim:]), inner)
        notes.append(f"padded {before} to {_size_text(a.shape)} (centred) for the "
                     f"segmentation; the outputs are {before}, as the input")
    return FittedImage(np.ascontiguousarray(a, dtype=np.int32), notes,
                       (origin[0], origin[1], origin[2]), box, padding)
