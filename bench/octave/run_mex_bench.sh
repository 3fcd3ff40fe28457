#!/usr/bin/env bash
# The MEX module in Octave on the centre 128^3 crop of the Colin27 brain:
# one output against the library's run without display, and two outputs
# against the frames once plus the one-output peak. Each measurement is its
# own process (its peak resident size is the call's), and the three kinds
# take turns so that load on the machine touches them alike; times are
# compared by processor time, which other load disturbs least. Prints a
# Markdown table (the raw rows on standard error); never part of
# scripts/test.sh.
#
# Usage: bench/octave/run_mex_bench.sh [ROUNDS]   (default 3; about a minute each)
set -euo pipefail
cd "$(dirname "$0")/../.."
rounds="${1:-3}"
build=build/bench-mex
data="$build/data"

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_BENCH=ON \
  -DSPLITMERGE_BUILD_TESTS=OFF -DSPLITMERGE_BUILD_MEX=ON >/dev/null
cmake --build "$build" -j 2 --target bench_make_data bench_whole_run splitmerge_mex >/dev/null
mkdir -p "$data"
[ -f "$data/brain_crop.npy" ] ||
  "$build/bench/bench_make_data" /usr/share/mricron/templates/ch2.nii.gz "$data" >/dev/null

results="$(mktemp)"
trap 'rm -f "$results" "$results.cpu" "$results.json"' EXIT
harmless='^error: ignoring const execution_exception& while preparing to exit$'
octave_run() {
  octave-cli --norc --no-history --quiet --eval "addpath('$PWD/bench/octave'); \
    mex_run('$PWD/$build/src/gateway', '$PWD/$data/brain_crop.npy', $1, 1)" 2>&1 |
    grep -v -e "$harmless"
}
for ((r = 1; r <= rounds; r++)); do
  echo "round $r of $rounds" >&2
  # Processor time of the whole program: reading the image and the floor
  # pass it also measures take milliseconds.
  /usr/bin/time -f "cpu %U %S" -o "$results.cpu" \
    "$build/bench/bench_whole_run" --image "$data/brain_crop.npy" --reps 1 >"$results.json"
  /usr/bin/python3 -c 'import json, sys; j = json.load(open(sys.argv[1]));
u, s = open(sys.argv[2]).read().split()[1:3];
print("library off %.3f %.1f %d %.3f" % (j["median_s"], j["peak_rss_bytes"] / 2**20, j["regions"],
      float(u) + float(s)))' "$results.json" "$results.cpu" >>"$results"
  /usr/bin/time -f "cpu %U %S" -o "$results.cpu" "$build/bench/bench_whole_run" \
    --image "$data/brain_crop.npy" --reps 1 --display >"$results.json"
  /usr/bin/python3 -c 'import json, sys; j = json.load(open(sys.argv[1]));
u, s = open(sys.argv[2]).read().split()[1:3];
print("library on %.3f %.1f %d %.3f" % (j["median_s"], j["peak_rss_bytes"] / 2**20, j["regions"],
      float(u) + float(s)))' "$results.json" "$results.cpu" >>"$results"
  octave_run 1 | awk '/^outputs/ {print "mex 1", $4, $8, $12, $14, $16}' >>"$results"
  octave_run 2 | awk '/^outputs/ {print "mex 2", $4, $8, $12, $14, $16}' >>"$results"
done

echo "raw rows (kind, seconds, peak MB, [frames MB,] regions, processor seconds):" >&2
cat "$results" >&2
/usr/bin/python3 - "$results" <<'PY'
import statistics, sys
rows = [line.split() for line in open(sys.argv[1])]
def pick(kind, column):
    return [float(r[column]) for r in rows if " ".join(r[:2]) == kind]
off_s = statistics.median(pick("library off", 2))
one_s, one_mb = statistics.median(pick("mex 1", 2)), max(pick("mex 1", 3))
off_cpu, one_cpu = statistics.median(pick("library off", 5)), statistics.median(pick("mex 1", 6))
if pick("library off", 4) != pick("mex 1", 5):
    sys.exit("the library and the module found different region counts")
two_s, two_mb = statistics.median(pick("mex 2", 2)), max(pick("mex 2", 3))
two_cpu = statistics.median(pick("mex 2", 6))
frames_mb = max(pick("mex 2", 4))
bound = 1.2 * (frames_mb + one_mb)
print("| call | median s | peak MB | target | met |")
print("|---|--:|--:|---|---|")
print(f"| library, display off | {off_s:.2f} (processor {off_cpu:.2f}) | "
      f"{max(pick('library off', 3)):.0f} | – | |")
on_s, on_cpu = statistics.median(pick("library on", 2)), statistics.median(pick("library on", 5))
print(f"| library, display on (frames kept in the result) | {on_s:.2f} (processor {on_cpu:.2f}) | "
      f"{max(pick('library on', 3)):.0f} | – | |")
# Processor time: far less disturbed than wall time by other load.
ok = abs(one_cpu / off_cpu - 1) <= 0.10
print(f"| MEX, one output | {one_s:.2f} (processor {one_cpu:.2f} s = {one_cpu / off_cpu:.2f} × "
      f"display off {off_cpu:.2f} s) | {one_mb:.0f} | time within ±10 % of display off | "
      f"{'yes' if ok else '**no**'} |")
ok = two_mb <= bound
print(f"| MEX, two outputs ({frames_mb:.0f} MB of frames) | {two_s:.2f} (processor "
      f"{two_cpu:.2f}) | {two_mb:.0f} "
      f"({two_mb / (frames_mb + one_mb):.2f} × (frames + one-output peak)) | "
      f"peak ≤ {bound:.0f} MB | {'yes' if ok else '**no**'} |")
PY
