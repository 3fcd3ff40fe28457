"""Every reference case through the Python API: labels, frames, progress
lines and region list file exactly as expected. Thread counts and the rest
of the harness are the library's own tests."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import conformance_cases, load_case, region_records_text

CASES = conformance_cases()


def test_every_reference_case_is_there() -> None:
    assert len(CASES) >= 200


# Some cases take values outside the meaningful ranges on purpose.
@pytest.mark.filterwarnings("ignore::UserWarning")
@pytest.mark.parametrize("folder", CASES, ids=[c.name for c in CASES])
def test_reference_case(folder: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    case = load_case(folder)
    assert case.status == 0, "cases that fail have no Python outcome to compare"
    monkeypatch.chdir(tmp_path)  # the progress lines name the region list file as given
    result = splitmerge.segment(
        case.image, **case.params, frames=case.display, lines=True, regions=True,
        region_file="regions.txt" if case.save else None, start_label=0)
    assert result.labels.dtype == np.int32
    np.testing.assert_array_equal(result.labels, case.labels)
    assert "".join(line + "\n" for line in result.lines) == case.stdout
    if case.frames is not None:
        np.testing.assert_array_equal(result.frames, case.frames)
    if case.regions_text is not None:
        assert (tmp_path / "regions.txt").read_text() == case.regions_text
        # The collected region list says what the file says after its header.
        records = "".join(case.regions_text.splitlines(keepends=True)[6:])
        assert region_records_text(result.regions) == records
    assert len(result.regions) == result.region_count == int(case.labels.max()) + 1
