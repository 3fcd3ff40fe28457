"""Shared fixtures: the reference cases, small test images and Dask clusters."""

from __future__ import annotations

import atexit
import csv
import shutil
import signal
import subprocess
import sys
import tarfile
import tempfile
import logging
import os
import time
from pathlib import Path
from typing import Callable, Iterator

import numpy as np
import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


def conformance_cases() -> list[Path]:
    """The reference cases: in $SPLITMERGE_CONFORMANCE, else in the
    repository's archive unpacked into a folder of this test session."""
    root = Path(os.environ.get("SPLITMERGE_CONFORMANCE", ""))
    if not os.environ.get("SPLITMERGE_CONFORMANCE"):
        folder = Path(tempfile.mkdtemp(prefix="splitmerge-reference-"))
        atexit.register(shutil.rmtree, folder, ignore_errors=True)
        with tarfile.open(REPOSITORY / "tests" / "reference" / "cases.tar.xz") as archive:
            # The "data" filter, where this Python has it, refuses anything but
            # plain files and folders.
            archive.extractall(folder, **({"filter": "data"} if hasattr(tarfile, "data_filter")
                                          else {}))
        root = folder / "conformance"
    if not root.is_dir():
        return []
    return sorted(p for p in root.iterdir() if (p / "params.json").is_file())


def noise_image(shape: tuple[int, ...], seed: int, levels: int = 4) -> np.ndarray:
    """Piecewise-constant blocks plus noise: images with several regions."""
    rng = np.random.default_rng(seed)
    coarse = rng.integers(0, levels, size=tuple(max(1, s // 4) for s in shape))
    base = coarse * (200 // max(1, levels - 1))
    for axis, size in enumerate(shape):
        base = np.repeat(base, -(-size // base.shape[axis]), axis=axis)
    base = base[tuple(slice(0, s) for s in shape)]
    noisy = base + rng.normal(0, 4, size=shape)
    return np.clip(np.rint(noisy), 0, 255).astype(np.int32)


def npy_scans(folder: Path, shapes: list[tuple[int, ...]], seed: int,
              levels: int = 4) -> list[Path]:
    """A noise_image of each shape, saved as folder/scan<k>.npy."""
    folder.mkdir(exist_ok=True)
    paths = [folder / f"scan{k:02d}.npy" for k in range(len(shapes))]
    for k, (path, shape) in enumerate(zip(paths, shapes)):
        np.save(path, noise_image(shape, seed + k, levels))
    return paths


@pytest.fixture(scope="session")
def client(tmp_path_factory: pytest.TempPathFactory) -> Iterator:
    """A Dask client of a local cluster of two worker processes."""
    distributed = pytest.importorskip("distributed")
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  host="127.0.0.1", dashboard_address="127.0.0.1:0",
                                  silence_logs=logging.ERROR,
                                  local_directory=str(tmp_path_factory.mktemp("dask"))
                                  ) as cluster:
        with distributed.Client(cluster, timeout="30s") as c:
            yield c


class DaskProcesses:
    """A dask-scheduler and two dask-worker processes on 127.0.0.1, each in a
    session of its own so that it outlives no test: closed by SIGTERM, else
    SIGKILL, also when the start fails."""

    def __init__(self, folder: Path) -> None:
        from distributed.utils import json_load_robust

        self.folder = folder
        self.processes: dict[str, subprocess.Popen] = {}
        try:
            file = str(folder / "scheduler.json")
            self.start("scheduler", "distributed.cli.dask_scheduler", "--host", "127.0.0.1",
                       "--port", "0", "--no-dashboard", "--scheduler-file", file)
            self.address = json_load_robust(file, timeout=60)["address"]
            self.start_workers("worker1", "worker2")
        except BaseException:
            self.close()
            raise

    def start(self, name: str, *args: str) -> None:
        with open(self.folder / f"{name}.log", "w") as log:
            self.processes[name] = subprocess.Popen(
                [sys.executable, "-m", *args], stdout=log, stderr=subprocess.STDOUT,
                start_new_session=True)

    def start_workers(self, *names: str) -> None:
        """Starts workers and returns once the scheduler has every running one."""
        import distributed

        for name in names:
            self.start(name, "distributed.cli.dask_worker", self.address, "--name", name,
                       "--nthreads", "1", "--no-nanny", "--no-dashboard", "--host",
                       "127.0.0.1", "--death-timeout", "60", "--local-directory",
                       str(self.folder / name))
        running = sum(p.poll() is None for n, p in self.processes.items() if n != "scheduler")
        with distributed.Client(self.address, timeout="30s") as c:
            c.wait_for_workers(running, timeout=60)

    def kill(self, name: str) -> None:
        process = self.processes[name]
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
        process.wait(timeout=30)

    def close(self) -> None:
        for process in self.processes.values():
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGTERM)
        for name, process in self.processes.items():
            try:
                process.wait(timeout=15)
            except subprocess.TimeoutExpired:
                self.kill(name)


@pytest.fixture(scope="session")
def dask_processes(tmp_path_factory: pytest.TempPathFactory) -> Iterator[DaskProcesses]:
    pytest.importorskip("distributed")
    processes = DaskProcesses(tmp_path_factory.mktemp("dask-processes"))
    try:
        yield processes
    finally:
        processes.close()


def manifest_rows(out: Path) -> list[dict[str, str]]:
    with open(out / "manifest.csv", newline="") as f:
        return list(csv.DictReader(f))


def wait_for_a_finished_row(out: Path, running: Callable[[], bool]) -> int:
    """The manifest's "ok" rows once there is one, or once the batch has ended."""
    deadline = time.monotonic() + 240
    while time.monotonic() < deadline and running():
        if (out / "manifest.csv").exists():
            done = sum(r["status"] == "ok" for r in manifest_rows(out))
            if done:
                return done
        time.sleep(0.05)
    return 0


def region_records_text(regions: list) -> str:
    """The region records as the region list file writes them after its six
    header lines: statistics, hexadecimal block codes, 0, neighbours, -1."""
    out = []
    for r in regions:
        out.append(f"{r.statistics[0]} {r.statistics[1]}\n")
        out.extend(f"{code:x}\n" for code in r.codes.tolist())
        out.append("0\n")
        out.extend(f"{n}\n" for n in r.neighbours.tolist())
        out.append("-1\n")
    return "".join(out)


def pytest_report_header() -> str:
    import splitmerge

    return f"splitmerge from {Path(splitmerge.__file__).parent}"
