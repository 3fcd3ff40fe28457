"""Times the memory cases through the command-line program and prints a Markdown table.

    /usr/bin/python3 memory_cases.py --program splitmerge --data FOLDER --work FOLDER

Each case is one process under ``/usr/bin/time -v`` (wall time and peak resident
memory of the whole process: reading, the run and writing the labels):

* the brain at 512³ (``brain_512.npy`` of the data folder), default settings:
  its peak should stay below 4 GB;
* a 512 × 512 × 128 noise volume with ``--memory-limit 2G``: it must stop with
  exit status 3 within seconds, below 2.6 GB, leaving no file behind;
* a smooth 1024³ volume and a 16384² photograph (scikit-image's retina scaled
  by 11 and padded): time and peak;
* reading a 512³ 8-bit ``.npy`` of a smooth volume: the peak should stay within
  the input, the labels and 10 %.
The generated inputs are kept in the work folder and reused.
"""
import argparse
import os
import re
import subprocess
import time
from pathlib import Path

import numpy as np

GB = 10**9


def timed(command: list[str]) -> tuple[float, int, int, str]:
    """Wall seconds, peak resident bytes, exit status and first message line."""
    start = time.perf_counter()
    done = subprocess.run(["/usr/bin/time", "-v", *command], capture_output=True, text=True)
    seconds = time.perf_counter() - start
    peak = re.search(r"Maximum resident set size \(kbytes\): (\d+)", done.stderr)
    status = re.search(r"Exit status: (\d+)", done.stderr)
    message = next((line for line in done.stderr.splitlines()
                    if line.startswith("splitmerge:")), "")
    return (seconds, int(peak.group(1)) * 1024 if peak else 0,
            int(status.group(1)) if status else done.returncode, message)


def smooth_volume(edge: int) -> np.ndarray:
    """Cubes of 1/8 of the edge in seven grey levels: a few large regions."""
    i = (np.arange(edge) // (edge // 8)).astype(np.uint8)
    return ((i[:, None, None] * 5 + i[None, :, None] * 3 + i[None, None, :]) % 7 * 30).astype(
        np.uint8)


def photograph(edge: int) -> np.ndarray:
    """The retina picture in grey, each pixel made an 11 x 11 square (15521²)."""
    import skimage.data
    from PIL import Image
    path = os.path.join(os.path.dirname(skimage.data.__file__), "retina.jpg")
    grey = np.asarray(Image.open(path).convert("L"))
    return np.kron(grey, np.ones((11, 11), np.uint8))[:edge, :edge]


def ensure(path: Path, make) -> Path:
    if not path.exists():
        np.save(path, make())
    return path


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--data", required=True)
    parser.add_argument("--work", required=True)
    args = parser.parse_args()
    work = Path(args.work)
    work.mkdir(parents=True, exist_ok=True)
    out = work / "out"
    out.mkdir(exist_ok=True)

    noise = ensure(work / "noise_512x512x128.npy",
                   lambda: np.random.default_rng(0).integers(0, 256, (128, 512, 512), np.uint8))
    smooth_512 = ensure(work / "smooth_512.npy", lambda: smooth_volume(512))
    smooth_1024 = ensure(work / "smooth_1024.npy", lambda: smooth_volume(1024))
    photo = ensure(work / "photograph_16384.npy", lambda: photograph(16384))
    labels = str(out / "labels.npy")
    cases = [
        ("brain 512³, default settings", [str(Path(args.data) / "brain_512.npy")],
         "peak < 4 GB", lambda s, p, n: s == 0 and p < 4 * GB),
        ("noise 512 × 512 × 128, --memory-limit 2G", [str(noise), "--memory-limit", "2G"],
         "exit 3 in seconds, peak < 2.6 GB, no file left",
         lambda s, p, n: s == 3 and p < 2.6 * GB and not any(out.iterdir())),
        ("smooth 1024³", [str(smooth_1024)], "runs", lambda s, p, n: s == 0),
        ("photograph 15521² padded to 16384²", [str(photo), "--fit", "pad"], "runs",
         lambda s, p, n: s == 0),
        ("reading a smooth 512³ 8-bit .npy", [str(smooth_512)],
         "peak ≤ (1 + 4 bytes a voxel) × 1.1",
         lambda s, p, n: s == 0 and p <= 1.1 * n * 5),
    ]
    print("| case | seconds | peak | exit | target | met |")
    print("|---|---|---|---|---|---|")
    for name, arguments, target, met in cases:
        for f in out.iterdir():
            f.unlink()
        voxels = int(np.prod(np.load(arguments[0], mmap_mode="r").shape))
        command = [args.program, *arguments, "--quiet", "--labels", labels]
        seconds, peak, status, message = timed(command)
        ok = met(status, peak, voxels)
        note = f" ({message})" if status != 0 and message else ""
        print(f"| {name} | {seconds:.1f} | {peak / GB:.2f} GB | {status}{note} | {target} | "
              f"{'yes' if ok else 'NO'} |", flush=True)


if __name__ == "__main__":
    main()
