"""Reading grey images and volumes as the command-line program does, and
writing label images next to them.

Formats by extension: .npy ((Y, X) or (Z, Y, X)), .nii / .nii.gz (NIfTI-1,
x fastest, with its scaling), .tif / .tiff (one grey page per slice), .png and
.pgm (grey; a colour PNG is segmented as its grey levels, see segment()).
"""

from __future__ import annotations

import os
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Optional

import numpy as np

__all__ = ["ScanImage", "READABLE", "extension_of", "read_image", "stem_of", "write_labels"]

READABLE = (".npy", ".nii", ".nii.gz", ".tif", ".tiff", ".png", ".pgm")


class ReadError(ValueError):
    """The file cannot be read as a grey image; the message names it."""


@dataclass
class ScanImage:
    """Pixels (Y, X) or (Z, Y, X), x fastest, and the NIfTI image they came from."""

    pixels: np.ndarray
    nifti: Optional[Any] = None  # nibabel image, for the header and affine


def extension_of(path: os.PathLike | str) -> str:
    """The lower-case extension, ".nii.gz" counted as one."""
    name = Path(path).name.lower()
    if name.endswith(".nii.gz"):
        return ".nii.gz"
    return Path(name).suffix


def stem_of(path: os.PathLike | str) -> str:
    """The file name without its extension."""
    name = Path(path).name
    return name[:len(name) - len(extension_of(path))]


def _read_npy(path: Path) -> np.ndarray:
    # Mapped, not read: the run reads the pixels from the file's pages, and
    # the process holds no second copy of a large scan.
    a = np.load(path, mmap_mode="r", allow_pickle=False)
    if a.ndim not in (2, 3):
        raise ReadError(f"{path}: the array has {a.ndim} dimensions; expected (Y, X) or "
                        "(Z, Y, X)")
    if a.size == 0:
        raise ReadError(f"{path}: the array is empty")
    return a


def _read_nifti(path: Path) -> ScanImage:
    import nibabel

    image = nibabel.load(path)
    raw = np.asanyarray(image.dataobj.get_unscaled())
    if raw.ndim > 3 and any(n > 1 for n in raw.shape[3:]):
        raise ReadError(f"{path}: has {raw.ndim} dimensions; only single 2-D or 3-D volumes "
                        "are read")
    if raw.dtype.kind not in "iuf":
        raise ReadError(f"{path}: NIfTI data type {raw.dtype} is not a grey value (integer "
                        "or float voxels only)")
    raw = raw.reshape(raw.shape[:3]) if raw.ndim > 3 else raw
    # nibabel moves the header's scaling here, slope 0 or NaN read as none, as
    # the NIfTI library does; applied in double precision as the program does.
    slope, inter = float(image.dataobj.slope), float(image.dataobj.inter)
    if slope != 0.0 and (slope != 1.0 or inter != 0.0):
        raw = raw.astype(np.float64) * slope + inter
    volume = raw.T  # (X, Y, Z) -> (Z, Y, X)
    if volume.ndim == 3 and volume.shape[0] == 1:
        volume = volume[0]
    return ScanImage(volume, image)


def _read_tiff(path: Path) -> np.ndarray:
    import tifffile

    pages = []
    with tifffile.TiffFile(path) as tif:
        for number, page in enumerate(tif.pages, start=1):
            a = page.asarray()
            if a.ndim != 2:
                raise ReadError(f"{path}: page {number} is not a grey image")
            if a.dtype.kind == "u" and page.photometric == tifffile.PHOTOMETRIC.MINISWHITE:
                a = np.iinfo(a.dtype).max - a.astype(np.float64)
            if pages and a.shape != pages[0].shape:
                raise ReadError(f"{path}: page {number} is {a.shape[1]} x {a.shape[0]}, "
                                "unlike page 1")
            pages.append(a)
    if not pages:
        raise ReadError(f"{path}: TIFF without pages")
    return np.stack(pages) if len(pages) > 1 else pages[0]


def _read_png_or_pgm(path: Path) -> np.ndarray:
    from PIL import Image

    with Image.open(path) as picture:
        picture.load()
        if picture.mode == "P":
            picture = picture.convert("RGBA" if "transparency" in picture.info else "RGB")
        if picture.mode in ("LA", "RGBA", "PA") or "transparency" in picture.info:
            raise ReadError(f"{path}: images with transparency are not read; flatten it first")
        if picture.mode not in ("RGB", "L", "I", "I;16", "I;16B", "I;16L", "1"):
            raise ReadError(f"{path}: PNG/PGM mode {picture.mode} is not a grey image")
        # Colour stays (Y, X, 3) and a 1-bit picture boolean: segment() turns
        # them into grey levels by the rules every front end shares.
        return np.asarray(picture)


def read_image(path: os.PathLike | str) -> ScanImage:
    """Read a grey image or volume by its extension.

    Raises
    ------
    ValueError
        The extension is not readable or the file is not a grey image.
    OSError
        The file cannot be opened.
    """
    path = Path(path)
    ext = extension_of(path)
    if ext == ".npy":
        return ScanImage(_read_npy(path))
    if ext in (".nii", ".nii.gz"):
        return _read_nifti(path)
    if ext in (".tif", ".tiff"):
        return ScanImage(_read_tiff(path))
    if ext in (".png", ".pgm"):
        return ScanImage(_read_png_or_pgm(path))
    shown = f"'{ext}'" if ext else "(no extension)"
    raise ReadError(f"{path}: unsupported format {shown} (readable: {', '.join(READABLE)})")


def write_labels(path: Path, labels: np.ndarray, scan: ScanImage,
                 origin: tuple[int, int, int], description: str = "splitmerge labels") -> None:
    """Write labels as .npy, or as NIfTI with the scan's header and affine.

    `origin` is the scan's voxel (z, y, x) at the labels' first pixel: fitting
    may have cropped or padded, and the affine moves with it.
    """
    if not (extension_of(path) in (".nii", ".nii.gz") or path.name.endswith(".nii.gz")):
        with open(path, "wb") as f:
            np.save(f, labels)
        return
    import nibabel

    source = scan.nifti
    assert source is not None, "NIfTI labels need a NIfTI scan"
    volume = labels if labels.ndim == 3 else labels[np.newaxis]
    shift = np.eye(4)
    shift[:3, 3] = (origin[2], origin[1], origin[0])
    header = source.header.copy()
    header.set_data_dtype(np.int32)
    out = nibabel.Nifti1Image(np.ascontiguousarray(volume.T), source.affine @ shift, header)
    out.header.set_slope_inter(1.0, 0.0)
    out.header["cal_min"] = 0
    out.header["cal_max"] = int(labels.max()) if labels.size else 0
    out.header["descrip"] = description.encode()[:79]
    out.header.set_intent("label")
    nibabel.save(out, path)
