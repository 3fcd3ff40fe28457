"""Plant single faults in a scratch copy of the tree and see which the unit tests catch.

Each fault of ``faults.txt`` is applied alone to a scratch copy of the working
tree, the unit-test binary is rebuilt incrementally and run without the
reference cases (one shard per job, each ending at its first failure), and the
fault is reported as caught (a test failed, the run crashed or timed out),
survived (every test passed), not applicable (its original text no longer
occurs exactly once) or not built (the replacement does not compile: a faulty
entry of the list). The score is the share of caught faults among those that
were applied and can change behaviour.
"""

from __future__ import annotations

import argparse
import dataclasses
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
TEST_TARGET = "splitmerge_tests"
TEST_FILTER = "-Conformance.*"


@dataclasses.dataclass
class Fault:
    """One planted fault: replace ``original`` by ``replacement`` in ``file``."""

    name: str
    file: str
    what: str
    original: str
    replacement: str
    equivalent: str = ""  # why it cannot change behaviour, when it cannot


@dataclasses.dataclass
class Outcome:
    """What the unit tests made of one fault."""

    fault: Fault
    verdict: str  # caught, survived, not applicable, not built
    detail: str = ""
    seconds: float = 0.0


def parse_faults(text: str) -> list[Fault]:
    """Read the ``== fault: NAME`` entries: fields, then the original and replacement texts.

    The original runs from ``-- original`` to ``-- replacement``, the
    replacement from there to ``-- end``, each without its last newline.
    """
    faults = []
    for chunk in re.split(r"^== fault: ", text, flags=re.M)[1:]:
        header, _, rest = chunk.partition("\n-- original\n")
        original, _, rest = rest.partition("\n-- replacement\n")
        replacement, ended, _ = rest.partition("\n-- end\n")
        if not ended:
            raise ValueError(f"fault {chunk.splitlines()[0]}: no '-- end' line")
        name, *lines = header.splitlines()
        fields = {k.strip(): v.strip() for k, _, v in (line.partition(":") for line in lines)}
        faults.append(Fault(name.strip(), fields["file"], fields["what"], original, replacement,
                            fields.get("equivalent", "")))
    return faults


def run(cmd: list[str], cwd: Path) -> subprocess.CompletedProcess:
    """Run a command, capturing its output as text."""
    return subprocess.run(cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True)


def copy_if_changed(source: str, destination: str) -> None:
    """Copy a file whose content differs, as new: a reused scratch build sees what changed."""
    target = Path(destination)
    if not target.exists() or target.read_bytes() != Path(source).read_bytes():
        shutil.copy(source, destination)


def configure_and_build(tree: Path, build: Path, jobs: int) -> subprocess.CompletedProcess:
    """Configure once, then build the unit-test binary incrementally."""
    if not (build / "CMakeCache.txt").exists():
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        configured = run(["cmake", "-S", str(tree), "-B", str(build), *generator,
                          "-DCMAKE_BUILD_TYPE=Release", "-DSPLITMERGE_BUILD_TESTS=ON",
                          "-DSPLITMERGE_BUILD_TOOLS=OFF", "-DSPLITMERGE_BUILD_MEX=OFF"], tree)
        if configured.returncode != 0:
            return configured
    return run(["cmake", "--build", str(build), "--target", TEST_TARGET, "-j", str(jobs)], tree)


def run_tests(build: Path, timeout: float, jobs: int) -> tuple[bool, str]:
    """Run the unit tests in ``jobs`` shards; return whether all passed and what failed.

    Each shard stops at its first failure, and once one shard fails the others
    are stopped.
    """
    shards = [
        subprocess.Popen(
            [str(build / "tests" / TEST_TARGET), f"--gtest_filter={TEST_FILTER}",
             "--gtest_fail_fast"],
            cwd=build, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env=dict(os.environ, GTEST_TOTAL_SHARDS=str(jobs), GTEST_SHARD_INDEX=str(index)))
        for index in range(jobs)
    ]
    deadline = time.monotonic() + timeout
    while any(p.poll() is None for p in shards):
        if time.monotonic() > deadline or any(p.poll() not in (None, 0) for p in shards):
            for p in shards:
                p.kill()
        time.sleep(0.2)
    outputs = "".join(p.communicate()[0] for p in shards)
    if all(p.returncode == 0 for p in shards):
        return True, ""
    failed = sorted(set(re.findall(r"^\[  FAILED  \] (\S+?)(?:,| \(|$)", outputs, re.M)))
    if failed:
        return False, ", ".join(failed)
    if time.monotonic() > deadline:
        return False, f"timed out after {timeout:.0f} s"
    return False, f"exit statuses {[p.returncode for p in shards]} (a crash)"


def try_fault(fault: Fault, tree: Path, build: Path, jobs: int, timeout: float) -> Outcome:
    """Apply one fault, build, test, and restore the file."""
    path = tree / fault.file
    source = path.read_text() if path.exists() else ""
    count = source.count(fault.original)
    if count != 1:
        return Outcome(fault, "not applicable", f"{fault.file}: original text occurs {count} times")
    start = time.monotonic()
    path.write_text(source.replace(fault.original, fault.replacement))
    try:
        built = configure_and_build(tree, build, jobs)
        if built.returncode != 0:
            errors = [line for line in built.stdout.splitlines() if "error" in line][:3]
            return Outcome(fault, "not built", " | ".join(errors), time.monotonic() - start)
        passed, detail = run_tests(build, timeout, jobs)
        return Outcome(fault, "survived" if passed else "caught", detail,
                       time.monotonic() - start)
    finally:
        path.write_text(source)


def report(outcomes: list[Outcome]) -> int:
    """Print the table and the score; return the number of survivors that matter."""
    width = max(len(o.fault.name) for o in outcomes)
    for o in outcomes:
        mark = " (cannot change behaviour)" if o.fault.equivalent else ""
        print(f"{o.fault.name:<{width}}  {o.verdict:<14}  {o.fault.what}{mark}")
        if o.detail:
            print(f"{'':<{width}}  {'':<14}  -> {o.detail}")
    counted = [o for o in outcomes
               if o.verdict in ("caught", "survived") and not o.fault.equivalent]
    caught = sum(o.verdict == "caught" for o in counted)
    survivors = [o.fault.name for o in counted if o.verdict == "survived"]
    skipped = sum(o.verdict in ("not applicable", "not built") for o in outcomes)
    equivalent = sum(bool(o.fault.equivalent) for o in outcomes)
    score = 100.0 * caught / len(counted) if counted else 0.0
    print(f"\ncaught {caught} of {len(counted)} faults that can change behaviour ({score:.1f} %); "
          f"{equivalent} cannot change behaviour; {skipped} not applicable or not built")
    if survivors:
        print("survivors: " + ", ".join(survivors))
    return len(survivors)


def main() -> int:
    """Parse the arguments, run every selected fault and report."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--list", type=Path, default=Path(__file__).with_name("faults.txt"),
                        help="fault list (default: faults.txt beside this script)")
    parser.add_argument("--only", default="", help="comma-separated fault names to run")
    parser.add_argument("--scratch", type=Path,
                        help="scratch folder to reuse (kept afterwards); default: a fresh one")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    parser.add_argument("--check", action="store_true",
                        help="only check that every original text occurs once; build nothing")
    parser.add_argument("--timeout", type=float, default=300.0,
                        help="seconds one test run may take before the fault counts as caught")
    args = parser.parse_args()

    faults = parse_faults(args.list.read_text())
    names = [f.name for f in faults]
    wanted = set(args.only.split(",")) if args.only else set(names)
    if len(set(names)) != len(names) or wanted - set(names):
        print("fault names must be unique; unknown: " + ", ".join(sorted(wanted - set(names))),
              file=sys.stderr)
        return 2
    faults = [f for f in faults if f.name in wanted]
    if args.check:
        path = {f.name: ROOT / f.file for f in faults}
        bad = [f for f in faults
               if not path[f.name].exists() or path[f.name].read_text().count(f.original) != 1]
        for f in bad:
            print(f"{f.name}: not applicable ({f.file}: the original text does not occur once)")
        print(f"{len(faults) - len(bad)} of {len(faults)} faults apply")
        return 1 if bad else 0

    scratch = (args.scratch or Path(tempfile.mkdtemp(prefix="splitmerge_mutation_"))).resolve()
    tree, build = scratch / "tree", scratch / "build"
    try:
        ignore = shutil.ignore_patterns("build", ".git", "__pycache__")
        shutil.copytree(ROOT, tree, ignore=ignore, dirs_exist_ok=True, symlinks=True,
                        copy_function=copy_if_changed)
        print(f"scratch copy in {scratch}; building the unit tests once", flush=True)
        built = configure_and_build(tree, build, args.jobs)
        if built.returncode != 0:
            print(built.stdout[-3000:], file=sys.stderr)
            return 2
        passed, detail = run_tests(build, args.timeout, args.jobs)
        if not passed:
            print(f"the unit tests fail without any fault: {detail}", file=sys.stderr)
            return 2
        outcomes = []
        for i, fault in enumerate(faults, 1):
            outcomes.append(try_fault(fault, tree, build, args.jobs, args.timeout))
            print(f"[{i}/{len(faults)}] {fault.name}: {outcomes[-1].verdict} "
                  f"({outcomes[-1].seconds:.0f} s)", flush=True)
        configure_and_build(tree, build, args.jobs)  # the binary as the tree is, for a reuse
        print()
        return 1 if report(outcomes) else 0
    finally:
        if args.scratch is None:
            shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
