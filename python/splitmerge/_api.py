"""The user-facing entry: segment()."""

from __future__ import annotations

import os
import warnings
from dataclasses import dataclass, field
from typing import Callable, Optional, Union

import numpy as np
import numpy.typing as npt

from . import _core
from ._fit import Box, Rescale, fit_image
from ._params import library_parameters

__all__ = ["Region", "Segmentation", "segment"]

DEFAULT_FRAME_BUDGET = 2 << 30

# Library messages about the image's shape (when the levels are derived from
# it), which fit= can remedy.
_SHAPE_PROBLEMS = ("the image width ", "the slice count ", "invalid parameter size_",
                   "invalid parameter max_level ", "invalid parameter lim_oct_level ")


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
    """The results of a run asked for with frames, regions or lines.

    Attributes
    ----------
    labels : numpy.ndarray
        int32 label image of the input's shape (of the kept part with
        ``fit="crop"``); 0 is the largest region.
    frames : numpy.ndarray or None
        int32 display frames, shape ``(frames,) + labels.shape``, in
        recording order; None unless ``frames=True``.
    regions : list of Region or None
        The final region list, index = label; None unless ``regions=True``.
    lines : list of str or None
        The progress lines, without their newlines; None unless
        ``lines=True``.
    notes : list of str
        What fitting changed (padding, cropping, rescaling).
    box : tuple of slice
        The part of the input that `labels` and `frames` cover, (y, x) or
        (z, y, x): all of it unless ``fit="crop"`` cut it, so
        ``image[box]`` has the shape of `labels`.
    """

    labels: np.ndarray
    frames: Optional[np.ndarray] = None
    regions: Optional[list[Region]] = None
    lines: Optional[list[str]] = None
    notes: list[str] = field(default_factory=list)
    box: Box = ()


def _raise_for_status(run: dict, region_file: Optional[str], shape_hint: bool) -> None:
    status = run["status"]
    if status == _core.status_ok:
        return
    if status == _core.status_interrupted:
        raise KeyboardInterrupt("the segmentation was interrupted")
    if status == _core.status_file_failed:
        raise OSError(f"cannot write the region list file {region_file}")
    message = run["error"]
    if not message:
        raise MemoryError("the segmentation ran out of memory")
    if run["memory_needed"]:
        raise MemoryError(message)
    if shape_hint and message.startswith(_SHAPE_PROBLEMS):
        message += "; fit='pad' or fit='crop' makes any shape fit"
    raise ValueError(message)


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
    frames: bool = False,
    regions: bool = False,
    lines: bool = False,
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
    their most similar neighbour, and the regions are labelled 0, 1, ... by
    decreasing size.

    Parameters
    ----------
    image : array_like
        2-D (Y, X) or 3-D (Z, Y, X) array, C order, x fastest. Slices must be
        square with an edge of 2, 4, ..., 4096 pixels (at most 512 for a
        volume of more than one slice) and a volume must have 1, 2, 4, ...
        slices, no more than the edge (see `fit`). Values must be
        whole numbers 0..255 (see `rescale`). An int32 C-contiguous array is
        used without a copy; other integer, boolean and floating-point
        dtypes and other memory orders are converted.
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
        Make any shape segmentable as the command-line program's ``--fit``
        does. "pad" centres the image in a zero-filled one of the next
        allowed size and segments that; the labels and frames are cut back
        to the input's place in it, so they have the input's shape and
        overlay it (the region list and the region list file still describe
        the padded image: its block codes and region sizes). "crop" segments
        the centred largest allowed part; the labels and frames have its
        shape, and ``Segmentation.box`` (or ``fit_image(image,
        fit="crop").box``) says which part of the input it is. Default
        None: a shape that does not fit is an error.
    rescale : bool or (float, float), optional
        True maps the value range linearly onto 0..255 (rounded, before
        padding) instead of requiring whole numbers 0..255; ``(low, high)``
        maps the window between those percentiles of the values (e.g.
        ``(1, 99)``), clipping values outside it. The range or window is
        found over the whole input, before cropping (see
        `splitmerge.fit_image`). Default False.
    frames : bool, optional
        Record the display frames (the segmentation as it progresses).
    regions : bool, optional
        Collect the final region list.
    lines : bool, optional
        Keep the progress lines.
    progress : callable, optional
        Called with each progress line (a str without its newline) as the
        run prints it, in the calling thread, with the GIL held. An exception
        it raises ends the run at the next phase and is raised by `segment`.
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
        Bytes the run may take at most; a run whose worst case needs more
        is refused with MemoryError before it starts. None (the default)
        allows the memory available on this machine.

    Returns
    -------
    numpy.ndarray or Segmentation
        The int32 label image of the input's shape (of the kept part with
        ``fit="crop"``), 0 for the largest region; a `Segmentation`
        (``labels``, ``frames``, ``regions``, ``lines``, ``notes``, ``box``)
        when `frames`, `regions` or `lines` is asked for.

    Raises
    ------
    TypeError
        The image's dtype or a parameter's type cannot be used.
    ValueError
        The image's shape or values, or a parameter, cannot be used; the
        message is the library's one line (or says which option helps).
    MemoryError
        The run ran out of memory, or its worst case exceeds `memory_limit`
        (the message says how much it may need and how much is allowed).
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
    [0, 1]
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
    thread_count = _checked_threads(threads)
    limit = _checked_memory_limit(memory_limit)
    fitted = fit_image(image, fit=fit, rescale=rescale)
    path = None if region_file is None else os.fspath(region_file)
    run = _core.run(
        fitted.pixels, params, frames=bool(frames), lines=bool(lines), regions=bool(regions),
        region_file=None if path is None else os.fsencode(path), frame_budget=budget,
        progress=progress, threads=thread_count, memory_limit=limit)
    shape_hint = fit is None and max_level is None and lim_oct_level is None
    _raise_for_status(run, None if path is None else os.fsdecode(path), shape_hint)
    for message in run["warnings"]:
        warnings.warn(message.strip().removeprefix("splitmerge: "), RuntimeWarning,
                      stacklevel=2)
    labels = fitted.to_input(run["labels"])
    if not (frames or regions or lines):
        return labels
    return Segmentation(
        labels=labels,
        frames=None if run["frames"] is None else fitted.to_input(run["frames"]),
        regions=[Region((s0, s1), codes, nbs) for s0, s1, codes, nbs in run["regions"]]
        if regions else None,
        lines=run["lines"] if lines else None,
        notes=fitted.notes,
        box=fitted.box,
    )
