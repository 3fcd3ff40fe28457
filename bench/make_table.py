"""Turns the JSON lines of a benchmark run into the Markdown report.

    make_table.py RESULTS.jsonl MICRO.json MACHINE_LINE
"""
import json
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
    whole = [r for r in lines if r["kind"] == "whole"]
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
    print("\nPeers on the same data (peak MB with the process's resident memory before the "
          "first run in brackets):\n")
    peer_table(peers, whole)
    print()
    micro_tables(micro)


if __name__ == "__main__":
    main()
