"""The thread count of a run changes nothing in its results."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import conformance_root, load_case, noise_image

THREAD_COUNTS = (1, 2, 7)
# Cases of both dimensions, with frames and a region list file among them.
CASE_NAMES = ("big_case003_64x64_p3_g1", "big_case005_16x16x16_p2_g1",
              "big_case007_128x128_p4_g0", "big_case011_32x32x8_p3_g1",
              "wide_64x64x64_sums")
CASES = [conformance_root() / n for n in CASE_NAMES if (conformance_root() / n).is_dir()]


@pytest.mark.skipif(not CASES, reason="no reference cases found")
# Some cases take values outside the meaningful ranges on purpose.
@pytest.mark.filterwarnings("ignore::UserWarning")
@pytest.mark.parametrize("folder", CASES, ids=[c.name for c in CASES])
@pytest.mark.parametrize("threads", THREAD_COUNTS)
def test_reference_case_for_every_thread_count(folder: Path, threads: int, tmp_path: Path,
                                               monkeypatch: pytest.MonkeyPatch) -> None:
    case = load_case(folder)
    monkeypatch.chdir(tmp_path)  # the progress lines name the region list file as given
    result = splitmerge.segment(
        case.image, **case.params, frames=case.display, lines=True,
        region_file="regions.txt" if case.save else None, threads=threads, start_label=0)
    np.testing.assert_array_equal(result.labels, case.labels)
    assert "".join(line + "\n" for line in result.lines) == case.stdout
    if case.frames is not None:
        np.testing.assert_array_equal(result.frames, case.frames)
    if case.regions_text is not None:
        assert (tmp_path / "regions.txt").read_text() == case.regions_text


@pytest.mark.parametrize("group_mode", ["sequential", "parallel"])
def test_random_volume_gives_the_same_results_for_every_thread_count(group_mode: str) -> None:
    volume = noise_image((16, 64, 64), seed=77, levels=5)
    runs = [splitmerge.segment(volume, group_mode=group_mode, small_size=20, frames=True,
                               lines=True, regions=True, threads=t) for t in THREAD_COUNTS]
    first = runs[0]
    assert first.labels.max() > 3  # several regions, so there is work to share
    for other in runs[1:]:
        np.testing.assert_array_equal(other.labels, first.labels)
        np.testing.assert_array_equal(other.frames, first.frames)
        assert other.lines == first.lines
        assert [r.statistics for r in other.regions] == [r.statistics for r in first.regions]
        for a, b in zip(other.regions, first.regions):
            np.testing.assert_array_equal(a.codes, b.codes)
            np.testing.assert_array_equal(a.neighbours, b.neighbours)
    # 0, every core, agrees as well.
    np.testing.assert_array_equal(
        splitmerge.segment(volume, group_mode=group_mode, small_size=20, threads=0),
        first.labels)


def test_thread_count_is_checked(blocks_64: np.ndarray) -> None:
    with pytest.raises(ValueError, match=r"^threads = -1 must be 0 \(every core\) to 2\*\*31 - 1$"):
        splitmerge.segment(blocks_64, threads=-1)
    with pytest.raises(ValueError, match=r"^threads = 2147483648 "):
        splitmerge.segment(blocks_64, threads=2**31)
    for wrong in (1.5, "2", True, None):
        with pytest.raises(TypeError, match="^threads must be an int"):
            splitmerge.segment(blocks_64, threads=wrong)
    np.testing.assert_array_equal(splitmerge.segment(blocks_64, threads=np.int64(3)),
                                  splitmerge.segment(blocks_64, threads=1))
