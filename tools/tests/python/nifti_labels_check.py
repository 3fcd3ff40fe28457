"""Checks NIfTI labels written by the program against nibabel.

Usage: nifti_labels_check.py PROGRAM FOLDER

Makes a NIfTI volume with a rotated, anisotropic orientation, segments it with
--fit pad, --fit crop and --slice, and checks that each labels file keeps the
input's header (orientation codes, voxel size, units, description), has the
shape the outputs promise, sits where its voxels came from in scanner space,
and holds the same labels as the .npy output; and that a big-endian scan
reads as its voxels. Exits non-zero on a mismatch.
"""

import pathlib
import subprocess
import sys

import nibabel as nib
import numpy as np


def run(program: str, folder: pathlib.Path, *arguments: str) -> None:
    """Runs the program quietly in the folder, failing on a non-zero exit."""
    subprocess.run([program, "--quiet", *arguments], cwd=folder, check=True)


def translation(x0: int, y0: int, z0: int) -> np.ndarray:
    """The affine that moves voxel (0, 0, 0) to voxel (x0, y0, z0)."""
    t = np.eye(4)
    t[:3, 3] = [x0, y0, z0]
    return t


def check_header(labels: nib.Nifti1Image, scan: nib.Nifti1Image, moved: np.ndarray) -> None:
    """The labels keep the scan's header, their first voxel moved by `moved`."""
    assert labels.header.get_data_dtype() == np.int32, labels.header.get_data_dtype()
    assert int(labels.header["intent_code"]) == 1002, "intent is not 'label'"
    assert np.allclose(labels.header.get_zooms()[:3], scan.header.get_zooms()[:3])
    assert labels.header.get_xyzt_units() == scan.header.get_xyzt_units()
    assert labels.header["descrip"] == scan.header["descrip"]
    for name in ("qform", "sform"):
        expected, expected_code = getattr(scan, "get_" + name)(coded=True)
        got, code = getattr(labels, "get_" + name)(coded=True)
        assert code == expected_code, (name, code, expected_code)
        assert np.allclose(got, expected @ moved, atol=1e-4), (name, got, expected @ moved)


def main() -> int:
    program, folder = sys.argv[1], pathlib.Path(sys.argv[2])
    rng = np.random.default_rng(3)
    data = (rng.integers(0, 40, size=(20, 24, 5)) + 100 * (np.arange(20)[:, None, None] > 9))
    angle = 0.3
    affine = np.array([[0.9 * np.cos(angle), -1.1 * np.sin(angle), 0, -30.0],
                       [0.9 * np.sin(angle), 1.1 * np.cos(angle), 0, 12.5],
                       [0, 0, 2.5, -7.0],
                       [0, 0, 0, 1]])
    scan = nib.Nifti1Image(data.astype(np.int16), affine)
    scan.header.set_xyzt_units("mm", "sec")
    scan.header["descrip"] = b"test scan"
    scan.set_qform(affine, code=1)
    scan.set_sform(affine, code=2)
    nib.save(scan, folder / "scan.nii.gz")
    scan = nib.load(folder / "scan.nii.gz")

    run(program, folder, "scan.nii.gz", "--fit", "pad", "--labels", "pad.nii.gz")
    run(program, folder, "scan.nii.gz", "--fit", "pad", "--labels", "pad.npy")
    padded = nib.load(folder / "pad.nii.gz")
    assert padded.shape == scan.shape, padded.shape
    check_header(padded, scan, translation(0, 0, 0))
    npy = np.load(folder / "pad.npy")  # (Z, Y, X)
    assert np.array_equal(np.asarray(padded.dataobj), npy.transpose(2, 1, 0))

    # --fit crop keeps x 2..17, y 4..19, z 0..3 of the 20 x 24 x 5 scan; the
    # labels lie over the whole scan, 0 outside the part kept.
    run(program, folder, "scan.nii.gz", "--fit", "crop", "--labels", "crop.nii")
    cropped = nib.load(folder / "crop.nii")
    assert cropped.shape == scan.shape, cropped.shape
    check_header(cropped, scan, translation(0, 0, 0))
    kept = np.zeros(scan.shape, bool)
    kept[2:18, 4:20, 0:4] = True
    assert (np.asarray(cropped.dataobj)[~kept] == 0).all()
    assert (np.asarray(cropped.dataobj)[kept] >= 1).all()

    run(program, folder, "scan.nii.gz", "--slice", "3", "--fit", "pad", "--labels", "slice.nii")
    one = nib.load(folder / "slice.nii")
    assert one.shape[:2] == (20, 24) and one.shape[2:] in ((), (1,)), one.shape
    check_header(one, scan, translation(0, 0, 3))
    # A big-endian scan reads as the same voxels.
    small = rng.integers(0, 256, size=(16, 16, 2)).astype(">i2")
    big_endian = nib.Nifti1Image(small, affine)
    big_endian.header.set_data_dtype(">i2")
    big_endian = nib.Nifti1Image(small, affine, big_endian.header.as_byteswapped(">"))
    nib.save(big_endian, folder / "big.nii")
    assert nib.load(folder / "big.nii").header.endianness == ">"
    run(program, folder, "big.nii", "--save-input", "big.npy")
    assert np.array_equal(np.load(folder / "big.npy"), small.astype(np.int32).transpose(2, 1, 0))
    print("ok")
    return 0


if __name__ == "__main__":
    sys.exit(main())
