"""Turns the JSON lines of a benchmark run into the Markdown report.

    make_table.py RESULTS.jsonl MICRO.json MACHINE_LINE
"""
import json
import statistics
import sys

PHASES = ["setup", "initial_blocks", "merge", "split", "adjacency", "grouping",
          "elimination", "cleaning", "sorting", "label_image", "release"]

# Display-off targets by case name: (largest seconds, least megavoxels/s, largest peak bytes).
TARGETS = {
    "brain slice 256²": (1e-3, None, None),
    "brain crop 128³": (25e-3, None, None),
    "brain volume 256³": (None, 100.0, 2 << 30),
}


def ms(seconds):
    if seconds is None:
        return "–"
    return f"{seconds * 1e3:.3g}" if seconds < 1e-2 else f"{seconds * 1e3:,.0f}"


def mb(value):
    if value is None:
        return "–"
    value /= 2**20
    return f"{value:.1f}" if value < 10 else f"{value:,.0f}"


def si(value):
    """A rate with a k/M/G prefix, three digits."""
    for factor, prefix in ((1e9, "G"), (1e6, "M"), (1e3, "k")):
        if value >= factor:
            return f"{value / factor:.3g}{prefix}"
    return f"{value:.3g}"


def grouping(mode):
    return "parallel (8 seeds)" if mode else "sequential"


def verdict(run, off_runs):
    """The target of a whole run and whether the run meets it."""
    if run["display"] == "on":
        off = off_runs.get((run["name"], run["group_mode"]))
        if off is None:
            return "–", ""
        bound = 1.2 * (off["median_s"] + run["frames"] * run["frame_copy_s"])
        return f"≤ {ms(bound)} ms (1.2 × (off + {run['frames']} frame copies))", \
            "yes" if run["median_s"] <= bound else "**no**"
    target = TARGETS.get(run["name"])
    if target is None:
        return "–", ""
    most_s, least_rate, most_peak = target
    met = True
    parts = []
    if most_s is not None:
        parts.append(f"≤ {ms(most_s)} ms")
        met &= run["median_s"] <= most_s
    if least_rate is not None:
        parts.append(f"≥ {least_rate:.0f} Mvox/s")
        met &= run["mvoxels_per_s"] >= least_rate
    if most_peak is not None:
        parts.append(f"peak < {most_peak / 2**30:.0f} GB")
        met &= run["peak_rss_bytes"] < most_peak
    return ", ".join(parts), "yes" if met else "**no**"


def whole_table(whole, phases):
    off_runs = {(r["name"], r["group_mode"]): r for r in whole if r["display"] == "off"}
    blocks = {(r["name"], r["group_mode"]): f"{r['leaves']} ({r['single_voxel_leaves']})"
              for r in phases}
    print("| case | display | grouping | runs | median (best) ms | Mvox/s | peak MB (input+labels) "
          "| blocks (1-voxel) | regions | frames | floor ms | × floor | target | met |")
    print("|---|---|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|---|---|")
    for r in whole:
        target, met = verdict(r, off_runs)
        held = 2 * 4 * r["voxels"]  # the int32 input and the int32 labels the caller holds
        print(f"| {r['name']} | {r['display']} | {grouping(r['group_mode'])} "
              f"| {r['repetitions']} | {ms(r['median_s'])} ({ms(r['min_s'])}) "
              f"| {r['mvoxels_per_s']:.3g} "
              f"| {mb(r['peak_rss_bytes'])} ({mb(held)}) "
              f"| {blocks.get((r['name'], r['group_mode']), '–')} | {r['regions']} "
              f"| {r['frames']} | {ms(r['floor_s'])} | {r['median_s'] / r['floor_s']:,.0f} "
              f"| {target} | {met} |")


def phase_table(phases):
    print("| case | grouping | runs | blocks (1-voxel) | neighbour entries | regions | "
          + " | ".join(PHASES) + " | sum |")
    print("|---|---|--:|--:|--:|--:|" + "--:|" * (len(PHASES) + 1))
    for r in phases:
        cells = " | ".join(ms(r[p + "_s"]) for p in PHASES)
        print(f"| {r['name']} | {grouping(r['group_mode'])} | {r['repetitions']} "
              f"| {r['leaves']} ({r['single_voxel_leaves']}) | {r['neighbour_entries']} "
              f"| {r['regions']} | {cells} "
              f"| {ms(r['total_s'])} |")


def peer_table(peers, whole):
    ours = {r["name"]: r for r in whole if r["display"] == "off" and r["group_mode"] == 0}
    print("| method | data | runs | median ms | Mvox/s | regions (blocks) | peak MB (at start) |")
    print("|---|---|--:|--:|--:|--:|--:|")
    for name, r in ours.items():
        if name in {p["name"] for p in peers}:
            print(f"| splitmerge (sequential, display off) | {name} | {r['repetitions']} "
                  f"| {ms(r['median_s'])} | {r['mvoxels_per_s']:.3g} | {r['regions']} "
                  f"| {mb(r['peak_rss_bytes'])} ({mb(r['baseline_rss_bytes'])}) |")
    for r in peers:
        if "note" in r:
            print(f"| {r['peer']} | {r['name']} | – | – | – | {r['note']} | – |")
            continue
        count = r["regions"] if "regions" in r else f"({r['blocks']})"
        print(f"| {r['peer']} | {r['name']} | {r['repetitions']} | {ms(r['median_s'])} "
              f"| {r['mvoxels_per_s']:.3g} | {count} "
              f"| {mb(r['peak_rss_bytes'])} ({mb(r['baseline_rss_bytes'])}) |")


def versions_table(runs):
    """Earlier versions against this one, run in turn on the same cases.

    Each cell is the median over the invocations of their medians; the peak
    is the largest. Baselines run as they were built (one thread); this
    version runs with one thread and with every core ("threads" 0).
    """
    now = runs[-1]["version"]  # the script runs this version last in every round
    cases, groups = [], {}
    for r in runs:
        key = (r["name"], r["group_mode"])
        if key not in groups:
            cases.append(key)
            groups[key] = {}
        side = "all" if r["version"] == now and r.get("threads") == 0 else \
            "one" if r["version"] == now else r["version"]
        groups[key].setdefault(side, []).append(r)
    baselines = list(dict.fromkeys(r["version"] for r in runs if r["version"] != now))

    def summary(lines):
        if not lines:
            return None
        return {"median_s": statistics.median(r["median_s"] for r in lines),
                "peak": max(r["peak_rss_bytes"] for r in lines),
                "regions": {r["regions"] for r in lines},
                "checksums": {r["labels_checksum"] for r in lines if "labels_checksum" in r},
                "invocations": len(lines),
                "repetitions": lines[0]["repetitions"]}

    print(f"| case | grouping | baseline | invocations × runs | baseline ms | {now} 1 thread ms "
          "| × | all threads ms | × | peak MB baseline / now | regions | same result |")
    print("|---|---|---|--:|--:|--:|--:|--:|--:|--:|--:|---|")
    for key in cases:
        one, every = summary(groups[key].get("one")), summary(groups[key].get("all"))
        for version in baselines:
            old = summary(groups[key].get(version))
            if old is None or one is None:
                continue
            ours = [s for s in (one, every) if s is not None]
            regions = set().union(old["regions"], *(s["regions"] for s in ours))
            same = len(regions) == 1
            checksums = set().union(*(s["checksums"] for s in ours))
            if old["checksums"]:
                checksums |= old["checksums"]
                check = "yes (regions, labels)" if same and len(checksums) == 1 else "**no**"
            else:
                check = ("yes (regions" + (", labels across threads)" if len(checksums) == 1
                                           else ")")) if same else "**no**"
            speedup_one = old["median_s"] / one["median_s"]
            speedup_all = "–" if every is None else f"{old['median_s'] / every['median_s']:.2f}"
            print(f"| {key[0]} | {grouping(key[1])} | {version} "
                  f"| {old['invocations']} × {old['repetitions']} "
                  f"| {ms(old['median_s'])} | {ms(one['median_s'])} | {speedup_one:.2f} "
                  f"| {'–' if every is None else ms(every['median_s'])} | {speedup_all} "
                  f"| {mb(old['peak'])} / {mb(one['peak'])} "
                  f"| {' / '.join(str(n) for n in sorted(regions))} | {check} |")


def large_table(large, cli):
    print("| case | size | run by | grouping | threads | runs | median ms | Mvox/s "
          "| peak MB (input+labels) | regions |")
    print("|---|---|---|---|--:|--:|--:|--:|--:|--:|")
    for r in cli:
        if "note" in r:
            print(f"| {r['name']} | – | `{r['command']}` | – | – | – | – | – | – "
                  f"| refused: {r['note']} |")
            continue
        print(f"| {r['name']} | {r['size']} | `{r['command']}` | sequential | all "
              f"| {r['repetitions']} | {ms(r['median_s'])} | {r['mvoxels_per_s']:.3g} "
              f"| {mb(r['peak_rss_bytes'])} | {r['regions']} |")
    for r in large:
        held = 2 * 4 * r["voxels"]
        threads = "all" if r.get("threads") == 0 else r.get("threads", 1)
        print(f"| {r['name']} | {r['size']} | bench_whole_run | {grouping(r['group_mode'])} "
              f"| {threads} | {r['repetitions']} | {ms(r['median_s'])} "
              f"| {r['mvoxels_per_s']:.3g} | {mb(r['peak_rss_bytes'])} ({mb(held)}) "
              f"| {r['regions']} |")


def micro_tables(micro):
    rates = {}
    adjacency = []
    for b in micro.get("benchmarks", []):
        parts = b["name"].split("/")
        if parts[0] == "calc_evalvar":
            rates[(parts[1], parts[2], parts[3])] = (b.get("evaluations/s"), b.get("voxels/s"))
        elif parts[0] == "group_init":
            adjacency.append(b)
    if rates:
        print("Block evaluations (`calc_evalvar`) per second, with the voxels per second "
              "they read in brackets (2-D: every block of the level in the brain slice, "
              "3-D: in the brain crop; levels 2, 4, 6 are blocks of 16, 256, 4096 pixels "
              "in 2-D and 64, 4096, 262144 voxels in 3-D):\n")
        print("| predicate | 2-D level 2 | 2-D level 4 | 2-D level 6 "
              "| 3-D level 2 | 3-D level 4 | 3-D level 6 |")
        print("|---|--:|--:|--:|--:|--:|--:|")
        for pred in range(1, 6):
            cells = []
            for dims in ("2d", "3d"):
                for level in (2, 4, 6):
                    v = rates.get((dims, f"pred{pred}", f"level{level}"))
                    cells.append("–" if v is None else f"{si(v[0])} ({si(v[1])})")
            print(f"| {pred} | " + " | ".join(cells) + " |")
        print()
    if adjacency:
        print("Adjacency (`group_init`), every pixel a block (predicate 1, interval 0):\n")
        print("| image | leaf blocks | ms per call | blocks/s |")
        print("|---|--:|--:|--:|")
        for b in adjacency:
            print(f"| {b['name'].split('/')[1]} | {b['leaves']:.0f} "
                  f"| {b['real_time']:.3g} | {si(b['blocks/s'])} |")
        print()


def main():
    results, micro_path, machine = sys.argv[1], sys.argv[2], sys.argv[3]
    with open(results) as f:
        lines = [json.loads(line) for line in f if line.strip().startswith("{")]
    try:
        with open(micro_path) as f:
            micro = json.load(f)
    except (OSError, ValueError):
        micro = {}
    whole = [r for r in lines if r["kind"] == "whole" and "version" not in r and "size" not in r]
    versions = [r for r in lines if r["kind"] in ("whole", "cli") and "version" in r
                and "note" not in r]
    large = [r for r in lines if r["kind"] == "whole" and "size" in r]
    cli = [r for r in lines if r["kind"] == "cli" and "version" not in r]
    phases = [r for r in lines if r["kind"] == "phases"]
    peers = [r for r in lines if r["kind"] == "peer"]

    print(f"### splitmerge benchmarks ({machine})\n")
    print("Standard parameters: pred_choice 4, sigma 5, threshold_row 3, interval_length 10, "
          "init_level 3, small_size 30, statistic_update 1; parallel grouping with max_seed 8. "
          "Noise: pred_choice 1, interval_length 0 (every pixel a block). Times are medians "
          "of the given number of runs on one core; peak MB is the process's peak resident "
          "memory, with what the input and label images alone take in brackets; the floor is "
          "a fresh label image written in one pass over the input.\n")
    whole_table(whole, phases)
    print("\nPhases (display off), median ms:\n")
    phase_table(phases)
    if versions:
        print("\nEarlier versions side by side (display off), taking turns invocation by "
              "invocation: each invocation's median over its runs, then the median over the "
              "invocations; × is the earlier version's time over this one's. Earlier versions "
              "run single-threaded. Same result: the region counts agree, and where both "
              "carry a checksum of the label image, the labels too. Cases marked (command "
              "line) time whole processes of the command-line program: reading the .npy, the "
              "run, writing the labels as .npy.\n")
        versions_table(versions)
    if large or cli:
        print("\nLarge images (display off). The command-line run is timed around the whole "
              "process (reading the .png, the run with every core, writing the labels) with "
              "its peak from /usr/bin/time -v; the others are whole runs through segment() "
              "as above.\n")
        large_table(large, cli)
    print("\nPeers on the same data (peak MB with the process's resident memory before the "
          "first run in brackets):\n")
    peer_table(peers, whole)
    print()
    micro_tables(micro)


if __name__ == "__main__":
    main()
