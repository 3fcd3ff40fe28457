"""Cohorts: BIDS-like trees, provenance, reruns with other parameters, inputs
that are not inputs, Ctrl-C and restart (that the labels equal the command
line's is test_interfaces.py)."""

from __future__ import annotations

import json
import os
import signal
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import splitmerge
from conftest import manifest_rows, noise_image, npy_scans, wait_for_a_finished_row

distributed = pytest.importorskip("distributed")
nibabel = pytest.importorskip("nibabel")
from splitmerge.batch import segment_batch  # noqa: E402

PARAMS = dict(sigma=3.0, small_size=20)


@pytest.fixture(params=["LocalCluster", "dask-scheduler"])
def cluster(request: pytest.FixtureRequest) -> dict:
    """segment_batch's client of the session's LocalCluster, or the address of
    the session's dask-scheduler with two dask-worker processes."""
    if request.param == "LocalCluster":
        return {"client": request.getfixturevalue("client")}
    return {"scheduler": request.getfixturevalue("dask_processes").address}


@pytest.fixture
def cohort(tmp_path: Path) -> Path:
    """sub-01 and sub-02 (with a session), each with T1w.nii.gz and a BIDS-named copy."""
    root = tmp_path / "rawdata"
    for k, folder in enumerate(["sub-01/anat", "sub-02/ses-1/anat"]):
        (root / folder).mkdir(parents=True)
        volume = noise_image((6, 20, 24), seed=40 + k).T.astype(np.int16)  # x, y, z
        image = nibabel.Nifti1Image(volume, np.diag([0.9, 1.0, 1.1, 1.0]))
        nibabel.save(image, root / folder / "T1w.nii.gz")
        entities = folder.split("/")[0] + ("_ses-1" if "ses" in folder else "")
        nibabel.save(image, root / folder / f"{entities}_T1w.nii")
    return root


def batch(root: Path, out: Path, cluster: dict, **kwargs) -> list[dict[str, str]]:
    return segment_batch([str(root / "**" / "*.nii*")], out, fit="crop", progress=False,
                         **cluster, **{**PARAMS, **kwargs})


def test_outputs_mirror_the_tree_and_rerun(cohort: Path, cluster: dict) -> None:
    out = cohort / "derived"  # inside the pattern: never read as input
    rows = batch(cohort, out, cluster)
    assert [r["status"] for r in rows] == ["ok"] * 4
    assert len({r["output"] for r in rows}) == 4
    for row in rows:
        source = Path(row["input"])
        labels = Path(row["output"])
        # The tree below the pattern's fixed prefix, NIfTI always compressed.
        assert labels.parent == out / source.parent.relative_to(cohort)
        assert labels.name.endswith(".labels.nii.gz")
        image = nibabel.load(labels)
        assert image.header.get_intent()[0] == "label"
        assert image.header["descrip"].item().decode().startswith(
            f"splitmerge {splitmerge.__version__} max_level=")
        sidecar = json.loads(labels.with_name(labels.name.replace(".nii.gz", ".json"))
                             .read_text())
        assert sidecar["Version"] == row["version"] == splitmerge.__version__
        assert sidecar["Parameters"]["sigma"] == 3.0 and row["sigma"] == "3.0"
        assert int(row["regions"]) == sidecar["RegionCount"]
        # The manifest counts regions, not the largest label (start_label 1
        # and the crop's background 0 would make those differ).
        assert int(row["regions"]) == len(np.unique(image.dataobj)) - 1
    # Reruns skip only what the same parameters and version made.
    assert {r["status"] for r in batch(cohort, out, cluster)} == {"skipped"}
    changed = batch(cohort, out, cluster, sigma=2.0, small_size=5)
    assert {r["status"] for r in changed} == {"ok"}
    assert {r["sigma"] for r in manifest_rows(out)} == {"2.0"}
    sidecar = Path(changed[0]["output"].replace(".nii.gz", ".json"))
    sidecar.write_text(json.dumps(dict(json.loads(sidecar.read_text()), Version="0.0.1")))
    again = batch(cohort, out, cluster, sigma=2.0, small_size=5)
    assert [r["status"] for r in again].count("ok") == 1


def test_bids_derivatives(cohort: Path, client) -> None:
    out = cohort  # the dataset holds its derivatives; they are never inputs
    pattern = str(cohort / "**" / "sub-*.nii*")
    rows = segment_batch([pattern], out, bids=True, fit="pad", client=client, progress=False,
                         command="splitmerge test")
    derived = out / "derivatives" / "splitmerge"
    assert sorted(Path(r["output"]).relative_to(derived).as_posix() for r in rows) == [
        "sub-01/anat/sub-01_desc-splitmerge_dseg.nii.gz",
        "sub-02/ses-1/anat/sub-02_ses-1_desc-splitmerge_dseg.nii.gz"]
    description = json.loads((derived / "dataset_description.json").read_text())
    assert description["DatasetType"] == "derivative"
    assert description["GeneratedBy"][0] == {"Name": "splitmerge",
                                             "Version": splitmerge.__version__,
                                             "Description": "splitmerge test"}
    for row in rows:
        assert Path(row["output"].replace("_dseg.nii.gz", "_dseg.json")).is_file()
    again = segment_batch([pattern], out, bids=True, fit="pad", client=client, progress=False)
    assert [r["status"] for r in again] == ["skipped", "skipped"]
    with pytest.raises(ValueError, match="not a BIDS file name"):
        segment_batch([str(cohort / "**" / "T1w.nii.gz")], out, bids=True, client=client)


def test_ctrl_c_keeps_what_finished_and_a_restart_does_the_rest(tmp_path: Path,
                                                               cluster: dict) -> None:
    scans = npy_scans(tmp_path / "scans", [(32, 128, 128)] * 12, seed=0)[0].parent
    out = tmp_path / "out"
    where = ["--scheduler", cluster["scheduler"]] if "scheduler" in cluster else ["--workers", "1"]
    # Python takes Ctrl-C only when SIGINT is not ignored, as it is for jobs
    # started in the background: env restores the default for the batch.
    command = ["env", "--default-signal=INT", sys.executable, "-m", "splitmerge.batch",
               str(scans / "*.npy"), "--out", str(out), *where, "--no-progress",
               "--small-size", "0"]
    env = dict(os.environ, DASK_TEMPORARY_DIRECTORY=str(tmp_path))
    process = subprocess.Popen(command, stderr=subprocess.PIPE, text=True, env=env)
    wait_for_a_finished_row(out, lambda: process.poll() is None)
    process.send_signal(signal.SIGINT)
    _, errors = process.communicate(timeout=120)
    if process.returncode == 0:
        pytest.skip("the batch finished before Ctrl-C reached it")
    assert process.returncode == 130, errors
    assert errors.strip().splitlines()[-1].startswith("splitmerge.batch: interrupted; ")
    finished = [r for r in manifest_rows(out) if r["status"] == "ok"]
    assert finished and all(Path(r["output"]).is_file() for r in finished)
    if "scheduler" in cluster:  # the tasks running at Ctrl-C finish there: wait for them
        with distributed.Client(cluster["scheduler"], timeout="30s") as c:
            c.gather([c.submit(int, workers=[w], pure=False)
                      for w in c.scheduler_info()["workers"]])
    assert not list(out.rglob(".part-*"))
    complete = len(list(out.glob("*.labels.json")))
    assert complete == len(finished) or "scheduler" in cluster
    restart = subprocess.run(command, capture_output=True, text=True, env=env, timeout=300)
    assert restart.returncode == 0, restart.stderr
    assert f"{12 - complete} done, {complete} skipped" in restart.stderr
