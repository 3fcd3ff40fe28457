"""
The method on a brain slice
===========================

Split and merge on a 128 × 128 part of an axial slice of the Colin27 T1
brain template: the blocks the split and merge phases leave (the quadtree),
the regions that grow from them, and the frames the run records as it goes.
"""

import matplotlib.pyplot as plt
import nibabel
import numpy as np
from matplotlib.collections import PatchCollection
from matplotlib.patches import Rectangle

import splitmerge

# NIfTI stores x fastest: nibabel's (X, Y, Z) array transposed is (Z, Y, X).
volume = np.asarray(nibabel.load("/usr/share/mricron/templates/ch2.nii.gz").dataobj).T
image = volume[90, 60:188, 26:154]  # 128 x 128: edge 2**7, max_level 7

result = splitmerge.segment(image, frames=True, regions=True, lines=True)
labels = result.labels

###############################################################################
# The blocks of the quadtree
# --------------------------
# Every region is a union of blocks, named by locational codes: one 4-bit
# digit per level, the child's place among its siblings plus one (bit 0 of
# the place is x, bit 1 is y), the lowest non-zero digit giving the block's
# level. Decoding them draws the quadtree that the merge and split phases
# left, before the regions grew.


def block_square(code: int, max_level: int) -> tuple[int, int, int]:
    """(x, y, edge) of the block that a 2-D locational code names."""
    level = max_level
    if code:
        level = ((code & -code).bit_length() - 1) // 4
    x = y = 0
    for j in range(level, max_level):
        digit = (code >> (4 * j)) & 0xF
        if digit:
            x += ((digit - 1) & 1) << j
            y += (((digit - 1) >> 1) & 1) << j
    return x, y, 1 << level


max_level = image.shape[0].bit_length() - 1
squares = [block_square(int(code), max_level)
           for region in result.regions for code in region.codes]


def shuffled(labels: np.ndarray) -> np.ndarray:
    """Labels renumbered at random, so that neighbours get distant colours."""
    order = np.random.default_rng(0).permutation(labels.max() + 1)
    return order[labels]


figure, axes = plt.subplots(1, 3, figsize=(10, 3.6), constrained_layout=True)
axes[0].imshow(image, cmap="gray", vmin=0, vmax=255)
axes[0].set_title("the slice, 128 × 128")
axes[1].imshow(image, cmap="gray", vmin=0, vmax=255)
axes[1].add_collection(PatchCollection(
    [Rectangle((x - 0.5, y - 0.5), edge, edge) for x, y, edge in squares],
    facecolor="none", edgecolor="yellow", linewidth=0.4))
axes[1].set_title(f"{len(squares)} blocks after merge and split")
axes[2].imshow(shuffled(labels), cmap="nipy_spectral", interpolation="nearest")
axes[2].set_title(f"{len(result.regions)} regions")
for ax in axes:
    ax.set_axis_off()

###############################################################################
# Block sizes
# -----------
# Large blocks cover the flat background, single pixels the edges of the
# brain: the quadtree adapts the blocks to the image.

edges, counts = np.unique([edge for _, _, edge in squares], return_counts=True)
for edge, count in zip(edges, counts):
    print(f"{count:5d} blocks of {edge} x {edge} pixels")

###############################################################################
# The frames of the run
# ---------------------
# With ``frames=True`` the run records the segmentation as it progresses: the
# first frame colours the initial 8 × 8 blocks by their place among their
# siblings, the merge and split paint each new block with its place, the
# grouping paints the growing regions, and the last frame is the final
# partition.

frames = result.frames
picks = np.unique(np.linspace(0, len(frames) - 1, 6).round().astype(int))
figure, axes = plt.subplots(1, len(picks), figsize=(12, 2.6), constrained_layout=True)
for ax, index in zip(axes, picks):
    ax.imshow(shuffled(frames[index]), cmap="nipy_spectral", interpolation="nearest")
    ax.set_title(f"frame {index + 1} of {len(frames)}")
    ax.set_axis_off()

###############################################################################
# The progress lines name the phases as the run passes them:

print("\n".join(result.lines))
