"""Shared fixtures: the reference cases and small test images."""

from __future__ import annotations

import json
import logging
import os
from dataclasses import dataclass
from pathlib import Path
from typing import Iterator, Optional

import numpy as np
import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


def conformance_root() -> Path:
    """Where the reference cases are: $SPLITMERGE_CONFORMANCE or ../shared/conformance."""
    env = os.environ.get("SPLITMERGE_CONFORMANCE")
    return Path(env) if env else REPOSITORY.parent / "shared" / "conformance"


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


@pytest.fixture
def blocks_64() -> np.ndarray:
    return noise_image((64, 64), seed=1)


def pytest_report_header() -> str:
    import splitmerge

    return f"splitmerge from {Path(splitmerge.__file__).parent}"
