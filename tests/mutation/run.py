"""Plant single faults in a scratch copy of the tree and see which the unit tests catch.

Each fault of ``faults.txt`` is applied alone to a scratch copy of the working
tree, the unit-test binary is rebuilt incrementally and run without the
reference cases (in one shard per job, each ending at its first failure), and the fault is reported as caught (a test failed, the run
crashed or timed out), survived (every test passed), not applicable (its
original text no longer occurs exactly once) or not built (the replacement
does not compile: a faulty entry of the list). The score is the share of
caught faults among those that were applied and can change behaviour.
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
    """Read the fault list: ``== fault: NAME`` entries with fields and two text blocks.

    The original text runs from ``-- original`` to ``-- replacement``, the
    replacement from there to ``-- end``, each without its last newline.

    Parameters
    ----------
    text : str
        The contents of the list file.

    Returns
    -------
    list of Fault
        The entries in file order.
    """
    faults: list[Fault] = []
    for chunk in re.split(r"^== fault: ", text, flags=re.M)[1:]:
        header, _, rest = chunk.partition("\n-- original\n")
        original, _, rest = rest.partition("\n-- replacement\n")
        replacement, ended, _ = rest.partition("\n-- end\n")
        if not ended:
            raise ValueError(f"fault {chunk.splitlines()[0]}: no '-- end' line")
        lines = header.splitlines()
        fields = {}
        for line in lines[1:]:
            key, _, value = line.partition(":")
            fields[key.strip()] = value.strip()
        faults.append(
            Fault(
                name=lines[0].strip(),
                file=fields["file"],
                what=fields["what"],
                original=original,
                replacement=replacement,
                equivalent=fields.get("equivalent", ""),
            )
        )
    return faults


def run(cmd: list[str], cwd: Path, timeout: float | None = None) -> subprocess.CompletedProcess:
    """Run a command, capturing its output as text."""
    return subprocess.run(
        cmd, cwd=cwd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=timeout
    )


def copy_tree(destination: Path) -> None:
    """Copy the working tree (without builds and history) to ``destination``."""
    ignore = shutil.ignore_patterns("build", ".git", "__pycache__")
    shutil.copytree(ROOT, destination, ignore=ignore, dirs_exist_ok=True, symlinks=True)


def configure_and_build(tree: Path, build: Path, jobs: int) -> subprocess.CompletedProcess:
    """Configure once, then build the unit-test binary incrementally."""
    if not (build / "CMakeCache.txt").exists():
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        configured = run(
            ["cmake", "-S", str(tree), "-B", str(build), *generator, "-DCMAKE_BUILD_TYPE=Release",
             "-DSPLITMERGE_BUILD_TESTS=ON", "-DSPLITMERGE_BUILD_TOOLS=OFF",
             "-DSPLITMERGE_BUILD_MEX=OFF"],
            cwd=tree,
        )
        if configured.returncode != 0:
            return configured
    return run(["cmake", "--build", str(build), "--target", TEST_TARGET, "-j", str(jobs)],
               cwd=tree)


def run_tests(build: Path, timeout: float, jobs: int) -> tuple[bool, str]:
    """Run the unit tests in ``jobs`` shards, each stopping at its first failure.

    Returns whether they all passed and the failed test names; once one shard
    fails, the others are stopped.
    """
    binary = build / "tests" / TEST_TARGET
    shards = []
    for index in range(jobs):
        env = dict(os.environ, GTEST_TOTAL_SHARDS=str(jobs), GTEST_SHARD_INDEX=str(index))
        shards.append(subprocess.Popen(
            [str(binary), f"--gtest_filter={TEST_FILTER}", "--gtest_fail_fast"], cwd=build,
            env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True))
    deadline = time.monotonic() + timeout
    while any(p.poll() is None for p in shards):
        if time.monotonic() > deadline or any(p.poll() not in (None, 0) for p in shards):
            for p in shards:
                p.kill()
        time.sleep(0.2)
    outputs = [p.communicate()[0] for p in shards]
    if all(p.returncode == 0 for p in shards):
        return True, ""
    failed = sorted({name for out in outputs
                     for name in re.findall(r"^\[  FAILED  \] (\S+?)(?:,| \(|$)", out, re.M)})
    if failed:
        return False, ", ".join(failed)
    if time.monotonic() > deadline:
        return False, f"timed out after {timeout:.0f} s"
    started = [re.findall(r"^\[ RUN      \] (\S+)", out, re.M) for out in outputs]
    where = "".join(f" in {s[-1]}" for s, p in zip(started, shards) if s and p.returncode < 0)
    return False, f"exit status {[p.returncode for p in shards]} (crash{where})"


def try_fault(fault: Fault, tree: Path, build: Path, jobs: int, timeout: float) -> Outcome:
    """Apply one fault, build, test, and restore the file."""
    path = tree / fault.file
    if not path.exists():
        return Outcome(fault, "not applicable", f"{fault.file} does not exist")
    source = path.read_text()
    count = source.count(fault.original)
    if count != 1:
        why = "original text not found" if count == 0 else f"original text occurs {count} times"
        return Outcome(fault, "not applicable", why)
    start = time.monotonic()
    path.write_text(source.replace(fault.original, fault.replacement))
    try:
        built = configure_and_build(tree, build, jobs)
        if built.returncode != 0:
            errors = [l for l in built.stdout.splitlines() if "error" in l][:3]
            return Outcome(fault, "not built", " | ".join(errors), time.monotonic() - start)
        passed, detail = run_tests(build, timeout, jobs)
        verdict = "survived" if passed else "caught"
        return Outcome(fault, verdict, detail, time.monotonic() - start)
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
    counted = [
        o for o in outcomes if o.verdict in ("caught", "survived") and not o.fault.equivalent
    ]
    caught = sum(o.verdict == "caught" for o in counted)
    survivors = [o for o in counted if o.verdict == "survived"]
    skipped = [o for o in outcomes if o.verdict in ("not applicable", "not built")]
    equivalent = [o for o in outcomes if o.fault.equivalent]
    print()
    score = 100.0 * caught / len(counted) if counted else 0.0
    print(f"caught {caught} of {len(counted)} faults that can change behaviour ({score:.1f} %); "
          f"{len(equivalent)} cannot change behaviour; "
          f"{len(skipped)} not applicable or not built")
    if survivors:
        print("survivors: " + ", ".join(o.fault.name for o in survivors))
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
    if args.only:
        wanted = set(args.only.split(","))
        unknown = wanted - {f.name for f in faults}
        if unknown:
            print("unknown faults: " + ", ".join(sorted(unknown)), file=sys.stderr)
            return 2
        faults = [f for f in faults if f.name in wanted]
    names = [f.name for f in faults]
    if len(set(names)) != len(names):
        print("fault names must be unique", file=sys.stderr)
        return 2

    if args.check:
        bad = 0
        for f in faults:
            path = ROOT / f.file
            count = path.read_text().count(f.original) if path.exists() else 0
            if count != 1:
                bad += 1
                print(f"{f.name}: not applicable ({f.file}: original text occurs {count} times)")
        print(f"{len(faults) - bad} of {len(faults)} faults apply")
        return 1 if bad else 0

    scratch = (args.scratch or Path(tempfile.mkdtemp(prefix="splitmerge_mutation_"))).resolve()
    keep = args.scratch is not None
    try:
        tree = scratch / "tree"
        build = scratch / "build"
        copy_tree(tree)
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
            outcome = try_fault(fault, tree, build, args.jobs, args.timeout)
            print(f"[{i}/{len(faults)}] {fault.name}: {outcome.verdict} "
                  f"({outcome.seconds:.0f} s)", flush=True)
            outcomes.append(outcome)
        # Leave the scratch binary as the tree is, for a later reuse.
        configure_and_build(tree, build, args.jobs)
        print()
        survivors = report(outcomes)
        return 1 if survivors else 0
    finally:
        if not keep:
            shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
