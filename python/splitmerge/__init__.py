"""Split-and-merge segmentation of 2-D and 3-D grey images.

>>> import numpy as np, splitmerge
>>> labels = splitmerge.segment(np.zeros((64, 64), np.int32))

See ``help(splitmerge.segment)`` for the parameters.
"""

from importlib import metadata as _metadata

from ._api import Region, Segmentation, segment
from ._fit import FittedImage, fit_image, is_segmentable_shape
from ._params import DEFAULTS, GROUP_MODES, PARAMETER_NAMES, PRED_CHOICES

__all__ = [
    "DEFAULTS",
    "FittedImage",
    "GROUP_MODES",
    "PARAMETER_NAMES",
    "PRED_CHOICES",
    "Region",
    "Segmentation",
    "fit_image",
    "is_segmentable_shape",
    "segment",
]
try:
    # Set from the file VERSION when the package is built.
    __version__ = _metadata.version("splitmerge")
except _metadata.PackageNotFoundError:  # imported from a source tree
    __version__ = "unknown"
