"""The user-facing entry: segment()."""

from __future__ import annotations

import os
import warnings
from dataclasses import dataclass, field
from typing import Any, Callable, Optional, Sequence, Union

import numpy as np
import numpy.typing as npt

from . import _core
from ._params import library_parameters

__all__ = ["Region", "Segmentation", "segment"]

DEFAULT_FRAME_BUDGET: int = _core.default_frame_budget
FIT_MODES = {None: 0, "none": 0, "pad": 1, "crop": 2}

Box = tuple[slice, ...]
Rescale = Union[bool, Sequence[float]]


@dataclass(frozen=True)
class Region:
    """One region of the final region list, in label order.

    Attributes
    ----------
    statistics : tuple of int
        The region's two statistics: (minimum, maximum) for ``pred_choice``
        "range" and "median" (inliers only for "median"); (sum of the pixel
        values, pixel count) for "mean", "chi2" and "pseudo".
    codes : numpy.ndarray
        Locational codes of the region's blocks, in chain order: uint32 for
        images of up to 256 pixels along an edge, uint64 above. With
        ``fit="pad"`` they are codes of the padded image that was segmented,
        not of the input.
    neighbours : numpy.ndarray
        int32 labels of the region's neighbour list, in list order: every
        region that shares a face with it, and possibly regions (itself
        included) that touched it before small regions were absorbed.
    """

    statistics: tuple[int, int]
    codes: np.ndarray
    neighbours: np.ndarray


@dataclass
class Segmentation:
    """The results of a run asked for with frames, regions, lines or info.

    Attributes
    ----------
    labels : numpy.ndarray
        int32 label image of the input's shape: `start_label` for the largest
        region, then by decreasing size; ``start_label - 1`` where the input
        was not segmented (outside the box kept by ``fit="crop"``).
    frames : numpy.ndarray or None
        int32 display frames, shape ``(frames,) + labels.shape``, in
        recording order (-1 outside a crop); None unless ``frames=True``.
    regions : list of Region or None
        The final region list in the run's order: ``regions[k]`` is the region
        labelled ``start_label + k``; None unless ``regions=True``.
    lines : list of str or None
        The progress lines, without their newlines; None unless
        ``lines=True``.
    notes : list of str
        What was changed on the way (colour, rescaling, padding, cropping).
    box : tuple of slice
        The part of the input that was segmented, (y, x) or (z, y, x): all of
        it unless ``fit="crop"`` cut it.
    region_count : int
        The number of regions of the run (those of padding included).
    parameters : dict
        Every parameter as the run used it, the levels included.
    version : str
        The version of splitmerge that made the labels.
    """

    labels: np.ndarray
    frames: Optional[np.ndarray] = None
    regions: Optional[list[Region]] = None
    lines: Optional[list[str]] = None
    notes: list[str] = field(default_factory=list)
    box: Box = ()
    region_count: int = 0
    parameters: dict[str, Any] = field(default_factory=dict)
    version: str = _core.version


_EXCEPTIONS = {
    _core.problem_invalid_argument: ValueError,
    _core.problem_resource_exhausted: MemoryError,
    _core.problem_interrupted: KeyboardInterrupt,
    _core.problem_input_output: OSError,
}


def _raise_for(failure: dict, region_file: Optional[str]) -> None:
    kind = failure["kind"]
    if not kind:
        return
    message = failure["message"]
    if kind == _core.problem_input_output and region_file is not None:
        message = f"{message} {region_file}"
    raise _EXCEPTIONS[kind](message)


def _rescale_window(rescale: Rescale) -> tuple[bool, float, float]:
    if isinstance(rescale, (bool, np.bool_)):
        return bool(rescale), 0.0, 100.0
    try:
        low, high = (float(v) for v in rescale)
    except (TypeError, ValueError):
        raise TypeError("rescale must be True, False or a (low, high) pair of percentiles, "
                        f"not {rescale!r}") from None
    return True, low, high


def _box_of(segmented: dict, shape: tuple[int, ...]) -> Box:
    starts = (segmented["z0"], segmented["y0"], segmented["x0"])
    sizes = (segmented["size_z"], segmented["size_y"], segmented["size_x"])
    box = tuple(slice(max(0, s), min(n, s + k)) for s, k, n in
                zip(starts[3 - len(shape):], sizes[3 - len(shape):], shape))
    return box


def _int(name: str, value: Any, low: int, high: int) -> int:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{name} must be an int, not {type(value).__name__}")
    v = int(value)
    if not low <= v <= high:
        raise ValueError(f"{name}={v} must be {low} to {high}")
    return v


def _checked_threads(threads: int) -> int:
    if isinstance(threads, bool) or not isinstance(threads, (int, np.integer)):
        raise TypeError(f"threads must be an int, not {type(threads).__name__}")
    count = int(threads)
    if not 0 <= count < 2**31:
        raise ValueError(f"threads = {count} must be 0 (every core) to 2**31 - 1")
    return count


def _checked_memory_limit(memory_limit: Optional[int]) -> int:
    if memory_limit is None:
        return 0
    if isinstance(memory_limit, bool) or not isinstance(memory_limit, (int, np.integer)):
        raise TypeError(
            f"memory_limit must be an int or None, not {type(memory_limit).__name__}")
    limit = int(memory_limit)
    if not 1 <= limit < 2**64:
        raise ValueError(f"memory_limit = {limit} must be 1 to 2**64 - 1 bytes, or None")
    return limit


def segment(
    image: npt.ArrayLike,
    *,
    max_level: Optional[int] = None,
    lim_oct_level: Optional[int] = None,
    init_level: Optional[int] = None,
    group_mode: Union[int, str] = 0,
    max_seed: int = 8,
    use_all_seeds: Union[bool, int] = False,
    pred_choice: Union[int, str] = "chi2",
    interval_length: int = 10,
    rejection: float = 0.1,
    sigma: float = 5.0,
    threshold_row: int = 3,
    pseudo_factor: float = 2.0,
    small_size: int = 30,
    statistic_update: Union[bool, int] = True,
    fit: Optional[str] = None,
    rescale: Rescale = False,
    channel_axis: Optional[int] = -1,
    slice: Optional[int] = None,
    start_label: int = _core.default_start_label,
    frames: bool = False,
    regions: bool = False,
    lines: bool = False,
    info: bool = False,
    progress: Optional[Callable[[str], object]] = None,
    region_file: Optional[Union[str, os.PathLike]] = None,
    frame_budget: int = DEFAULT_FRAME_BUDGET,
    threads: int = 0,
    memory_limit: Optional[int] = None,
) -> Union[np.ndarray, Segmentation]:
    """Segment a 2-D or 3-D grey image by split and merge.

    The image is covered with blocks of level `init_level`; homogeneous
    sibling blocks merge upward, inhomogeneous blocks split downward, adjacent
    blocks grow into regions, regions below `small_size` pixels are absorbed by
    their most similar neighbour, and the regions are labelled `start_label`,
    `start_label` + 1, ... by decreasing size.

    Parameters
    ----------
    image : array_like
        2-D (Y, X) or 3-D (Z, Y, X) grey array, or a colour picture (Y, X, 3)
        or (Y, X, 4) (see `channel_axis`), of any integer, boolean or
        floating-point dtype and any memory layout. Slices must be square
        with an edge of 2, 4, ..., 16384 pixels (at most 1024 for a volume of
        more than one slice) and a volume must have 1, 2, 4, ... slices, no
        more than the edge (see `fit`). Values must be whole numbers 0..255
        (see `rescale`); a boolean image is read as 0 and 255.
    max_level : int, optional
        Level of the whole image, 1..12 (1..9 for a volume of more than one
        slice): the edge is ``2**max_level``.
        Default: derived from the image's width.
    lim_oct_level : int, optional
        Lowest level whose blocks are divided in z too, 0..max_level: a
        volume has ``2**(max_level - lim_oct_level)`` slices. Default:
        derived from the slice count (max_level for a 2-D image).
    init_level : int, optional
        Level of the initial blocks, 0..max_level-1. Default:
        ``min(3, max_level - 1)``.
    group_mode : {"sequential", "parallel"} or int, optional
        Region growing: "sequential" (0, the default) grows one region at a
        time; "parallel" (any non-zero number) grows seeded regions in turn.
    max_seed : int, optional
        Number of seed regions for parallel growing, at least 1 when
        `group_mode` is parallel (any 32-bit integer otherwise). Default 8.
    use_all_seeds : bool or int, optional
        Parallel growing takes seeds of any block size (True, non-zero) or
        only of the largest (False, 0, the default).
    pred_choice : {"range", "mean", "median", "chi2", "pseudo"} or int, optional
        Homogeneity predicate, also by number 1..5: "range" (1) the range of
        the values; "mean" (2) the range, then the difference of region
        means; "median" (3) an interval around the median with a share of
        outliers; "chi2" (4, the default) the variance against chi-square
        thresholds; "pseudo" (5) the variance against pseudo-variance
        thresholds.
    interval_length : int, optional
        Largest range ("range", "mean", "median") or difference of region
        means ("mean", "chi2", "pseudo"), any 32-bit integer. Default 10.
    rejection : float, optional
        "median": largest share of outliers as a fraction, finite with
        ``abs(rejection * 100) < 2**31 - 1``. Default 0.1 (10 %).
    sigma : float, optional
        "chi2", "pseudo": expected standard deviation of the noise, finite.
        Default 5.0.
    threshold_row : int, optional
        "chi2": 1, 2 or 3 for the 0.50, 0.75 or 0.90 chi-square quantile
        (any 32-bit integer with the other predicates). Default 3.
    pseudo_factor : float, optional
        "pseudo": the threshold is ``sigma**2 * (1 + pseudo_factor /
        sqrt(n))`` for n pixels; finite. Default 2.0.
    small_size : int, optional
        Regions below this many pixels are absorbed by their most similar
        neighbour; 0 (or less) switches the elimination off. Default 30.
    statistic_update : bool or int, optional
        An absorbing region takes in the small region's statistics (True,
        non-zero, the default) or keeps its own (False, 0).
    fit : {None, "pad", "crop"}, optional
        Make any shape segmentable. "pad" centres the image in a zero-filled
        one of the next allowed size; "crop" segments the centred largest
        allowed part. Either way the labels and frames have the input's
        shape: padding is cut off, and pixels outside a crop get
        ``start_label - 1`` (see ``Segmentation.box``). The region list and
        the region list file describe the image that was segmented. Default
        None: a shape that does not fit is an error.
    rescale : bool or (float, float), optional
        True maps the value range linearly onto 0..255 (rounded) instead of
        requiring whole numbers 0..255; ``(low, high)`` maps the window
        between those percentiles of the values (e.g. ``(1, 99)``), clipping
        values outside it. The range or window is found over the whole
        input, before slicing or cropping. Default False.
    channel_axis : {-1, None}, optional
        -1 (the default): a 3-D array whose last axis has 3 or 4 entries,
        after an x axis of more than 4, is a colour picture (RGB or RGBA),
        segmented as its grey levels (299 R + 587 G + 114 B) / 1000 (rounded
        for whole-number samples; alpha ignored). None: every 3-D array is a
        volume (Z, Y, X).
    slice : int, optional
        Segment only this slice (0-based, along z) of a volume; the labels
        are then 2-D.
    start_label : int, optional
        The label of the largest region, 1 by default so that 0 is free for
        "not segmented" (as ``regionprops`` and napari expect); 0 gives the
        library's own numbering.
    frames : bool, optional
        Record the display frames (the segmentation as it progresses).
    regions : bool, optional
        Collect the final region list.
    lines : bool, optional
        Keep the progress lines.
    info : bool, optional
        Return a `Segmentation` with the resolved parameters, the region
        count, the notes and the version even without frames, regions or
        lines.
    progress : callable, optional
        Called with each progress line (a str without its newline) as the
        run prints it, in the calling thread, with the GIL held. An exception
        it raises ends the run within moments and is raised by `segment`.
    region_file : str or os.PathLike, optional
        Also write the region list file to this path.
    frame_budget : int, optional
        Largest total size of the recorded frames in bytes (2 GiB by
        default); frame recording stops with a RuntimeWarning beyond it.
    threads : int, optional
        Threads of one run, for the steps that can share the work: 0 (the
        default) uses every core, 1 runs single-threaded. The results are
        identical for every count.
    memory_limit : int, optional
        The run's memory budget in bytes: a run whose labels alone do not
        fit is refused before it starts, and a run that would cross the
        budget as it grows stops there with MemoryError, having released
        everything. None (the default): the memory available when the run
        starts, less a margin.

    Returns
    -------
    numpy.ndarray or Segmentation
        The int32 label image of the input's shape, `start_label` for the
        largest region; a `Segmentation` when `frames`, `regions`, `lines`
        or `info` is asked for.

    Raises
    ------
    TypeError
        The image's dtype or a parameter's type cannot be used.
    ValueError
        The image's shape or values, or a parameter, cannot be used; the
        message is the library's one line (or says which option helps).
    MemoryError
        The run ran out of memory or would cross its budget (the message
        says the budget and what was in use).
    OSError
        The region list file cannot be written.
    KeyboardInterrupt
        Ctrl-C during the run.

    Notes
    -----
    The GIL is released while the library runs, so threads segmenting
    different images run in parallel.

    Examples
    --------
    >>> import numpy as np, splitmerge
    >>> image = np.zeros((64, 64), np.int32)
    >>> image[16:48, 16:48] = 200
    >>> labels = splitmerge.segment(image, pred_choice="range", small_size=0)
    >>> np.unique(labels).tolist()
    [1, 2]
    """
    params = library_parameters({
        "max_level": max_level, "lim_oct_level": lim_oct_level, "init_level": init_level,
        "group_mode": group_mode, "max_seed": max_seed, "use_all_seeds": use_all_seeds,
        "pred_choice": pred_choice, "interval_length": interval_length,
        "rejection": rejection, "sigma": sigma, "threshold_row": threshold_row,
        "pseudo_factor": pseudo_factor, "small_size": small_size,
        "statistic_update": statistic_update,
    })
    if progress is not None and not callable(progress):
        raise TypeError(f"progress must be callable, not {type(progress).__name__}")
    budget = int(frame_budget)
    if not 0 <= budget < 2**64:
        raise ValueError(f"frame_budget = {budget} must be 0 to 2**64 - 1 bytes")
    if fit not in FIT_MODES:
        raise ValueError(f"fit must be None, 'pad' or 'crop', not {fit!r}")
    if channel_axis not in (-1, None):
        raise ValueError(f"channel_axis must be -1 or None, not {channel_axis!r}")
    do_rescale, low, high = _rescale_window(rescale)
    around = {
        "fit": FIT_MODES[fit], "volume": channel_axis is None, "rescale": do_rescale,
        "low": low, "high": high,
        "slice": None if slice is None else _int("slice", slice, -2**63, 2**63 - 1),
        "start_label": _int("start_label", start_label, 0, 2**31 - 1),
    }
    array = np.asarray(image)
    if array.dtype == np.float16:
        array = array.astype(np.float32)
    elif array.dtype.byteorder not in ("=", "|"):
        array = array.astype(array.dtype.newbyteorder("="))
    path = None if region_file is None else os.fspath(region_file)
    run = _core.run(
        array, params, around, frames=bool(frames), lines=bool(lines), regions=bool(regions),
        region_file=None if path is None else os.fsencode(path), frame_budget=budget,
        progress=progress, threads=_checked_threads(threads),
        memory_limit=_checked_memory_limit(memory_limit))
    for message in run["warnings"]:
        warnings.warn(message, UserWarning, stacklevel=2)
    _raise_for(run["failure"], None if path is None else os.fsdecode(path))
    for message in run["run_warnings"]:
        warnings.warn(message.strip().removeprefix("splitmerge: "), RuntimeWarning,
                      stacklevel=2)
    labels = run["labels"]
    if not (frames or regions or lines or info):
        return labels
    return Segmentation(
        labels=labels,
        frames=run["frames"],
        regions=[Region((s0, s1), codes, nbs) for s0, s1, codes, nbs in run["regions"]]
        if regions else None,
        lines=run["lines"] if lines else None,
        notes=run["notes"],
        box=_box_of(run["segmented"], labels.shape),
        region_count=run["region_count"],
        parameters=run["resolved"],
    )
