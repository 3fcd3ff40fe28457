"""Segmenting many scans: on this machine or on a Dask cluster.

    python3 -m splitmerge.batch INPUTS... --out DIR [options]

Every input (a file or a glob pattern of .npy, .nii, .nii.gz, .tif, .tiff,
.png or .pgm files) becomes one task that reads, fits, segments and writes
``DIR/<name>.labels.<ext>`` (NIfTI for NIfTI scans, with the scan's header and
affine so the labels overlay it in a viewer; .npy otherwise; labels have the
scan's own shape after --fit too, --start-label - 1 outside the part a crop
kept) and, with ``--regions``, ``DIR/<name>.regions.txt``. Outputs are written
under temporary names and renamed when complete; ``DIR/manifest.csv`` holds one row per input
(status, error, seconds, regions, output), rewritten as results arrive. A run
started again skips inputs whose outputs are complete (``--force`` redoes
them); a bad input fails its own row, never the batch; tasks of a worker that
dies are run again by Dask.
"""

from __future__ import annotations

import argparse
import csv
import glob
import logging
import os
import sys
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterable, Optional, Sequence

from ._api import Rescale, _checked_threads, _rescale_window, segment
from ._io import labels_extension, read_image, stem_of, write_labels
from ._params import DEFAULTS, PARAMETER_NAMES, library_parameters

__all__ = ["BatchOptions", "MANIFEST_FIELDS", "main", "segment_batch", "segment_file"]

MANIFEST_NAME = "manifest.csv"
MANIFEST_FIELDS = ("input", "status", "error", "seconds", "regions", "output")
PART_PREFIX = ".part-"
CONNECT_TIMEOUT = "20s"


@dataclass(frozen=True)
class BatchOptions:
    """What every task does besides reading: fitting, parameters, outputs."""

    fit: Optional[str] = None
    rescale: Rescale = False
    slice: Optional[int] = None
    regions: bool = False
    params: dict[str, Any] = field(default_factory=dict)
    threads: int = 1
    start_label: int = 1


@dataclass(frozen=True)
class Job:
    input: str
    labels: Path
    region_file: Optional[Path]

    def is_complete(self) -> bool:
        # Labels are renamed last, so they exist only once everything else does.
        return self.labels.exists() and (self.region_file is None or self.region_file.exists())


def _part_path(final: Path) -> Path:
    """A temporary name in the same folder, keeping the extension readers need."""
    return final.with_name(f"{PART_PREFIX}{uuid.uuid4().hex[:12]}-{final.name}")


def _remove_quietly(path: Optional[Path]) -> None:
    if path is not None:
        try:
            path.unlink()
        except FileNotFoundError:
            pass


def _row(job: Job, status: str, error: str = "", seconds: Optional[float] = None,
         regions: Optional[int] = None) -> dict[str, str]:
    return {
        "input": job.input,
        "status": status,
        "error": error,
        "seconds": "" if seconds is None else f"{seconds:.3f}",
        "regions": "" if regions is None else str(regions),
        "output": str(job.labels) if status != "failed" else "",
    }


def segment_file(job: Job, options: BatchOptions) -> dict[str, str]:
    """One task: read, fit, segment, write; a failure becomes the row's error."""
    started = time.perf_counter()
    labels_part = _part_path(job.labels)
    regions_part = _part_path(job.region_file) if job.region_file else None
    try:
        scan = read_image(job.input)
        run = segment(scan.pixels, **options.params, fit=options.fit, rescale=options.rescale,
                      slice=options.slice, region_file=regions_part, threads=options.threads,
                      start_label=options.start_label, info=True)
        labels = run.labels
        write_labels(labels_part, labels, scan, (options.slice or 0, 0, 0))
        if regions_part is not None and job.region_file is not None:
            os.replace(regions_part, job.region_file)
        os.replace(labels_part, job.labels)
        return _row(job, "ok", seconds=time.perf_counter() - started,
                    regions=run.region_count)
    except Exception as e:  # one bad input fails its own row only
        _remove_quietly(labels_part)
        _remove_quietly(regions_part)
        message = " ".join(str(e).split()) or type(e).__name__
        return _row(job, "failed", f"{type(e).__name__}: {message}",
                    seconds=time.perf_counter() - started)


def _expand(inputs: Iterable[str]) -> tuple[list[str], list[str]]:
    """Files named or matched, in order without repeats; patterns matching nothing."""
    files: list[str] = []
    unmatched: list[str] = []
    for given in inputs:
        if glob.has_magic(given):
            matches = sorted(glob.glob(given, recursive=True))
            matches = [m for m in matches if os.path.isfile(m)]
            if not matches:
                unmatched.append(given)
            files.extend(matches)
        else:
            files.append(given)
    seen: set[str] = set()
    unique = [f for f in files if not (f in seen or seen.add(f))]
    return unique, unmatched


def plan_jobs(inputs: Iterable[str], out_dir: Path, regions: bool) -> tuple[list[Job], list[str]]:
    """The jobs of a batch and the patterns that matched nothing.

    Raises ValueError when two inputs would write the same output.
    """
    files, unmatched = _expand(inputs)
    jobs: list[Job] = []
    owners: dict[Path, str] = {}
    for f in files:
        stem = stem_of(f)
        labels = out_dir / f"{stem}.labels{labels_extension(f)}"
        if labels in owners:
            raise ValueError(f"{owners[labels]} and {f} would both write {labels}; "
                             "rename one or run them in separate batches")
        owners[labels] = f
        jobs.append(Job(f, labels, out_dir / f"{stem}.regions.txt" if regions else None))
    return jobs, unmatched


def read_manifest(path: Path) -> dict[str, dict[str, str]]:
    """The rows of an earlier run by input, or nothing."""
    try:
        with open(path, newline="") as f:
            return {row["input"]: row for row in csv.DictReader(f) if "input" in row}
    except (FileNotFoundError, csv.Error, UnicodeDecodeError):
        return {}


def write_manifest(path: Path, rows: Sequence[dict[str, str]]) -> None:
    """Replaces the manifest in one step, so that it is always complete."""
    part = _part_path(path)
    with open(part, "w", newline="") as f:
        writer = csv.DictWriter(f, fieldnames=MANIFEST_FIELDS, extrasaction="ignore")
        writer.writeheader()
        writer.writerows(rows)
    os.replace(part, path)


def _checked_params(params: dict[str, Any]) -> dict[str, Any]:
    unknown = sorted(set(params) - set(PARAMETER_NAMES))
    if unknown:
        raise TypeError(f"unknown segmentation parameter(s): {', '.join(unknown)}")
    library_parameters(params)  # type and name errors now, not in every task
    return dict(params)


def _start_client(scheduler: Optional[str], workers: Optional[int], announce) -> tuple:
    """A client of the given scheduler, or of a new local cluster; and what to close."""
    from distributed import Client, LocalCluster

    if scheduler:
        client = Client(scheduler, timeout=CONNECT_TIMEOUT)
        return client, [client]
    n = workers or os.cpu_count() or 1
    cluster = LocalCluster(n_workers=n, threads_per_worker=1, processes=True,
                           host="127.0.0.1", dashboard_address="127.0.0.1:0",
                           silence_logs=logging.ERROR)
    client = Client(cluster, timeout=CONNECT_TIMEOUT)
    announce(f"local Dask cluster of {n} workers; dashboard: {client.dashboard_link}")
    return client, [client, cluster]


def segment_batch(
    inputs: Iterable[str | os.PathLike],
    out: str | os.PathLike,
    *,
    fit: Optional[str] = None,
    rescale: Rescale = False,
    slice: Optional[int] = None,
    regions: bool = False,
    force: bool = False,
    scheduler: Optional[str] = None,
    workers: Optional[int] = None,
    client: Any = None,
    progress: Optional[bool] = None,
    announce=None,
    threads: int = 1,
    start_label: int = 1,
    **params: Any,
) -> list[dict[str, str]]:
    """Segment many files, each in its own Dask task.

    Parameters
    ----------
    inputs : iterable of str or os.PathLike
        Files or glob patterns (``**`` included) of .npy, .nii, .nii.gz, .tif,
        .tiff, .png or .pgm images.
    out : str or os.PathLike
        Folder of the outputs and of ``manifest.csv``; created if missing.
    fit, rescale, slice
        As the command-line program's ``--fit``, ``--rescale`` and
        ``--slice`` (see `splitmerge.segment`): `rescale` is True (each
        scan's whole value range) or (low, high) percentiles of each scan.
        Labels have the scan's shape; the region list file describes the
        image that was segmented.
    regions : bool, optional
        Also write ``<name>.regions.txt``, the region list file.
    force : bool, optional
        Redo inputs whose outputs are already complete.
    scheduler : str, optional
        Address of a running Dask scheduler (``tcp://host:8786``). Without
        it a local cluster of `workers` processes is started and closed.
    workers : int, optional
        Workers of the local cluster; default the number of cores.
    client : distributed.Client, optional
        Use this client instead (not closed here).
    progress : bool, optional
        Show a progress bar (count, rate, ETA); default when standard error
        is a terminal.
    announce : callable, optional
        Receives messages such as the dashboard address; default prints them
        to standard error.
    threads : int, optional
        Threads of each task's segmentation (see `splitmerge.segment`);
        default 1, since the tasks already run in parallel.
    start_label : int, optional
        The label of the largest region (see `splitmerge.segment`).
    **params
        The segmentation parameters of `splitmerge.segment`, by name.

    Returns
    -------
    list of dict
        The manifest rows in input order: input, status ("ok", "skipped" or
        "failed"), error, seconds, regions, output.
    """
    announce = announce or (lambda text: print(f"splitmerge.batch: {text}", file=sys.stderr))
    do_rescale, low, high = _rescale_window(rescale)
    rescale = (low, high) if do_rescale and (low, high) != (0.0, 100.0) else do_rescale
    options = BatchOptions(fit, rescale, slice, regions, _checked_params(params),
                           _checked_threads(threads), start_label)
    out_dir = Path(out)
    out_dir.mkdir(parents=True, exist_ok=True)
    jobs, unmatched = plan_jobs((os.fspath(i) for i in inputs), out_dir, regions)
    for pattern in unmatched:
        announce(f"no file matches {pattern}")
    manifest = out_dir / MANIFEST_NAME
    earlier = read_manifest(manifest)

    rows: dict[str, dict[str, str]] = {}
    todo: list[Job] = []
    for job in jobs:
        if not force and job.is_complete():
            before = earlier.get(job.input, {})
            done_before = before.get("status") in ("ok", "skipped")
            rows[job.input] = _row(job, "skipped", seconds=None, regions=None)
            if done_before:
                rows[job.input].update(seconds=before.get("seconds", ""),
                                       regions=before.get("regions", ""))
        else:
            todo.append(job)

    def save() -> None:
        write_manifest(manifest, [rows[j.input] for j in jobs if j.input in rows])

    save()
    if todo:
        _run_jobs(todo, options, rows, save, scheduler, workers, client, progress, announce)
    return [rows[j.input] for j in jobs]


def _run_jobs(todo: list[Job], options: BatchOptions, rows: dict[str, dict[str, str]], save,
              scheduler, workers, client, progress, announce) -> None:
    from distributed import as_completed
    from tqdm import tqdm

    owned: list = []
    if client is None:
        client, owned = _start_client(scheduler, workers, announce)
    batch_id = uuid.uuid4().hex[:8]
    try:
        futures = {
            client.submit(segment_file, job, options, key=f"splitmerge-{batch_id}-{i}",
                          pure=False): job
            for i, job in enumerate(todo)
        }
        show = sys.stderr.isatty() if progress is None else progress
        with tqdm(total=len(todo), unit="scan", disable=not show, file=sys.stderr,
                  dynamic_ncols=True) as bar:
            for future in as_completed(futures):
                job = futures[future]
                try:
                    row = future.result()
                except Exception as e:  # the task could not run, e.g. workers kept dying
                    row = _row(job, "failed", f"{type(e).__name__}: {e}")
                rows[job.input] = row
                save()
                bar.update(1)
                if row["status"] == "failed":
                    bar.write(f"splitmerge.batch: {job.input}: {row['error']}", file=sys.stderr)
    finally:
        for job in todo:  # parts left by workers that died while writing
            for final in (job.labels, job.region_file):
                if final is not None:
                    for part in final.parent.glob(f"{PART_PREFIX}*-{glob.escape(final.name)}"):
                        _remove_quietly(part)
        for resource in owned:
            resource.close()


def _number_or_name(text: str) -> Any:
    try:
        return int(text)
    except ValueError:
        return text


_PARAMETER_HINTS = {
    "max_level": "1..12 (1..9 for a volume); ",
    "lim_oct_level": "0..max-level; ",
    "init_level": "0..max-level - 1; ",
    "group_mode": "sequential (0) or parallel (1); ",
    "use_all_seeds": "0 or 1; ",
    "pred_choice": "range, mean, median, chi2, pseudo or 1..5; ",
    "threshold_row": "1, 2 or 3; ",
    "statistic_update": "0 or 1; ",
}


def _rescale_argument(text: str) -> Rescale:
    """``--rescale``'s value: "" for the whole range, or "LOW,HIGH" percentiles."""
    if not text:
        return True
    parts = text.split(",")
    try:
        if len(parts) != 2 or any(p != p.strip() or "_" in p for p in parts):
            raise ValueError(text)
        low, high = float(parts[0]), float(parts[1])
    except ValueError:
        low = high = float("nan")
    if not 0 <= low < high <= 100:
        raise argparse.ArgumentTypeError(
            f"expected LOW,HIGH percentiles with 0 <= LOW < HIGH <= 100, e.g. 1,99, "
            f"got '{text}'")
    return low, high


def _bare_rescale_flags(argv: Sequence[str]) -> list[str]:
    """``--rescale`` not followed by a LOW,HIGH window, as ``--rescale=``.

    As in the command-line program, ``--rescale IMAGE`` is the flag and an
    input, not a window.
    """
    out = list(argv)
    for i, token in enumerate(out):
        if token == "--rescale" and (i + 1 == len(out) or "," not in out[i + 1]):
            out[i] = "--rescale="
    return out


def build_parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python3 -m splitmerge.batch",
        description="Segment many scans, each in its own task, on a local Dask cluster or "
                    "an existing one. Writes DIR/<name>.labels.<ext> (NIfTI for NIfTI "
                    "scans, else .npy) and DIR/manifest.csv.",
        epilog="Parameters not given take the defaults of splitmerge.segment (those of the "
               "C++ library). Exit status: 0 every input done or skipped, 1 some input "
               "failed, 2 bad usage.")
    parser.add_argument("inputs", nargs="+", metavar="INPUT",
                        help="image files or glob patterns (quote them): .npy, .nii, "
                             ".nii.gz, .tif, .tiff, .png, .pgm")
    parser.add_argument("--out", required=True, metavar="DIR", help="output folder")
    parser.add_argument("--regions", action="store_true",
                        help="also write DIR/<name>.regions.txt, the region list file")
    parser.add_argument("--force", action="store_true",
                        help="redo inputs whose outputs are complete")
    parser.add_argument("--scheduler", metavar="ADDRESS",
                        help="connect to this Dask scheduler (tcp://host:8786) instead of "
                             "starting a local cluster")
    parser.add_argument("--workers", type=int, metavar="N",
                        help="workers of the local cluster (default: the number of cores)")
    parser.add_argument("--threads", type=int, default=1, metavar="N",
                        help="threads of each task's segmentation (0: every core; default 1, "
                             "since Dask already runs the tasks in parallel)")
    parser.add_argument("--no-progress", action="store_true", help="no progress bar")
    fitting = parser.add_argument_group("fitting the input (as the command-line program)")
    fitting.add_argument("--fit", choices=("pad", "crop"),
                         help="pad (with 0, centred) up to, or crop (centred) down to, the "
                              "nearest size the segmentation accepts")
    fitting.add_argument("--start-label", type=int, default=1, metavar="N",
                         help="label of the largest region (default 1; 0 numbers from 0)")
    fitting.add_argument("--slice", type=int, metavar="K",
                         help="segment slice K (0-based, along z) of each volume")
    fitting.add_argument("--rescale", nargs="?", const=True, default=False,
                         type=_rescale_argument, metavar="LOW,HIGH",
                         help="map each image's values linearly onto 0..255, before --slice "
                              "so that every slice shares one mapping: all of them (min to "
                              "max), or with LOW,HIGH the window between those percentiles "
                              "of the whole image, values outside it clipped (e.g. "
                              "--rescale 1,99)")
    seg = parser.add_argument_group("segmentation parameters (see help(splitmerge.segment))")
    for name in PARAMETER_NAMES:
        default = DEFAULTS[name]
        kind = float if isinstance(default, float) else _number_or_name
        hint = _PARAMETER_HINTS.get(name, "")
        seg.add_argument("--" + name.replace("_", "-"), dest=name, type=kind, metavar="V",
                         help=f"{hint}default {'from the image' if default is None else default}")
    return parser


def main(argv: Optional[Sequence[str]] = None) -> int:
    args = build_parser().parse_args(
        _bare_rescale_flags(sys.argv[1:] if argv is None else argv))
    params = {n: getattr(args, n) for n in PARAMETER_NAMES if getattr(args, n) is not None}
    if args.workers is not None and args.workers < 1:
        print("splitmerge.batch: --workers must be at least 1", file=sys.stderr)
        return 2
    if args.threads < 0:
        print("splitmerge.batch: --threads must be 0 (every core) or more", file=sys.stderr)
        return 2
    try:
        rows = segment_batch(args.inputs, args.out, fit=args.fit, rescale=args.rescale,
                             slice=args.slice, regions=args.regions, force=args.force,
                             scheduler=args.scheduler, workers=args.workers,
                             progress=False if args.no_progress else None,
                             threads=args.threads, start_label=args.start_label, **params)
    except (TypeError, ValueError) as e:
        print(f"splitmerge.batch: {e}", file=sys.stderr)
        return 2
    counts = {s: sum(r["status"] == s for r in rows) for s in ("ok", "skipped", "failed")}
    print(f"splitmerge.batch: {counts['ok']} done, {counts['skipped']} skipped, "
          f"{counts['failed']} failed; manifest {Path(args.out) / MANIFEST_NAME}",
          file=sys.stderr)
    return 1 if counts["failed"] else 0


if __name__ == "__main__":
    # Tasks must name their function splitmerge.batch.segment_file, which
    # workers can import, not __main__.segment_file.
    from splitmerge.batch import main as _main

    sys.exit(_main())
