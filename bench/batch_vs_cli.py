"""Batch of 16 volumes on 2 Dask workers against 16 sequential runs of the
command-line program, on the same files with the same parameters.

Usage (after building build/release and installing the Python package into
the Python running this script, e.g. build/python-venv from scripts/test.sh):

    build/python-venv/bin/python bench/batch_vs_cli.py [--cli PATH] [--count 16] [--workers 2]

The volumes are 16 different 150 x 170 x 150 windows of the Colin27 scan,
written as NIfTI and cropped to 128^3 by both (--fit crop). The batch time
includes starting and closing the local cluster. Both label sets are checked
to be identical. Prints one line for the README.
"""

from __future__ import annotations

import argparse
import os
import resource
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import nibabel
import numpy as np

SCAN = "/usr/share/mricron/templates/ch2.nii.gz"
PARAMS = ["--pred-choice", "4", "--sigma", "3", "--interval-length", "12", "--small-size", "50"]


def _children_cpu() -> float:
    """CPU seconds of the finished child processes (and of theirs)."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def write_volumes(folder: Path, count: int) -> list[Path]:
    scan = nibabel.load(SCAN)
    data = np.asarray(scan.dataobj)  # (X, Y, Z)
    window = (150, 170, 150)
    rng = np.random.default_rng(16)
    paths = []
    for k in range(count):
        x0, y0, z0 = (int(rng.integers(0, n - w + 1)) for n, w in zip(data.shape, window))
        part = data[x0:x0 + window[0], y0:y0 + window[1], z0:z0 + window[2]]
        shift = np.eye(4)
        shift[:3, 3] = (x0, y0, z0)
        paths.append(folder / f"colin27-window{k:02d}.nii.gz")
        nibabel.save(nibabel.Nifti1Image(np.ascontiguousarray(part), scan.affine @ shift,
                                         scan.header), paths[-1])
    return paths


def main() -> int:
    root = Path(__file__).resolve().parents[1]
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cli", default=str(root / "build" / "release" / "tools" / "splitmerge"))
    parser.add_argument("--count", type=int, default=16)
    parser.add_argument("--workers", type=int, default=2)
    args = parser.parse_args()

    with tempfile.TemporaryDirectory(prefix="splitmerge-batch-bench-") as tmp:
        folder = Path(tmp)
        inputs = write_volumes(folder, args.count)

        cli_out = folder / "cli"
        cli_out.mkdir()
        load_before = os.getloadavg()[0]
        cpu = _children_cpu()
        started = time.perf_counter()
        for path in inputs:
            subprocess.run([args.cli, str(path), "--fit", "crop", "--quiet", "--labels",
                            str(cli_out / (path.name[:-7] + ".npy")), *PARAMS], check=True)
        sequential = time.perf_counter() - started
        sequential_cpu = _children_cpu() - cpu

        batch_out = folder / "batch"
        cpu = _children_cpu()
        started = time.perf_counter()
        subprocess.run([sys.executable, "-m", "splitmerge.batch", *map(str, inputs), "--out",
                        str(batch_out), "--workers", str(args.workers), "--no-progress",
                        "--fit", "crop", *PARAMS], check=True)
        batch = time.perf_counter() - started
        batch_cpu = _children_cpu() - cpu

        for path in inputs:
            name = path.name[:-7]
            batch_labels = np.asarray(nibabel.load(batch_out / f"{name}.labels.nii.gz").dataobj)
            if not np.array_equal(batch_labels.T, np.load(cli_out / f"{name}.npy")):
                print(f"labels differ for {path.name}", file=sys.stderr)
                return 1

    print(f"| {args.count} Colin27 windows, cropped to 128³ | {args.count} sequential runs of "
          f"the command-line program: {sequential:.1f} s ({sequential_cpu:.1f} s CPU) | "
          f"splitmerge.batch --workers {args.workers}: {batch:.1f} s ({batch_cpu:.1f} s CPU, "
          f"cluster start included) | {sequential / batch:.2f}× | {os.cpu_count()} cores, "
          f"load {load_before:.1f} before |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
