"""Every reference case through the Python API: labels, frames, progress
lines, status and region list file exactly as expected."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import conformance_cases, load_case

CASES = conformance_cases()


def test_every_reference_case_is_there() -> None:
    assert len(CASES) >= 200


def region_records_text(regions: list[splitmerge.Region]) -> str:
    """The region records as the region list file writes them (after its six
    header lines): statistics, hexadecimal block codes, 0, neighbours, -1."""
    out = []
    for r in regions:
        out.append(f"{r.statistics[0]} {r.statistics[1]}\n")
        out.extend(f"{code:x}\n" for code in r.codes.tolist())
        out.append("0\n")
        out.extend(f"{n}\n" for n in r.neighbours.tolist())
        out.append("-1\n")
    return "".join(out)


# Some cases take values outside the meaningful ranges on purpose.
@pytest.mark.filterwarnings("ignore::UserWarning")
@pytest.mark.parametrize("threads", [1, 0], ids=["one thread", "every core"])
@pytest.mark.parametrize("folder", CASES, ids=[c.name for c in CASES])
def test_reference_case(folder: Path, threads: int, tmp_path: Path,
                        monkeypatch: pytest.MonkeyPatch) -> None:
    case = load_case(folder)
    assert case.status == 0, "cases that fail have no Python outcome to compare"
    # The progress lines name the region list file as given: run where the
    # case ran, with the same relative name.
    monkeypatch.chdir(tmp_path)
    result = splitmerge.segment(
        case.image, **case.params, frames=case.display, lines=True, regions=True,
        region_file="regions.txt" if case.save else None, start_label=0, threads=threads)

    assert result.labels.dtype == np.int32
    assert result.labels.shape == case.image.shape
    np.testing.assert_array_equal(result.labels, case.labels)
    assert "".join(line + "\n" for line in result.lines) == case.stdout
    if case.frames is not None:
        assert result.frames.shape == case.frames.shape
        np.testing.assert_array_equal(result.frames, case.frames)
    if case.regions_text is not None:
        assert (tmp_path / "regions.txt").read_text() == case.regions_text
        # The collected region list says what the file says.
        records = "".join(case.regions_text.splitlines(keepends=True)[6:])
        assert region_records_text(result.regions) == records
    assert len(result.regions) == result.region_count == int(case.labels.max()) + 1
