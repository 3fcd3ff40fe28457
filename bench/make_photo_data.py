"""Writes the photograph cases of the benchmark from scikit-image's sample data.

    /usr/bin/python3 make_photo_data.py OUTPUT_FOLDER

Writes into the folder:
  camera.png       the 512 x 512 grey ``camera.png``, copied as it is, for
                   runs of the command-line program the way a user runs it
  retina_2048.npy  the 1411 x 1411 colour ``retina.jpg`` turned grey (PIL's
                   ITU-R 601 luma) and padded with 0, centred, to 2048 x 2048,
                   as an int32 array for bench_whole_run
"""
import os
import shutil
import sys

import numpy as np
import skimage.data
from PIL import Image

EDGE = 2048


def sample_path(name: str) -> str:
    """The path of one of scikit-image's bundled sample images."""
    return os.path.join(os.path.dirname(skimage.data.__file__), name)


def padded_grey(path: str, edge: int) -> np.ndarray:
    """The picture at `path` in grey, centred in a zero-filled edge x edge array."""
    grey = np.asarray(Image.open(path).convert("L"), dtype=np.int32)
    rows, columns = grey.shape
    if rows > edge or columns > edge:
        raise ValueError(f"{path} is {columns} x {rows}, larger than {edge} x {edge}")
    out = np.zeros((edge, edge), dtype=np.int32)
    top, left = (edge - rows) // 2, (edge - columns) // 2
    out[top:top + rows, left:left + columns] = grey
    return out


def main() -> None:
    if len(sys.argv) != 2:
        sys.exit("usage: make_photo_data.py OUTPUT_FOLDER")
    folder = sys.argv[1]
    shutil.copyfile(sample_path("camera.png"), os.path.join(folder, "camera.png"))
    np.save(os.path.join(folder, "retina_2048.npy"), padded_grey(sample_path("retina.jpg"), EDGE))


if __name__ == "__main__":
    main()
