"""
Choosing the parameters
=======================

The three parameters that matter most with the default predicate (``chi2``,
the variance of a block against chi-square thresholds): ``sigma``, the
noise expected in a homogeneous region; ``interval_length``, how far apart
the means of two regions may be for them to unite; and ``small_size``, the
smallest region kept. Each row varies one of them around the defaults
(5, 10 and 30) on a brain slice and on a photograph.
"""

import matplotlib.pyplot as plt
import nibabel
import numpy as np
from PIL import Image

import splitmerge

# An axial slice of the Colin27 T1 template (the (Z, Y, X) volume's slice 90)
# and the portrait that matplotlib ships, in grey; both 128 x 128.
brain = np.asarray(nibabel.load("/usr/share/mricron/templates/ch2.nii.gz").dataobj).T[90]
brain = brain[60:188, 26:154]
photo = Image.open("/usr/share/matplotlib/mpl-data/sample_data/grace_hopper.jpg")
photo = np.asarray(photo.convert("L").resize((128, 160)))[16:144]


def shuffled(labels: np.ndarray) -> np.ndarray:
    """Labels renumbered at random, so that neighbours get distant colours."""
    return np.random.default_rng(0).permutation(labels.max() + 1)[labels]


def sweep(image: np.ndarray, name: str, values: list, title: str) -> None:
    """One row: the image, then its labels for each value of one parameter."""
    figure, axes = plt.subplots(1, len(values) + 1, figsize=(12, 2.9),
                                constrained_layout=True)
    axes[0].imshow(image, cmap="gray", vmin=0, vmax=255)
    axes[0].set_title(title)
    for ax, value in zip(axes[1:], values):
        labels = splitmerge.segment(image, **{name: value})
        ax.imshow(shuffled(labels), cmap="nipy_spectral", interpolation="nearest")
        ax.set_title(f"{name}={value}: {np.unique(labels).size} regions", fontsize=9)
    for ax in axes:
        ax.set_axis_off()


###############################################################################
# sigma
# -----
# The expected standard deviation of the noise, in grey levels. Too small,
# and texture splits the image into many small blocks that grouping must
# put together again; too large, and blocks that straddle an edge pass the
# test, so edges turn blocky. Start from the noise of a flat patch of the
# image (its standard deviation).

sweep(brain, "sigma", [2.0, 5.0, 10.0], "brain slice")
sweep(photo, "sigma", [2.0, 5.0, 10.0], "photograph")

###############################################################################
# interval_length
# ---------------
# The largest difference of the means of two regions that may unite (in grey
# levels). It sets the contrast below which two neighbouring regions become
# one: raise it to merge shades of one tissue, lower it to keep faint edges.

sweep(brain, "interval_length", [4, 10, 25], "brain slice")
sweep(photo, "interval_length", [4, 10, 25], "photograph")

###############################################################################
# small_size
# ----------
# Regions with fewer pixels are absorbed by their most similar neighbour at
# the end of the run; 0 keeps every region. It removes speckle without
# touching the larger regions; set it a little below the smallest structure
# that matters.

sweep(brain, "small_size", [0, 30, 120], "brain slice")
sweep(photo, "small_size", [0, 30, 120], "photograph")
