"""Figure of the README's Python example: a Colin27 slice, its labels and the
region boundaries drawn over it.

Usage: python3 python/examples/colin27_figure.py [OUTPUT.png]
(default docs/images/python-colin27.png; needs python3-matplotlib and
python3-nibabel, and the Colin27 template of Debian's mricron-data).
"""

from __future__ import annotations

import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import nibabel  # noqa: E402
import numpy as np  # noqa: E402

import splitmerge  # noqa: E402

SCAN = "/usr/share/mricron/templates/ch2.nii.gz"
DEFAULT_OUTPUT = Path(__file__).resolve().parents[2] / "docs" / "images" / "python-colin27.png"


def boundaries(labels: np.ndarray) -> np.ndarray:
    """True where a pixel's right or lower neighbour has another label."""
    edge = np.zeros(labels.shape, bool)
    edge[:, :-1] |= labels[:, :-1] != labels[:, 1:]
    edge[:-1, :] |= labels[:-1, :] != labels[1:, :]
    return edge


def main(output: Path) -> None:
    # NIfTI stores x fastest: nibabel's (X, Y, Z) array transposed is (Z, Y, X).
    volume = np.asarray(nibabel.load(SCAN).dataobj).T
    image = volume[90]
    # Segmented padded to 256 x 256; the labels come back at the slice's own shape.
    labels = splitmerge.segment(image, fit="pad", pred_choice="chi2", sigma=3.0,
                                interval_length=12, small_size=50)

    figure, axes = plt.subplots(1, 3, figsize=(12, 4.4), constrained_layout=True)
    axes[0].imshow(image, cmap="gray", vmin=0, vmax=255)
    axes[0].set_title("Colin27, axial slice 90")
    shuffled = np.random.default_rng(0).permutation(labels.max() + 1)[labels]
    axes[1].imshow(shuffled, cmap="nipy_spectral", interpolation="nearest")
    axes[1].set_title(f"{np.unique(labels).size} regions")
    overlay = np.dstack([image / 255.0] * 3)
    overlay[boundaries(labels)] = (1.0, 0.2, 0.1)
    axes[2].imshow(overlay, interpolation="nearest")
    axes[2].set_title("boundaries over the input")
    for ax in axes:
        ax.set_axis_off()
    output.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(output, dpi=80)
    print(f"wrote {output}")


if __name__ == "__main__":
    main(Path(sys.argv[1]) if len(sys.argv) > 1 else DEFAULT_OUTPUT)
