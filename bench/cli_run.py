"""Times the command-line program on one image the way a user runs it.

    /usr/bin/python3 cli_run.py --program splitmerge --image camera.png \
        --name NAME --reps N --work FOLDER [-- EXTRA CLI OPTIONS]

Each repetition is one process, ``splitmerge IMAGE --labels FOLDER/labels.png``
(or ``labels.npy`` with ``--labels-format npy``; ``--threads`` and
``--group-mode`` are passed on and recorded) under ``/usr/bin/time -v``: the wall time, taken around the process, covers
reading the image, the run and writing the labels; the peak is the process's
peak resident memory from /usr/bin/time. Prints one JSON line like the C++ benchmark programs (medians over the repetitions, the
largest peak, and the region count from one more, untimed run writing the labels
as .npy, since the .png holds palette colours), or, when the program refuses
the image, a line with its message as the note.
"""
import argparse
import hashlib
import json
import os
import re
import statistics
import subprocess
import time

import numpy as np


def timed_run(command: list[str]) -> tuple[float, int]:
    """Wall seconds and peak resident bytes of one process.

    The wall time is taken here, as /usr/bin/time gives only hundredths.
    """
    start = time.perf_counter()
    done = subprocess.run(["/usr/bin/time", "-v", *command], capture_output=True, text=True)
    seconds = time.perf_counter() - start
    peak = re.search(r"Maximum resident set size \(kbytes\): (\d+)", done.stderr)
    if done.returncode != 0 or peak is None:
        message = [line for line in done.stderr.splitlines()
                   if line.strip() and not line.startswith(("\t", "Command "))]
        raise RuntimeError(message[0] if message else f"exit status {done.returncode}")
    return seconds, int(peak.group(1)) * 1024


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--image", required=True)
    parser.add_argument("--name", required=True)
    parser.add_argument("--reps", type=int, default=3)
    parser.add_argument("--work", required=True)
    parser.add_argument("--labels-format", default="png",
                        help="png (palette colours) or npy (int32, as segment() gives them)")
    parser.add_argument("--threads", type=int, help="passed on and recorded")
    parser.add_argument("--group-mode", type=int, help="passed on and recorded")
    parser.add_argument("extra", nargs="*")
    args = parser.parse_args()

    labels = os.path.join(args.work, "labels." + args.labels_format)
    extra = list(args.extra)
    line = {"kind": "cli", "name": args.name}
    if args.threads is not None:
        extra += ["--threads", str(args.threads)]
        line["threads"] = args.threads
    if args.group_mode is not None:
        extra += ["--group-mode", str(args.group_mode)]
        line["group_mode"] = args.group_mode
    command = [args.program, args.image, "--labels", labels, *extra]
    line["command"] = " ".join(["splitmerge", os.path.basename(args.image), "--labels",
                                os.path.basename(labels), *extra])
    os.makedirs(args.work, exist_ok=True)
    try:
        times, peaks = [], []
        for _ in range(args.reps):
            seconds, peak = timed_run(command)
            times.append(seconds)
            peaks.append(peak)
        label_array = os.path.join(args.work, "labels.npy")
        timed_run([args.program, args.image, "--labels", label_array, "--quiet", *extra])
        image = np.load(label_array)
        line.update({
            "voxels": int(image.size),
            "size": " × ".join(str(n) for n in reversed(image.shape)),
            "repetitions": args.reps,
            "median_s": statistics.median(times),
            "min_s": min(times),
            "mvoxels_per_s": image.size / statistics.median(times) / 1e6,
            # Numbered from 0 whatever the version's first label, so that
            # versions with other defaults compare.
            "regions": int(image.max() - image.min()) + 1,
            "labels_checksum": hashlib.md5((image - image.min()).astype("<i4").tobytes())
            .hexdigest()[:16],
            "peak_rss_bytes": max(peaks),
        })
    except RuntimeError as error:
        line["note"] = str(error)
    print(json.dumps(line, ensure_ascii=False))


if __name__ == "__main__":
    main()
