"""Ctrl-C latency of a segmentation from Python, the command line and Octave.

    /usr/bin/python3 bench/interrupt_latency.py [--at 0.5 1 2 3 5] [--every-phase]
        [--cli build/dev/tools/splitmerge] [--core build/dev/pkg]
        [--octave-module build/dev/src/gateway] [--only python cli octave]

Segments the 64 x 256 x 256 volume of uniform noise
``numpy.random.default_rng(0).integers(0, 256, (64, 256, 256), dtype=np.uint8)``
with the default parameters and sends SIGINT at each moment into the run
(seconds after the call starts). With ``--every-phase`` one complete run of
the command-line program first times its progress lines, and the middle of
every phase is added to the moments, at the same share of a complete call of
each interface. The latency is the time from the signal
to the end of the call (a call that finished before its moment is left out):
until the child reports that ``splitmerge.segment``
raised KeyboardInterrupt (Python) or that ``smsegment`` raised
``splitmerge:interrupted`` (Octave, signalled as octave-cli would be by
Ctrl-C), and until the process ended (command line). Prints one Markdown table.
``--core`` is the folder of the built ``_core`` module, which joins a copy
of python/splitmerge. Never part of the tests: it takes several minutes.
"""
import argparse
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Optional

import numpy as np

ROOT = Path(__file__).resolve().parent.parent
SHAPE = (64, 256, 256)

PYTHON_CHILD = """
import sys
import numpy as np
import splitmerge
volume = np.load(sys.argv[1])
print("started", flush=True)
try:
    splitmerge.segment(volume)
    print("finished", flush=True)
except KeyboardInterrupt:
    print("interrupted", flush=True)
"""

OCTAVE_CHILD = """
addpath('{matlab}'); addpath('{module}');
fid = fopen('{raw}'); v = fread(fid, inf, 'uint8=>uint8'); fclose(fid);
I = permute(reshape(v, [{x} {y} {z}]), [2 1 3]);
printf('started\\n'); fflush(stdout);
try
  L = smsegment(I);
  printf('finished\\n');
catch err
  printf('%s\\n', err.identifier);
end
fflush(stdout);
"""


def read_line(stream, deadline: float) -> Optional[str]:
    """The child's next output line, or None when it ended or the deadline passed."""
    buffered = b""
    while time.monotonic() < deadline:
        ready, _, _ = select.select([stream], [], [], max(0.0, deadline - time.monotonic()))
        if not ready:
            return None
        chunk = os.read(stream.fileno(), 1)
        if not chunk:
            return None
        if chunk == b"\n":
            return buffered.decode(errors="replace")
        buffered += chunk
    return None


def interrupted_call(command: list[str], at: Optional[float], env: Optional[dict] = None,
                     ends_with_exit: bool = False) -> tuple[float, str]:
    """Seconds from SIGINT, sent `at` seconds into the call, to its end, and how it ended.

    A child that reports prints ``started`` right before the call and one
    line when the call ended; otherwise the call is the whole process.
    Without `at` no signal is sent: the seconds are those of the whole call.
    """
    child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env,
                             start_new_session=True)
    try:
        if not ends_with_exit:
            while (line := read_line(child.stdout, time.monotonic() + 120)) != "started":
                if line is None:
                    return float("nan"), "never started"
        sent = time.monotonic()
        if at is not None:
            time.sleep(at)
            if child.poll() is not None:
                return float("nan"), "finished first"
            sent = time.monotonic()
            child.send_signal(signal.SIGINT)
        if ends_with_exit:
            child.wait(timeout=120)
            return time.monotonic() - sent, f"exit {child.returncode}"
        while True:
            line = read_line(child.stdout, sent + 120)
            if line is None or line.strip():
                return time.monotonic() - sent, (line or "no report").strip()
    finally:
        if child.poll() is None:
            child.kill()
        child.wait()
        child.stdout.close()


def phase_middles(cli: str, volume: Path) -> list[tuple[str, float]]:
    """The middle of every phase of one complete command-line run, by its
    progress lines, as a share of the whole run."""
    start = time.monotonic()
    child = subprocess.Popen([cli, str(volume)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    marks = [("start", 0.0)]
    while (line := read_line(child.stdout, start + 600)) is not None:
        if line.startswith("finished"):
            marks.append((line.strip(), time.monotonic() - start))
    child.wait()
    whole = time.monotonic() - start
    return [(name.removeprefix("finished "), (marks[i - 1][1] + t) / 2 / whole)
            for i, (name, t) in enumerate(marks) if i > 0 and t - marks[i - 1][1] > 0.1]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--at", type=float, nargs="+", default=[0.5, 1, 2, 3, 5])
    parser.add_argument("--every-phase", action="store_true")
    parser.add_argument("--cli", default=str(ROOT / "build/dev/tools/splitmerge"))
    parser.add_argument("--core", default=str(ROOT / "build/dev/pkg"))
    parser.add_argument("--octave-module", default=str(ROOT / "build/dev/src/gateway"))
    parser.add_argument("--only", nargs="+", default=["python", "cli", "octave"])
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as scratch:
        volume = Path(scratch) / "noise.npy"
        data = np.random.default_rng(0).integers(0, 256, SHAPE, dtype=np.uint8)
        np.save(volume, data)
        raw = Path(scratch) / "noise.raw"
        data.tofile(raw)
        moments = [(f"{t:g} s", t) for t in args.at]
        phases = phase_middles(args.cli, volume) if args.every_phase else []
        package = Path(scratch) / "package" / "splitmerge"
        shutil.copytree(ROOT / "python" / "splitmerge", package)
        for core in Path(args.core).glob("_core*.so"):
            shutil.copy(core, package)
        env = dict(os.environ, PYTHONPATH=str(package.parent))
        octave = OCTAVE_CHILD.format(matlab=ROOT / "matlab", module=args.octave_module, raw=raw,
                                     x=SHAPE[2], y=SHAPE[1], z=SHAPE[0])
        interfaces = {
            "python": ("Python `splitmerge.segment`",
                       lambda t: interrupted_call([sys.executable, "-c", PYTHON_CHILD, str(volume)],
                                                  t, env)),
            "cli": ("command line `splitmerge`",
                    lambda t: interrupted_call([args.cli, "--quiet", str(volume), "--labels",
                                                str(Path(scratch) / "labels.npy")], t,
                                               ends_with_exit=True)),
            "octave": ("Octave `smsegment`",
                       lambda t: interrupted_call(["octave-cli", "--norc", "--no-history",
                                                   "--quiet", "--eval", octave], t)),
        }
        rows = []
        for key in args.only:
            name, call = interfaces[key]
            latencies = []
            whole = call(None)[0] if phases else 0.0
            for label, t in moments + [(f"{share * whole:.2f} s (in {phase})", share * whole)
                                       for phase, share in phases]:
                latency, ended = call(t)
                print(f"{name} at {label}: {latency:.3f} s ({ended})", file=sys.stderr, flush=True)
                if ended != "finished first":
                    latencies.append(latency)
            ended_calls = all(x == x for x in latencies)
            rows.append((name, len(latencies), max(latencies) if ended_calls else None))
    middles = " and in the middle of every phase" if phases else ""
    print(f"SIGINT at {', '.join(m for m, _ in moments)}{middles} into the run.\n")
    print("| interface | largest latency | moments |")
    print("|---|---|---|")
    for name, hit, worst in rows:
        print(f"| {name} | {'a call did not end' if worst is None else f'{worst:.3f} s'} | {hit} |")
    return 0


if __name__ == "__main__":
    sys.exit(main())
