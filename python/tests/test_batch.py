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
CLI = os.environ.get("SPLITMERGE_CLI")
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


def test_a_batch_equals_single_calls_and_fails_bad_inputs_alone(
        scans: list[Path], tmp_path: Path, client, capsys: pytest.CaptureFixture) -> None:
    folder = scans[0].parent
    (folder / "corrupt.nii.gz").write_bytes(b"this is not a NIfTI file")
    (folder / "corrupt.npy").write_bytes(b"\x93NUMPY garbage")
    np.save(folder / "oblong.npy", np.zeros((2, 17000), np.uint8))
    (folder / "notes.txt").write_text("hello")
    bad = ["corrupt.nii.gz", "corrupt.npy", "oblong.npy", "notes.txt", "missing.npy"]
    inputs = [str(p) for p in scans[:1]] + [str(folder / b) for b in bad] + [
        str(p) for p in scans[1:]]
    out = tmp_path / "out"
    rows = segment_batch(inputs, out, fit="pad", regions=True, client=client, progress=True,
                         **PARAMS)
    bar = capsys.readouterr().err.split("\r")[-1]
    assert all(p in bar for p in [f"{len(inputs)}/{len(inputs)}", "scan/s", "100%", "<00:00"])
    assert [r["input"] for r in rows] == inputs
    assert manifest_rows(out) == rows
    status = {Path(r["input"]).name: (r["status"], r["error"]) for r in rows}
    assert status["corrupt.nii.gz"][0] == status["missing.npy"][0] == "failed"
    assert status["corrupt.npy"][1].startswith("ValueError:")
    assert status["oblong.npy"] == (
        "failed", "ValueError: fit='pad' would need an edge of 32768 pixels for a 17000 x 2 "
                  "image, above the largest, 16384: use fit='crop'")
    assert status["notes.txt"] == (
        "failed", f"ReadError: {folder / 'notes.txt'}: unsupported format '.txt' (readable: "
                  ".npy, .nii, .nii.gz, .tif, .tiff, .png, .pgm)")
    assert "FileNotFoundError" in status["missing.npy"][1]
    for scan in scans:
        row = next(r for r in rows if r["input"] == str(scan))
        assert row["status"] == "ok", row
        direct_regions = tmp_path / f"{scan.name}.regions"
        expected = splitmerge.segment(read_pixels(scan), fit="pad", region_file=direct_regions,
                                      info=True, **PARAMS)
        labels_file = Path(row["output"])
        stem = scan.name.replace(".npy", "").replace(".nii.gz", "")
        assert labels_file.name == scan.name.replace(stem, stem + ".labels")
        np.testing.assert_array_equal(read_pixels(labels_file), expected.labels)
        assert int(row["regions"]) == expected.region_count
        assert (out / f"{stem}.regions.txt").read_text() == direct_regions.read_text()
    # Labels, sidecar and regions of each scan, the manifest: nothing of the bad inputs.
    assert len(list(out.iterdir())) == 3 * len(scans) + 1


def test_nifti_labels_of_batch_and_command_line_keep_the_scans_header(tmp_path: Path,
                                                                      client) -> None:
    """A rotated, anisotropic 20 x 24 x 5 scan: the labels of each fitting sit
    where their voxels came from in scanner space, in both writers."""
    angle = 0.3
    affine = np.array([[0.9 * np.cos(angle), -1.1 * np.sin(angle), 0, -30.0],
                       [0.9 * np.sin(angle), 1.1 * np.cos(angle), 0, 12.5],
                       [0, 0, 2.5, -7.0], [0, 0, 0, 1]])
    rng = np.random.default_rng(3)
    voxels = rng.integers(0, 40, size=(20, 24, 5)) + 100 * (np.arange(20)[:, None, None] > 9)
    scan = nibabel.Nifti1Image(voxels.astype(np.int16), affine)
    scan.header.set_xyzt_units("mm", "sec")
    scan.header["descrip"] = b"test scan"
    scan.set_qform(affine, code=1)
    scan.set_sform(affine, code=2)
    path = tmp_path / "scan.nii.gz"
    nibabel.save(scan, path)
    scan = nibabel.load(path)
    options = ["--sigma", "3", "--interval-length", "12", "--small-size", "20", "--quiet"]
    for fit, slice_ in [("pad", None), ("crop", None), ("pad", 3)]:
        rows = segment_batch([str(path)], tmp_path / f"{fit}{slice_}", fit=fit, slice=slice_,
                             client=client, progress=False, **PARAMS)
        labels = [nibabel.load(rows[0]["output"])]
        if CLI:
            cli = tmp_path / f"cli-{fit}{slice_}.nii"
            subprocess.run([CLI, str(path), "--fit", fit, "--labels", str(cli), *options,
                            *([] if slice_ is None else ["--slice", str(slice_)])], check=True)
            labels.append(nibabel.load(cli))
            assert labels[1].header["descrip"] == scan.header["descrip"]
        moved = np.eye(4)
        moved[2, 3] = slice_ or 0
        expected = splitmerge.segment(voxels.T, fit=fit, slice=slice_, **PARAMS)
        for image in labels:
            assert image.header.get_data_dtype() == np.int32
            assert image.header.get_intent()[0] == "label"
            assert image.header.get_zooms()[:3] == scan.header.get_zooms()[:3]
            assert image.header.get_xyzt_units() == scan.header.get_xyzt_units()
            # (The batch's labels of one slice keep the sform alone.)
            for name in ("sform",) if slice_ and image is labels[0] else ("qform", "sform"):
                got, code = getattr(image, "get_" + name)(coded=True)
                want, want_code = getattr(scan, "get_" + name)(coded=True)
                assert code == want_code
                np.testing.assert_allclose(got, want @ moved, atol=1e-4)
            np.testing.assert_array_equal(np.asarray(image.dataobj).T.reshape(expected.shape),
                                          expected)


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


def test_command_line_usage_errors_exit_2(tmp_path: Path, capsys) -> None:
    for window in ["99,1", "1,101", "1,", "a,b", "1,2,3", "50,50", " 1,99"]:
        with pytest.raises(SystemExit, match="^2$"):
            main(["a.npy", "--out", str(tmp_path), "--rescale", window])
        assert ("expected LOW,HIGH percentiles with 0 <= LOW < HIGH <= 100"
                in capsys.readouterr().err)
    for bad in (["--pred-choice", "chi-square"], ["--workers", "0"], ["--threads", "-1"]):
        assert main(["x.npy", "--out", str(tmp_path), *bad]) == 2
    with pytest.raises(ValueError, match="threads = -3"):
        segment_batch(["x.npy"], tmp_path, threads=-3)
    with pytest.raises(ValueError, match="no file matches"):
        segment_batch([str(tmp_path / "none" / "*.nii.gz")], tmp_path / "out")
    with pytest.raises(SystemExit, match="^2$"):
        main(["x.npy"])  # no --out


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
