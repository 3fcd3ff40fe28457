"""Images beyond 256 pixels along an edge: 2-D up to 16384, volumes up to 1024,
with 64-bit block codes (what the codes name is the command-line program's
test; its region list file must be Python's)."""

from __future__ import annotations

import os
import subprocess
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import noise_image, region_records_text

ARGS = dict(pred_choice="chi2", sigma=4.0, small_size=30)
CLI = os.environ.get("SPLITMERGE_CLI")


def test_codes_take_64_bits_beyond_256_pixels(tmp_path: Path) -> None:
    image = noise_image((512, 512), seed=7, levels=5)
    result = splitmerge.segment(image, **ARGS, regions=True, region_file=tmp_path / "py.txt")
    assert result.labels.shape == (512, 512) and len(result.regions) > 1
    assert all(r.codes.dtype == np.uint64 and r.codes.size >= 1 for r in result.regions)
    # Every block but the whole image has a digit at level 8: past 32 bits.
    assert all(c >> 32 != 0 for r in result.regions for c in r.codes.tolist())
    text = (tmp_path / "py.txt").read_text()
    assert region_records_text(result.regions) == "".join(text.splitlines(keepends=True)[6:])
    if CLI:
        np.save(tmp_path / "in.npy", image)
        done = subprocess.run([CLI, "in.npy", "--quiet", "--pred-choice", "chi2", "--sigma", "4",
                               "--small-size", "30", "--regions", "cli.txt"],
                              cwd=tmp_path, capture_output=True, text=True, timeout=60)
        assert done.returncode == 0, done.stderr
        assert (tmp_path / "cli.txt").read_text() == text


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
