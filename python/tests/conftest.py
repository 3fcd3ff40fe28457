"""Shared fixtures: the reference cases and small test images."""

from __future__ import annotations

import atexit
import functools
import json
import shutil
import tarfile
import tempfile
import logging
import os
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Optional

import numpy as np
import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


REFERENCE_ARCHIVE = REPOSITORY / "tests" / "reference" / "cases.tar.xz"


@functools.lru_cache(maxsize=1)
def conformance_root() -> Path:
    """Where the reference cases are: $SPLITMERGE_CONFORMANCE, else the
    repository's archive unpacked into a folder of this test session."""
    env = os.environ.get("SPLITMERGE_CONFORMANCE")
    if env:
        return Path(env)
    folder = Path(tempfile.mkdtemp(prefix="splitmerge-reference-"))
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    with tarfile.open(REFERENCE_ARCHIVE) as archive:
        # The archive is the repository's own; the "data" filter, where this
        # Python has it, refuses anything but plain files and folders anyway.
        extra = {"filter": "data"} if hasattr(tarfile, "data_filter") else {}
        archive.extractall(folder, **extra)
    return folder / "conformance"


def conformance_cases() -> list[Path]:
    root = conformance_root()
    if not root.is_dir():
        return []
    return sorted(p for p in root.iterdir() if (p / "params.json").is_file())


@dataclass
class ReferenceCase:
    name: str
    image: np.ndarray
    params: dict
    display: bool
    save: bool
    labels: np.ndarray
    frames: Optional[np.ndarray]
    stdout: str
    status: int
    regions_text: Optional[str]


def load_case(folder: Path) -> ReferenceCase:
    raw = json.loads((folder / "params.json").read_text())
    display = bool(raw.pop("display"))
    save = bool(raw.pop("save"))
    expected = folder / "expected"
    frames_file = expected / "frames.npy"
    regions_file = expected / "regions.txt"
    return ReferenceCase(
        name=folder.name,
        image=np.load(folder / "input.npy"),
        params=raw,
        display=display,
        save=save,
        labels=np.load(expected / "labels.npy"),
        frames=np.load(frames_file) if frames_file.exists() else None,
        stdout=(expected / "stdout.txt").read_text(),
        status=int((expected / "status.txt").read_text().strip()),
        regions_text=regions_file.read_text() if regions_file.exists() else None,
    )


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
