"""Batch segmentation: a local cluster, a real scheduler with a worker killed
mid-batch, failing inputs, restarts, and the command line."""

from __future__ import annotations

import os
import subprocess
import sys
import threading
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import DaskProcesses, manifest_rows, npy_scans, wait_for_a_finished_row

distributed = pytest.importorskip("distributed")
nibabel = pytest.importorskip("nibabel")
from splitmerge.batch import main, segment_batch  # noqa: E402

SCAN = Path("/usr/share/mricron/templates/ch2.nii.gz")
PARAMS = dict(sigma=3.0, interval_length=12, small_size=20)


def read_pixels(path: Path) -> np.ndarray:
    """A file's pixels as (Z, Y, X) / (Y, X)."""
    if path.name.endswith(".nii.gz"):
        return np.asarray(nibabel.load(path).dataobj).T
    return np.load(path)


def direct_labels(path: Path, **fitting) -> np.ndarray:
    """The labels of one segment() call on a file."""
    return splitmerge.segment(read_pixels(path), **fitting, **PARAMS)


@pytest.fixture
def scans(tmp_path: Path) -> list[Path]:
    """Three small synthetic volumes and a Colin27 crop (not of a segmentable size)."""
    paths = npy_scans(tmp_path / "scans", [(8, 32, 32), (4, 16, 16), (16, 16, 16)], seed=30)
    if SCAN.exists():
        scan = nibabel.load(SCAN)
        crop = np.asarray(scan.dataobj)[50:110, 60:124, 70:100]  # x, y, z: 60 x 64 x 30
        paths.append(tmp_path / "scans" / "colin27.nii.gz")
        nibabel.save(nibabel.Nifti1Image(crop, scan.affine, scan.header), paths[-1])
    return paths


def test_batch_on_a_local_cluster_equals_single_calls(scans: list[Path], tmp_path: Path,
                                                      client) -> None:
    out = tmp_path / "out"
    rows = segment_batch([str(p) for p in scans], out, fit="pad", regions=True, client=client,
                         progress=False, **PARAMS)
    assert [r["input"] for r in rows] == [str(p) for p in scans]
    assert all(r["status"] == "ok" for r in rows), rows
    assert manifest_rows(out) == rows
    for scan, row in zip(scans, rows):
        direct_regions = tmp_path / f"{scan.name}.regions"
        expected = splitmerge.segment(read_pixels(scan), fit="pad", region_file=direct_regions,
                                      info=True, **PARAMS)
        labels_file = Path(row["output"])
        assert labels_file.name == scan.name.replace(".npy", ".labels.npy").replace(
            ".nii.gz", ".labels.nii.gz")
        np.testing.assert_array_equal(read_pixels(labels_file), expected.labels)
        assert int(row["regions"]) == expected.region_count
        region_file = out / labels_file.name.replace(".labels.npy", ".regions.txt").replace(
            ".labels.nii.gz", ".regions.txt")
        assert region_file.read_text() == direct_regions.read_text()
    assert not list(out.glob(".part-*"))


@pytest.mark.skipif(not SCAN.exists(), reason="needs the Colin27 scan (mricron-data)")
def test_nifti_labels_overlay_the_scan(scans: list[Path], tmp_path: Path, client) -> None:
    colin = scans[-1]
    rows = segment_batch([str(colin)], tmp_path / "out", fit="pad", client=client,
                         progress=False, **PARAMS)
    source, labels = nibabel.load(colin), nibabel.load(rows[0]["output"])
    # Padded 60 x 64 x 30 to 64 x 64 x 32 for the segmentation, the labels are
    # cut back to the scan's own grid: same shape, same affine and sform/qform.
    assert labels.get_data_dtype() == np.int32 and labels.shape == (60, 64, 30)
    np.testing.assert_array_equal(labels.affine, source.affine)
    np.testing.assert_allclose(labels.header.get_qform(), source.header.get_qform())
    np.testing.assert_allclose(labels.header.get_sform(), source.header.get_sform())
    assert labels.header.get_zooms() == source.header.get_zooms()
    # They are the padded run's labels at the scan's place (x 2.., y 0.., z 1..).
    volume = np.asarray(source.dataobj).T
    padded = np.zeros((32, 64, 64), volume.dtype)
    padded[1:31, 0:64, 2:62] = volume
    np.testing.assert_array_equal(np.asarray(labels.dataobj).T,
                                  splitmerge.segment(padded, **PARAMS)[1:31, :, 2:62])
    # One slice, padded 60 x 64 to 64 x 64: a one-slice volume at z = 5.
    rows = segment_batch([str(colin)], tmp_path / "slice", fit="pad", slice=5, client=client,
                         progress=False, **PARAMS)
    one_slice = nibabel.load(rows[0]["output"])
    assert one_slice.shape == (60, 64, 1)
    np.testing.assert_allclose(one_slice.affine @ np.array([0, 0, 0, 1.0]),
                               source.affine @ np.array([0, 0, 5, 1.0]))
    np.testing.assert_array_equal(np.asarray(one_slice.dataobj).T[0],
                                  splitmerge.segment(volume[5], fit="pad", **PARAMS))
    # The crop of the same scan keeps the scan's grid, 0 outside the part kept.
    rows = segment_batch([str(colin)], tmp_path / "cropped", fit="crop", client=client,
                         progress=False, **PARAMS)
    cropped = nibabel.load(rows[0]["output"])
    np.testing.assert_array_equal(cropped.affine, source.affine)
    np.testing.assert_array_equal(np.asarray(cropped.dataobj).T,
                                  splitmerge.segment(volume, fit="crop", **PARAMS))


def test_bad_inputs_fail_their_own_rows(scans: list[Path], tmp_path: Path, client) -> None:
    folder = scans[0].parent
    (folder / "corrupt.nii.gz").write_bytes(b"this is not a NIfTI file")
    (folder / "corrupt.npy").write_bytes(b"\x93NUMPY garbage")
    np.save(folder / "oblong.npy", np.zeros((8, 16), np.int32))
    (folder / "notes.txt").write_text("hello")
    inputs = [str(scans[0]), str(folder / "corrupt.nii.gz"), str(folder / "corrupt.npy"),
              str(folder / "oblong.npy"), str(folder / "notes.txt"),
              str(folder / "missing.npy"), str(scans[1])]
    out = tmp_path / "out"
    rows = segment_batch(inputs, out, client=client, progress=False, **PARAMS)
    status = {Path(r["input"]).name: (r["status"], r["error"]) for r in rows}
    assert status[scans[0].name][0] == status[scans[1].name][0] == "ok"
    assert status["corrupt.nii.gz"][0] == "failed"
    assert status["corrupt.npy"] == ("failed", status["corrupt.npy"][1])
    assert status["corrupt.npy"][1].startswith("ValueError:")
    assert status["oblong.npy"] == (
        "failed", "ValueError: the image is 16 x 8 pixels, but the segmentation needs square "
                  "slices of 2, 4, 8, ..., 16384 pixels: use fit='pad' or fit='crop'")
    assert status["notes.txt"] == (
        "failed", f"ReadError: {folder / 'notes.txt'}: unsupported format '.txt' (readable: "
                  ".npy, .nii, .nii.gz, .tif, .tiff, .png, .pgm)")
    assert status["missing.npy"][0] == "failed"
    assert "FileNotFoundError" in status["missing.npy"][1]
    assert len(manifest_rows(out)) == len(inputs)
    assert sorted(p.name for p in out.iterdir()) == sorted(
        ["manifest.csv"] + [scan.name.replace(".npy", ".labels" + ext)
                            for scan in scans[:2] for ext in (".npy", ".json")])


def run_command_line(workspace: Path, *args: str) -> subprocess.CompletedProcess:
    # Dask's worker folders go to the test's own folder, not to /tmp.
    env = dict(os.environ, DASK_TEMPORARY_DIRECTORY=str(workspace))
    return subprocess.run([sys.executable, "-m", "splitmerge.batch", *args],
                          capture_output=True, text=True, timeout=300, env=env)


def test_command_line_run_then_restart_skips_finished_work(scans: list[Path],
                                                           tmp_path: Path) -> None:
    out = tmp_path / "out"
    pattern = str(scans[0].parent / "scan*.npy")
    options = ["--out", str(out), "--workers", "1", "--fit", "crop", "--sigma", "3",
               "--interval-length", "12", "--small-size", "20", "--pred-choice", "chi2",
               "--threads", "2"]
    workspace = tmp_path / "dask"
    workspace.mkdir()
    first = run_command_line(workspace, pattern, *options)
    assert first.returncode == 0, first.stderr
    assert "dashboard: http://127.0.0.1:" in first.stderr
    assert "3 done, 0 skipped, 0 failed" in first.stderr
    rows = manifest_rows(out)
    assert [r["status"] for r in rows] == ["ok"] * 3
    for row in rows:
        np.testing.assert_array_equal(np.load(row["output"]),
                                      direct_labels(Path(row["input"]), fit="crop"))
    written = {p: p.stat().st_mtime_ns for p in out.glob("*.labels.npy")}

    # A crash mid-batch leaves an input without output: only that one is redone.
    Path(rows[1]["output"]).unlink()
    second = run_command_line(workspace, pattern, *options)
    assert second.returncode == 0, second.stderr
    assert "1 done, 2 skipped, 0 failed" in second.stderr
    again = manifest_rows(out)
    assert [r["status"] for r in again] == ["skipped", "ok", "skipped"]
    assert again[0]["seconds"] == rows[0]["seconds"] and again[0]["regions"] == rows[0]["regions"]
    for path, mtime in written.items():
        if path.name != Path(rows[1]["output"]).name:
            assert path.stat().st_mtime_ns == mtime
    np.testing.assert_array_equal(np.load(rows[1]["output"]),
                                  direct_labels(Path(rows[1]["input"]), fit="crop"))

    forced = run_command_line(workspace, pattern, *options, "--force")
    assert forced.returncode == 0 and "3 done, 0 skipped" in forced.stderr


@pytest.mark.parametrize("arguments, inputs, rescale", [
    (["a.npy", "--rescale", "1,99"], ["a.npy"], (1.0, 99.0)),
    (["a.npy", "--rescale=2.5,97.5"], ["a.npy"], (2.5, 97.5)),
    (["--rescale", "a.npy", "b.npy"], ["a.npy", "b.npy"], True),  # as the program's
    (["a.npy", "--rescale"], ["a.npy"], True),
    (["a.npy"], ["a.npy"], False),
])
def test_command_line_rescale_takes_a_percentile_window(tmp_path: Path, monkeypatch,
                                                        arguments, inputs, rescale) -> None:
    calls = []
    monkeypatch.setattr(splitmerge.batch, "segment_batch",
                        lambda given, out, **options: calls.append((given, options)) or [])
    assert main([*arguments, "--out", str(tmp_path)]) == 0
    assert calls[0][0] == inputs and calls[0][1]["rescale"] == rescale


@pytest.mark.parametrize("window", ["99,1", "1,101", "1,", "a,b", "1,2,3", "50,50", " 1,99"])
def test_command_line_rejects_a_bad_percentile_window(tmp_path: Path, window: str,
                                                      capsys) -> None:
    with pytest.raises(SystemExit) as raised:
        main(["a.npy", "--out", str(tmp_path), "--rescale", window])
    assert raised.value.code == 2
    assert "expected LOW,HIGH percentiles with 0 <= LOW < HIGH <= 100" in capsys.readouterr().err


def test_command_line_usage_errors_exit_2(tmp_path: Path) -> None:
    assert main(["x.npy", "--out", str(tmp_path), "--pred-choice", "chi-square"]) == 2
    assert main(["x.npy", "--out", str(tmp_path), "--workers", "0"]) == 2
    assert main(["x.npy", "--out", str(tmp_path), "--threads", "-1"]) == 2
    with pytest.raises(ValueError, match="threads = -3"):
        segment_batch(["x.npy"], tmp_path, threads=-3)
    with pytest.raises(SystemExit) as raised:
        main(["x.npy"])  # no --out
    assert raised.value.code == 2


def test_a_worker_killed_mid_batch_loses_nothing(tmp_path: Path,
                                                 dask_processes: DaskProcesses) -> None:
    dask_processes.start_workers("worker3")  # the one to kill; the cluster's two remain
    inputs = npy_scans(tmp_path / "scans", [(64, 128, 128)] * 8, seed=50, levels=6)  # ~1 s each
    out = tmp_path / "out"
    result: dict = {}

    def run() -> None:
        result["rows"] = segment_batch([str(p) for p in inputs], out,
                                       scheduler=dask_processes.address,
                                       progress=False, announce=lambda text: None, **PARAMS)

    batch = threading.Thread(target=run)
    batch.start()
    done = wait_for_a_finished_row(out, batch.is_alive)
    assert 1 <= done < len(inputs), "the kill must come mid-batch"
    dask_processes.kill("worker3")
    batch.join(timeout=300)
    assert not batch.is_alive()

    rows = result["rows"]
    assert [r["status"] for r in rows] == ["ok"] * len(inputs), rows
    assert manifest_rows(out) == rows
    for path, row in zip(inputs, rows):
        np.testing.assert_array_equal(np.load(row["output"]), direct_labels(path))
    assert not list(out.glob(".part-*"))


def test_progress_bar_shows_count_rate_and_eta(scans: list[Path], tmp_path: Path, client,
                                               capsys: pytest.CaptureFixture) -> None:
    segment_batch([str(p) for p in scans[:3]], tmp_path / "out", client=client,
                  progress=True, **PARAMS)
    bar = capsys.readouterr().err.split("\r")[-1]
    assert "3/3" in bar and "scan/s" in bar and "100%" in bar and "<00:00" in bar
