"""Labels, frames, region list, progress lines and region list file."""

from __future__ import annotations

from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import noise_image

SHAPES = [(32, 32), (64, 64), (4, 16, 16), (8, 8, 8)]


def face_neighbours(labels: np.ndarray) -> list[set[int]]:
    """For every label, the labels that share a face with it in the image."""
    out: list[set[int]] = [set() for _ in range(int(labels.max()) + 1)]
    for axis in range(labels.ndim):
        a = np.moveaxis(labels, axis, 0)
        pairs = np.stack([a[:-1].ravel(), a[1:].ravel()], axis=1)
        pairs = np.unique(pairs[pairs[:, 0] != pairs[:, 1]], axis=0)
        for p, q in pairs.tolist():
            out[p].add(q)
            out[q].add(p)
    return out


# chi2 keeps (sum, pixel count) with statistic_update on, range (min, max).
@pytest.mark.parametrize("shape", SHAPES)
@pytest.mark.parametrize("seed, options", [(1, dict(pred_choice="chi2", small_size=6)),
                                           (2, dict(pred_choice="chi2", small_size=6)),
                                           (5, dict(pred_choice="range", small_size=0))])
def test_region_list_agrees_with_the_label_image(shape, seed, options) -> None:
    image = noise_image(shape, seed=seed, levels=5)
    result = splitmerge.segment(image, sigma=4.0, interval_length=20, regions=True,
                                start_label=0, **options)
    labels = result.labels
    count = int(labels.max()) + 1
    assert len(result.regions) == count
    sizes = np.bincount(labels.ravel())
    # Labels 0, 1, ... by decreasing size; no label left out.
    assert (sizes > 0).all() and (np.diff(sizes) <= 0).all()
    for label, region in enumerate(result.regions):
        values = image[labels == label]
        assert region.statistics == ((int(values.sum()), values.size) if seed < 5 else
                                     (int(values.min()), int(values.max())))
        assert region.codes.dtype == np.uint32 and region.codes.size >= 1
        assert region.neighbours.dtype == np.int32
        # Every region sharing a face is listed (the list may also keep
        # regions that touched it before the small ones were absorbed).
        neighbours = set(region.neighbours.tolist())
        assert face_neighbours(labels)[label] <= neighbours
        assert all(0 <= n < count for n in neighbours)
    assert all(r.statistics[1] >= 6 for r in result.regions) or count == 1 or seed == 5


@pytest.mark.parametrize("shape", SHAPES)
def test_frames_stack_and_end_with_the_segmentation(shape) -> None:
    image = noise_image(shape, seed=7)
    result = splitmerge.segment(image, frames=True)
    assert result.frames.dtype == np.int32
    assert result.frames.shape[1:] == shape and result.frames.shape[0] >= 2
    assert result.frames.flags.c_contiguous
    # The first frame starts zero-filled; recording does not change the labels.
    np.testing.assert_array_equal(result.labels, splitmerge.segment(image))
    assert result.regions is None and result.lines is None


def test_frame_budget_stops_recording_with_a_warning() -> None:
    image = noise_image((32, 32), seed=7)
    full = splitmerge.segment(image, frames=True).frames
    with pytest.warns(RuntimeWarning, match=r"^frame recording stopped at 1 frames: the next "
                                            r"frame would exceed the frame budget of 4096 bytes$"):
        cut = splitmerge.segment(image, frames=True, frame_budget=32 * 32 * 4).frames
    assert cut.shape[0] == 1 < full.shape[0]
    # Painting goes on in the last frame kept, which ends as the last one.
    np.testing.assert_array_equal(cut[0], full[-1])


def test_progress_receives_every_line_as_printed() -> None:
    image = noise_image((16, 16, 16), seed=3)
    received: list[str] = []
    result = splitmerge.segment(image, lines=True, progress=received.append)
    assert received == result.lines
    assert received[0] == "finished initialisation"
    assert "finished make_output " in received  # the trailing blank is kept
    assert all("\n" not in line for line in received)


class Stop(Exception):
    pass


def test_an_exception_in_progress_ends_the_run_and_is_raised() -> None:
    image = noise_image((64, 64), seed=3)
    calls = []

    def progress(line: str) -> None:
        calls.append(line)
        raise Stop(line)

    with pytest.raises(Stop, match="^finished initialisation$"):
        splitmerge.segment(image, progress=progress)
    assert calls == ["finished initialisation"]


def test_region_file_is_written_where_asked_or_an_os_error(tmp_path: Path) -> None:
    image = noise_image((16, 16), seed=2)
    path = tmp_path / "régions.txt"
    result = splitmerge.segment(image, region_file=path, lines=True)
    text = path.read_text()
    assert text.splitlines()[:6] == ["16", "1", "2", "4.0000", str(result.labels.max()), "4"]
    assert f"file = {path} " in result.lines
    with pytest.raises(OSError, match=r"^cannot write the region list file .*no such folder"):
        splitmerge.segment(image, region_file=tmp_path / "no such folder" / "regions.txt")


def test_segmentation_of_a_blank_image_is_one_region() -> None:
    result = splitmerge.segment(np.zeros((64, 64), np.uint8), regions=True)
    assert (result.labels == 1).all()
    assert [r.statistics for r in result.regions] == [(0, 64 * 64)]
