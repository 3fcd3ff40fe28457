"""Every reference case through the Python API: labels, frames, progress
lines and region list file exactly as expected, at one thread and on every
core. Forced 64-bit codes and the rest of the harness are the library's own
tests."""

from __future__ import annotations

import json
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import conformance_cases, region_records_text

CASES = conformance_cases()


def test_every_reference_case_is_there() -> None:
    assert len(CASES) >= 200


# Some cases take values outside the meaningful ranges on purpose.
@pytest.mark.filterwarnings("ignore::UserWarning")
@pytest.mark.parametrize("threads", [1, 0], ids=["one-thread", "every-core"])
@pytest.mark.parametrize("folder", CASES, ids=[c.name for c in CASES])
def test_reference_case(folder: Path, threads: int, tmp_path: Path,
                        monkeypatch: pytest.MonkeyPatch) -> None:
    params = json.loads((folder / "params.json").read_text())
    display, save = bool(params.pop("display")), bool(params.pop("save"))
    expected = folder / "expected"
    assert (expected / "status.txt").read_text().strip() == "0", "no Python outcome to compare"
    monkeypatch.chdir(tmp_path)  # the progress lines name the region list file as given
    result = splitmerge.segment(
        np.load(folder / "input.npy"), **params, frames=display, lines=True, regions=True,
        region_file="regions.txt" if save else None, start_label=0, threads=threads)
    labels = np.load(expected / "labels.npy")
    assert result.labels.dtype == np.int32
    np.testing.assert_array_equal(result.labels, labels)
    assert "".join(line + "\n" for line in result.lines) == (expected / "stdout.txt").read_text()
    if (expected / "frames.npy").exists():
        np.testing.assert_array_equal(result.frames, np.load(expected / "frames.npy"))
    if (expected / "regions.txt").exists():
        text = (expected / "regions.txt").read_text()
        assert (tmp_path / "regions.txt").read_text() == text
        # The collected region list says what the file says after its header.
        records = "".join(text.splitlines(keepends=True)[6:])
        assert region_records_text(result.regions) == records
    assert len(result.regions) == result.region_count == int(labels.max()) + 1
