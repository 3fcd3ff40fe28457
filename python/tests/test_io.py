"""Reading images for the batch: the same pixels as the command-line program."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from splitmerge._io import extension_of, read_image, stem_of

CLI = os.environ.get("SPLITMERGE_CLI")


def test_names_and_extensions() -> None:
    assert extension_of("a/b.NII.GZ") == ".nii.gz" and stem_of("a/scan.v2.nii.gz") == "scan.v2"
    assert extension_of("x.tiff") == ".tiff" and stem_of("x.tiff") == "x"
    assert extension_of("noext") == "" and stem_of("noext") == "noext"


def write_inputs(folder: Path) -> dict[str, np.ndarray]:
    """Files of every readable kind and the (Z, Y, X) / (Y, X) pixels they hold."""
    from PIL import Image
    import nibabel
    import tifffile

    rng = np.random.default_rng(7)
    grey = rng.integers(0, 256, size=(20, 24)).astype(np.uint8)
    rgb = rng.integers(0, 256, size=(20, 24, 3)).astype(np.uint8)
    grey16 = rng.integers(0, 65536, size=(12, 16)).astype(np.uint16)
    pages = rng.integers(0, 256, size=(3, 16, 16)).astype(np.uint8)
    floats = rng.normal(0, 100, size=(5, 16, 20)).astype(np.float32)
    files = {"grey.png": grey, "colour.png": rgb,  # segment() makes it grey, as every front end
             "grey.pgm": grey, "grey16.png": grey16}
    for name, pixels in files.items():
        Image.fromarray(pixels).save(folder / name)
    for name, pixels, photometric in [("pages.tif", pages, "minisblack"),
                                      ("white.tif", pages[0], "miniswhite"),
                                      ("floats.tiff", floats, "minisblack")]:
        tifffile.imwrite(folder / name, pixels, photometric=photometric)
    files.update({"pages.tif": pages, "white.tif": 255 - pages[0].astype(np.int64),
                  "floats.tiff": floats})
    nibabel.save(nibabel.Nifti1Image(pages.T.astype(np.int16), np.eye(4)), folder / "scaled.nii")
    with open(folder / "scaled.nii", "r+b") as f:  # scl_slope, scl_inter at bytes 112, 116
        f.seek(112)
        f.write(np.array([0.5, 10.0], "<f4").tobytes())
    files["scaled.nii"] = pages * 0.5 + 10.0
    header = nibabel.Nifti1Header().as_byteswapped(">")
    header.set_data_dtype(">i2")
    files["big.nii"] = pages.astype(np.int16) * 3 + 1  # both bytes in use
    nibabel.save(nibabel.Nifti1Image(files["big.nii"].T.astype(">i2"), np.eye(4), header),
                 folder / "big.nii")
    return files


def test_readers_give_the_stored_pixels(tmp_path: Path) -> None:
    for name, expected in write_inputs(tmp_path).items():
        np.testing.assert_array_equal(read_image(tmp_path / name).pixels, expected,
                                      err_msg=name)


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
def test_readers_match_the_command_line_program(tmp_path: Path) -> None:
    for name in write_inputs(tmp_path):
        labels = tmp_path / f"{name}.labels.npy"
        subprocess.run([CLI, str(tmp_path / name), "--fit", "pad", "--rescale", "--quiet",
                        "--labels", str(labels)], check=True, timeout=120, capture_output=True)
        expected = splitmerge.segment(read_image(tmp_path / name).pixels, fit="pad",
                                      rescale=True)
        np.testing.assert_array_equal(expected, np.load(labels), err_msg=name)


def test_unreadable_files_say_why(tmp_path: Path) -> None:
    np.save(tmp_path / "four.npy", np.zeros((2, 2, 2, 2)))
    with pytest.raises(ValueError, match="the array has 4 dimensions; expected"):
        read_image(tmp_path / "four.npy")
    with pytest.raises(ValueError, match=r"unsupported format \(no extension\)"):
        read_image(tmp_path / "noext")
