"""Images beyond 256 pixels along an edge: 2-D up to 16384, volumes up to 1024,
with 64-bit block codes."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import noise_image

ARGS = dict(pred_choice="chi2", sigma=4.0, small_size=30)
CLI = os.environ.get("SPLITMERGE_CLI")


def region_file_codes(text: str) -> list[list[str]]:
    """The hexadecimal block codes of every region in a region list file."""
    lines = text.splitlines()[6:]
    out: list[list[str]] = []
    k = 0
    while k < len(lines):
        k += 1  # the statistics
        codes = []
        while lines[k] != "0":
            codes.append(lines[k])
            k += 1
        out.append(codes)
        k += 1
        while lines[k] != "-1":
            k += 1
        k += 1
    return out


def block_of(code: int, edge: int) -> tuple[slice, slice]:
    """The (y, x) pixels of a 2-D block: one digit 1..4 per level, 4 bits
    each, zero below the block's own level."""
    level = 0
    while level < 16 and (code >> (4 * level)) & 0xF == 0:
        level += 1
    x = y = 0
    for j in range(level, edge.bit_length() - 1):
        d = ((code >> (4 * j)) & 0xF) - 1
        x |= (d & 1) << j
        y |= ((d >> 1) & 1) << j
    side = 1 << level
    return slice(y, y + side), slice(x, x + side)


def test_512_image_runs_without_fit_and_gives_64_bit_codes(tmp_path: Path) -> None:
    image = noise_image((512, 512), seed=3, levels=5)
    result = splitmerge.segment(image, **ARGS, regions=True, region_file=tmp_path / "r.txt")
    labels = result.labels
    assert labels.shape == (512, 512) and labels.dtype == np.int32
    assert labels.max() >= 1
    covered = np.zeros(labels.shape, np.int32)
    for label, region in enumerate(result.regions, start=1):
        assert region.codes.dtype == np.uint64 and region.codes.size >= 1
        for code in region.codes.tolist():
            # Every block but the whole image has a digit at level 8: past 32 bits.
            assert code >> 32 != 0
            box = block_of(code, 512)
            assert (labels[box] == label).all()
            covered[box] += 1
    assert (covered == 1).all()
    written = region_file_codes((tmp_path / "r.txt").read_text())
    assert written == [[f"{c:x}" for c in r.codes.tolist()] for r in result.regions]


def test_256_image_keeps_32_bit_codes() -> None:
    result = splitmerge.segment(noise_image((256, 256), seed=3), **ARGS, regions=True)
    assert all(r.codes.dtype == np.uint32 for r in result.regions)


@pytest.mark.parametrize("shape, fit, segmented", [
    ((4100, 5000), "crop", (4096, 4096)),
    ((1, 1100, 1100), "pad", (1, 2048, 2048)),
    ((1, 600, 700), "crop", (1, 512, 512)),  # one slice: the 2-D limit holds
    ((3, 300, 300), "pad", (4, 512, 512)),
])
def test_fitting_reaches_the_largest_sizes(shape, fit, segmented) -> None:
    result = splitmerge.segment(np.zeros(shape, np.uint8), fit=fit, info=True)
    edge = 2**result.parameters["max_level"]
    slices = edge >> result.parameters["lim_oct_level"]
    assert (slices, edge, edge)[3 - len(segmented):] == segmented
    assert result.labels.shape == shape


@pytest.mark.skipif(not CLI, reason="SPLITMERGE_CLI (the command-line program) not given")
def test_command_line_region_list_file_has_the_same_64_bit_codes(tmp_path: Path) -> None:
    image = noise_image((512, 512), seed=7, levels=5)
    np.save(tmp_path / "in.npy", image)
    splitmerge.segment(image, pred_choice="chi2", sigma=4.0, small_size=30, interval_length=10,
                       threshold_row=3, region_file=tmp_path / "python.txt")
    options = ["--pred-choice", "chi2", "--sigma", "4", "--small-size", "30",
               "--interval-length", "10", "--threshold-row", "3"]
    done = subprocess.run([CLI, "in.npy", "--quiet", *options, "--regions", "cli.txt"],
                          cwd=tmp_path, capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "cli.txt").read_text() == (tmp_path / "python.txt").read_text()
