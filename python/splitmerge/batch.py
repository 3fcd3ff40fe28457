"""Segmenting many scans: on this machine or on a Dask cluster.

    python3 -m splitmerge.batch INPUTS... --out DIR [options]

Every input (a file or a glob pattern of .npy, .nii, .nii.gz, .tif, .tiff,
.png or .pgm files) becomes one task that reads, segments and writes its
labels, of the scan's own shape after --fit too (--start-label - 1 outside the
part a crop kept; NIfTI for NIfTI scans, with the scan's header and affine so
the labels overlay it in a viewer, intent "label"; .npy otherwise), a JSON
sidecar with the version and every parameter and, with ``--regions``, the
region list file. The outputs mirror the inputs' folders
below each pattern's fixed prefix, so scans of one name in different folders
never collide; ``--bids`` writes BIDS derivatives instead. Outputs are written
under temporary names and renamed when complete; ``DIR/manifest.csv`` holds
one row per input (status, error, seconds, regions, output, version and the
parameters), rewritten as results arrive. A run started again skips inputs
whose outputs were made with the same parameters and version (``--force``
redoes them); a bad input fails its own row, never the batch; tasks of a
worker that dies are run again by Dask; Ctrl-C cancels the tasks, keeps what
finished and exits with status 130 (the workers of a local cluster stop; those
of a scheduler given finish their running tasks, whose complete outputs the
next run skips).
"""

from __future__ import annotations

import argparse
import csv
import glob
import json
import logging
import os
import sys
import time
import uuid
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any, Iterable, Optional, Sequence

from ._api import Rescale, _checked_memory_limit, _checked_threads, _rescale_window, segment
from ._core import version as VERSION
from ._io import extension_of, read_image, stem_of, write_labels
from ._params import DEFAULTS, PARAMETER_NAMES, library_parameters

__all__ = ["BatchOptions", "MANIFEST_FIELDS", "Interrupted", "main", "segment_batch",
           "segment_file"]

MANIFEST_NAME = "manifest.csv"
MANIFEST_FIELDS = ("input", "status", "error", "seconds", "regions", "output",
                   "version") + PARAMETER_NAMES
PART_PREFIX = ".part-"
CONNECT_TIMEOUT = "20s"
BIDS_FOLDER = Path("derivatives") / "splitmerge"
BIDS_DATATYPES = ("anat", "func", "dwi", "fmap", "perf", "pet", "micr", "nirs", "meg", "eeg",
                  "ieeg", "beh")


class Interrupted(KeyboardInterrupt):
    """Ctrl-C ended the batch; the manifest holds what finished."""

    def __init__(self, rows: list[dict[str, str]]) -> None:
        super().__init__("the batch was interrupted")
        self.rows = rows


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
    memory_limit: Optional[int] = None  # None: the Dask worker's limit, if it has one

    def request(self) -> dict[str, Any]:
        """What the outputs depend on: a rerun with another request redoes them."""
        rescale = self.rescale if isinstance(self.rescale, bool) else list(self.rescale)
        return {"parameters": dict(sorted(self.params.items())), "fit": self.fit,
                "rescale": rescale, "slice": self.slice, "start_label": self.start_label,
                "regions": self.regions}


@dataclass(frozen=True)
class Job:
    input: str
    labels: Path
    region_file: Optional[Path]
    sidecar: Path

    def is_complete(self) -> bool:
        # The sidecar is written last, so it exists only once everything else does.
        return (self.sidecar.exists() and self.labels.exists()
                and (self.region_file is None or self.region_file.exists()))

    def made_by(self, request: dict[str, Any]) -> Optional[dict[str, Any]]:
        """The sidecar, when complete outputs were made with this request and version."""
        if not self.is_complete():
            return None
        try:
            with open(self.sidecar) as f:
                made = json.load(f)
        except (OSError, ValueError):
            return None
        same = made.get("Version") == VERSION and made.get("Request") == request
        return made if same else None


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
         regions: Optional[int] = None,
         parameters: Optional[dict[str, Any]] = None) -> dict[str, str]:
    row = {
        "input": job.input,
        "status": status,
        "error": error,
        "seconds": "" if seconds is None else f"{seconds:.3f}",
        "regions": "" if regions is None else str(regions),
        "output": str(job.labels) if status != "failed" else "",
        "version": VERSION if parameters else "",
    }
    for name in PARAMETER_NAMES:
        row[name] = "" if not parameters else str(parameters[name])
    return row


def _made_row(job: Job, status: str, made: dict[str, Any]) -> dict[str, str]:
    """A row from the sidecar of complete outputs."""
    return _row(job, status, seconds=made.get("Seconds"), regions=made.get("RegionCount"),
                parameters=made.get("Parameters"))


def _descrip(parameters: dict[str, Any]) -> str:
    """The NIfTI description: the version and as many parameters as fit 79 bytes."""
    text = f"splitmerge {VERSION}"
    for name in PARAMETER_NAMES:
        more = f" {name}={parameters[name]}"
        if len(text) + len(more) > 79:
            break
        text += more
    return text


def segment_file(job: Job, options: BatchOptions) -> dict[str, str]:
    """One task: read, segment, write; a failure becomes the row's error."""
    started = time.perf_counter()
    parts = [_part_path(job.labels), _part_path(job.sidecar)]
    regions_part = _part_path(job.region_file) if job.region_file else None
    try:
        job.labels.parent.mkdir(parents=True, exist_ok=True)
        scan = read_image(job.input)
        run = segment(scan.pixels, **options.params, fit=options.fit, rescale=options.rescale,
                      slice=options.slice, region_file=regions_part, threads=options.threads,
                      start_label=options.start_label, info=True,
                      memory_limit=_task_memory_limit(options))
        write_labels(parts[0], run.labels, scan, (options.slice or 0, 0, 0),
                     _descrip(run.parameters))
        seconds = round(time.perf_counter() - started, 3)  # the run, as the sidecar says
        sidecar = {"Sources": [job.input], "Version": VERSION, "Parameters": run.parameters,
                   "Request": options.request(), "RegionCount": run.region_count,
                   "Seconds": seconds, "Notes": run.notes}
        parts[1].write_text(json.dumps(sidecar, indent=2) + "\n")
        if regions_part is not None and job.region_file is not None:
            os.replace(regions_part, job.region_file)
        os.replace(parts[0], job.labels)
        os.replace(parts[1], job.sidecar)
        return _row(job, "ok", seconds=seconds, regions=run.region_count,
                    parameters=run.parameters)
    except Exception as e:  # one bad input fails its own row only
        for part in parts + [regions_part]:
            _remove_quietly(part)
        message = " ".join(str(e).split()) or type(e).__name__
        return _row(job, "failed", f"{type(e).__name__}: {message}",
                    seconds=time.perf_counter() - started)


def _task_memory_limit(options: BatchOptions) -> Optional[int]:
    """The batch's memory limit, else the Dask worker's own when it has one."""
    if options.memory_limit is not None:
        return options.memory_limit
    try:
        from distributed import get_worker

        limit = get_worker().memory_manager.memory_limit
    except (ImportError, ValueError, AttributeError):
        return None
    return int(limit) if limit else None


def _fixed_prefix(pattern: str) -> Path:
    """The folders of a glob pattern before its first wildcard."""
    fixed: list[str] = []
    for part in Path(pattern).parts[:-1]:
        if glob.has_magic(part):
            break
        fixed.append(part)
    return Path(*fixed) if fixed else Path(".")


def _is_ours(path: Path, out_dir: Path) -> bool:
    """Outputs, partial files and manifests are never inputs."""
    if path.name.startswith(PART_PREFIX) or path.name == MANIFEST_NAME:
        return True
    try:
        path.resolve().relative_to(out_dir.resolve())
    except ValueError:
        return False
    return True


def _expand(inputs: Iterable[str], out_dir: Path) -> list[tuple[str, Path]]:
    """Each input file and the folder its outputs mirror from, in order without repeats.

    A pattern's files mirror from its fixed prefix; files named one by one,
    from the folder they all share. Raises ValueError for a pattern that
    matches nothing.
    """
    found: list[tuple[str, Optional[Path]]] = []
    for given in inputs:
        if glob.has_magic(given):
            matches = [m for m in sorted(glob.glob(given, recursive=True))
                       if os.path.isfile(m) and not _is_ours(Path(m), out_dir)]
            if not matches:
                raise ValueError(f"no file matches {given}")
            root = _fixed_prefix(given)
            found.extend((m, root) for m in matches)
        else:
            found.append((given, None))
    named = [Path(f).parent for f, root in found if root is None]
    shared = Path(os.path.commonpath([str(p.resolve()) for p in named])) if named else None
    seen: set[str] = set()
    out: list[tuple[str, Path]] = []
    for f, root in found:
        if f not in seen:
            seen.add(f)
            out.append((f, root if root is not None else shared))  # type: ignore[arg-type]
    return out


def _bids_job(f: str, out_dir: Path, regions: bool) -> Job:
    """sub-X/[ses-Y/]<datatype>/<entities>_desc-splitmerge_dseg.nii.gz."""
    stem = stem_of(f)
    words = stem.split("_")
    entities = [w for w in words if "-" in w and not w.startswith("desc-")]
    if not entities or not entities[0].startswith("sub-"):
        raise ValueError(f"{f}: not a BIDS file name (sub-<label>_..._<suffix>)")
    folder = out_dir / BIDS_FOLDER / entities[0]
    session = [e for e in entities if e.startswith("ses-")]
    if session:
        folder /= session[0]
    datatype = Path(f).parent.name
    folder /= datatype if datatype in BIDS_DATATYPES else "anat"
    name = "_".join(entities) + "_desc-splitmerge"
    return Job(f, folder / f"{name}_dseg.nii.gz",
               folder / f"{name}_regions.txt" if regions else None,
               folder / f"{name}_dseg.json")


def plan_jobs(inputs: Iterable[str], out_dir: Path, regions: bool,
              bids: bool = False) -> list[Job]:
    """The jobs of a batch: outputs mirror the inputs' folders below their roots.

    Raises ValueError when a pattern matches nothing or two inputs would
    write the same output.
    """
    jobs: list[Job] = []
    owners: dict[Path, str] = {}
    # Only what this batch writes is left out: a BIDS dataset may hold its
    # derivatives, so --out may be the dataset itself.
    for f, root in _expand(inputs, out_dir / BIDS_FOLDER if bids else out_dir):
        if bids:
            job = _bids_job(f, out_dir, regions)
        else:
            ext = extension_of(f)
            labels_ext = ".nii.gz" if ext in (".nii", ".nii.gz") else ".npy"
            try:
                below = Path(f).resolve().parent.relative_to(root.resolve())
            except ValueError:
                below = Path()
            folder = out_dir / below
            stem = stem_of(f)
            job = Job(f, folder / f"{stem}.labels{labels_ext}",
                      folder / f"{stem}.regions.txt" if regions else None,
                      folder / f"{stem}.labels.json")
        if job.labels in owners:
            raise ValueError(f"{owners[job.labels]} and {f} would both write {job.labels}")
        owners[job.labels] = f
        jobs.append(job)
    return jobs


def write_manifest(path: Path, rows: Sequence[dict[str, str]]) -> None:
    """Replaces the manifest in one step, so that it is always complete."""
    part = _part_path(path)
    try:
        with open(part, "w", newline="") as f:
            writer = csv.DictWriter(f, fieldnames=MANIFEST_FIELDS, extrasaction="ignore")
            writer.writeheader()
            writer.writerows(rows)
        os.replace(part, path)
    except BaseException:  # Ctrl-C too: no partial manifest is left behind
        _remove_quietly(part)
        raise


def _write_dataset_description(out_dir: Path, command: str) -> None:
    folder = out_dir / BIDS_FOLDER
    folder.mkdir(parents=True, exist_ok=True)
    description = {
        "Name": "splitmerge segmentations",
        "BIDSVersion": "1.8.0",
        "DatasetType": "derivative",
        "GeneratedBy": [{"Name": "splitmerge", "Version": VERSION, "Description": command}],
    }
    (folder / "dataset_description.json").write_text(json.dumps(description, indent=2) + "\n")


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
    bids: bool = False,
    scheduler: Optional[str] = None,
    workers: Optional[int] = None,
    client: Any = None,
    progress: Optional[bool] = None,
    announce=None,
    threads: int = 1,
    start_label: int = 1,
    memory_limit: Optional[int] = None,
    command: Optional[str] = None,
    **params: Any,
) -> list[dict[str, str]]:
    """Segment many files, each in its own Dask task.

    Parameters
    ----------
    inputs : iterable of str or os.PathLike
        Files or glob patterns (``**`` included) of .npy, .nii, .nii.gz, .tif,
        .tiff, .png or .pgm images. Files under `out`, partial files and
        manifests are never inputs.
    out : str or os.PathLike
        Folder of the outputs and of ``manifest.csv``; created if missing.
        The outputs mirror the inputs' folders below each pattern's fixed
        prefix (below the folder that files named one by one share), so
        scans of one name in different folders never collide:
        ``<name>.labels.nii.gz`` (NIfTI scans) or ``<name>.labels.npy``, a
        JSON sidecar ``<name>.labels.json`` with the version and every
        parameter, and with `regions` ``<name>.regions.txt``.
    fit, rescale, slice
        As the command-line program's ``--fit``, ``--rescale`` and
        ``--slice`` (see `splitmerge.segment`): `rescale` is True (each
        scan's whole value range) or (low, high) percentiles of each scan.
        Labels have the scan's shape; the region list file describes the
        image that was segmented.
    regions : bool, optional
        Also write the region list file of each scan.
    force : bool, optional
        Redo inputs whose outputs are already complete.
    bids : bool, optional
        Write BIDS derivatives: ``out/derivatives/splitmerge/sub-X/[ses-Y/]
        <datatype>/<entities>_desc-splitmerge_dseg.nii.gz`` with a JSON
        sidecar each and ``dataset_description.json``.
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
    memory_limit : int, optional
        Bytes each task's segmentation may take; default the Dask worker's
        memory limit when it has one, else the memory available.
    command : str, optional
        The command that started the batch, for ``dataset_description.json``.
    **params
        The segmentation parameters of `splitmerge.segment`, by name.

    Returns
    -------
    list of dict
        The manifest rows in input order: input, status ("ok", "skipped" or
        "failed"), error, seconds, regions, output, version and the 14
        parameters as the run used them.

    Raises
    ------
    ValueError
        A pattern matches nothing, two inputs would write one output, or a
        parameter cannot be used.
    Interrupted
        Ctrl-C: the tasks were cancelled (a local cluster's workers stopped),
        partial files removed and the manifest written for what finished;
        ``.rows`` holds it.
    """
    announce = announce or (lambda text: print(f"splitmerge.batch: {text}", file=sys.stderr))
    do_rescale, low, high = _rescale_window(rescale)
    rescale = (low, high) if do_rescale and (low, high) != (0.0, 100.0) else do_rescale
    options = BatchOptions(fit, rescale, slice, regions, _checked_params(params),
                           _checked_threads(threads), start_label,
                           None if memory_limit is None else _checked_memory_limit(memory_limit))
    out_dir = Path(out)
    jobs = plan_jobs((os.fspath(i) for i in inputs), out_dir, regions, bids)
    out_dir.mkdir(parents=True, exist_ok=True)
    if bids:
        _write_dataset_description(
            out_dir, command or "splitmerge.batch.segment_batch(" + repr(options.request()) + ")")
    manifest = out_dir / MANIFEST_NAME
    request = options.request()

    rows: dict[str, dict[str, str]] = {}
    todo: list[Job] = []
    for job in jobs:
        made = None if force else job.made_by(request)
        if made is None:
            todo.append(job)
        else:
            rows[job.input] = _made_row(job, "skipped", made)

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
    futures: dict = {}
    try:
        if client is None:
            client, owned = _start_client(scheduler, workers, announce)
        batch_id = uuid.uuid4().hex[:8]
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
    except KeyboardInterrupt:
        # The rest is cancelled and runs again next time; what finished is
        # kept, also when its task ended after the interrupt.
        for future in futures:
            future.cancel()
        for resource in owned:
            resource.close()
        request = options.request()
        for job in todo:
            made = None if job.input in rows else job.made_by(request)
            if made is not None:
                rows[job.input] = _made_row(job, "ok", made)
        save()
        raise Interrupted([rows[j.input] for j in todo if j.input in rows]) from None
    finally:
        for resource in owned:
            resource.close()
        for job in todo:  # parts left by tasks that were stopped or died while writing
            for final in (job.labels, job.region_file, job.sidecar):
                if final is not None and final.parent.exists():
                    for part in final.parent.glob(f"{PART_PREFIX}*-{glob.escape(final.name)}"):
                        _remove_quietly(part)


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


def _byte_size(text: str) -> int:
    """Bytes from "4096", "512K", "512M", "4G" or "1T" (powers of 1024)."""
    units = {"": 0, "K": 10, "M": 20, "G": 30, "T": 40}
    number = text.rstrip("KMGTkmgtiIbB")
    unit = text[len(number):].upper().removesuffix("B").removesuffix("I")
    if not number.isdigit() or unit not in units or int(number) == 0:
        raise argparse.ArgumentTypeError(f"expected bytes such as 512M, 4G or 1000000, got "
                                         f"'{text}'")
    return int(number) << units[unit]


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
                    "an existing one. The outputs mirror the inputs' folders below each "
                    "pattern's fixed prefix: <name>.labels.nii.gz for NIfTI scans, else "
                    "<name>.labels.npy, and <name>.labels.json with the version and every "
                    "parameter; DIR/manifest.csv has a row per input. A rerun skips inputs "
                    "whose outputs were made with the same parameters and version.",
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
    parser.add_argument("--bids", action="store_true",
                        help="write BIDS derivatives under DIR/derivatives/splitmerge "
                             "(sub-X/[ses-Y/]anat/<entities>_desc-splitmerge_dseg.nii.gz, "
                             "a JSON sidecar each, dataset_description.json)")
    parser.add_argument("--memory-limit", type=_byte_size, metavar="SIZE",
                        help="bytes each task may take, e.g. 4G (default: the Dask worker's "
                             "memory limit, else the memory available)")
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
    given = list(sys.argv[1:] if argv is None else argv)
    args = build_parser().parse_args(_bare_rescale_flags(given))
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
                             bids=args.bids, scheduler=args.scheduler, workers=args.workers,
                             progress=False if args.no_progress else None,
                             threads=args.threads, start_label=args.start_label,
                             memory_limit=args.memory_limit,
                             command=" ".join(["python3 -m splitmerge.batch", *given]),
                             **params)
    except (TypeError, ValueError) as e:
        print(f"splitmerge.batch: {e}", file=sys.stderr)
        return 2
    except Interrupted as e:
        print(f"splitmerge.batch: interrupted; {len(e.rows)} finished, kept in "
              f"{Path(args.out) / MANIFEST_NAME}; run again to do the rest", file=sys.stderr)
        return 130
    except KeyboardInterrupt:  # while the cluster starts or closes
        print(f"splitmerge.batch: interrupted; what finished is kept in "
              f"{Path(args.out) / MANIFEST_NAME}; run again to do the rest", file=sys.stderr)
        return 130
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
