"""Split-and-merge segmentation of 2-D and 3-D grey images.

>>> import numpy as np, splitmerge
>>> labels = splitmerge.segment(np.zeros((64, 64), np.int32))

See ``help(splitmerge.segment)`` for the parameters.
"""

from . import _core
from ._api import Region, Segmentation, segment
from ._params import DEFAULTS, GROUP_MODES, PARAMETER_NAMES, PRED_CHOICES

__all__ = [
    "DEFAULTS",
    "GROUP_MODES",
    "PARAMETER_NAMES",
    "PRED_CHOICES",
    "Region",
    "Segmentation",
    "segment",
]
__version__: str = _core.version
