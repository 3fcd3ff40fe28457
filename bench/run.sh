#!/usr/bin/env bash
# Runs the benchmark suite and prints its report as Markdown tables: whole
# runs against their targets, the phases one by one, the peers (Octave
# qtdecomp, scikit-image) on the same data, and the micro-benchmarks.
# Takes about five minutes on two cores; never part of scripts/test.sh.
#
# Usage: bench/run.sh [--no-volume] [--quick]
#   --no-volume  leave out the 256^3 volume (about 10 s and 1.5 GB per run)
#   --quick      fewer repetitions everywhere, for trying the suite out
# The report is also kept in build/bench/report.md; the raw results are in
# build/bench/results.jsonl and build/bench/micro.json, messages in build/bench/log.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

volume=1
quick=0
for arg in "$@"; do
  case "$arg" in
    --no-volume) volume=0 ;;
    --quick) quick=1 ;;
    *) echo "usage: $0 [--no-volume] [--quick]" >&2; exit 2 ;;
  esac
done

scripts/setup.sh bench
build=build/bench
bin="$build/bench"
data="$build/data"
results="$build/results.jsonl"
log="$build/log.txt"
python=/usr/bin/python3  # Debian's numpy and scikit-image live here

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_BENCH=ON \
  -DSPLITMERGE_BUILD_TESTS=OFF -DSPLITMERGE_BUILD_MEX=OFF >/dev/null
cmake --build "$build" -j 2 --target bench_make_data bench_whole_run bench_phases bench_micro \
  >/dev/null

mkdir -p "$data"
: >"$results"
: >"$log"
"$bin/bench_make_data" /usr/share/mricron/templates/ch2.nii.gz "$data"

# Repetitions: small images many times, the volume few times.
reps() {
  if [ "$quick" = 1 ]; then echo 1; else echo "$1"; fi
}

# run PROGRAM NAME IMAGE REPS [OPTIONS...]: one JSON line into the results.
run() {
  local program="$1" name="$2" image="$3" n="$4"
  shift 4
  echo "bench: $program $name $*" >&2
  "$bin/$program" --image "$data/$image" --name "$name" --reps "$n" "$@" >>"$results" 2>>"$log"
}

# case NAME IMAGE REPS DISPLAY_REPS [OPTIONS...]: whole runs and phases, both
# groupings; display-on runs when DISPLAY_REPS is not 0.
case_runs() {
  local name="$1" image="$2" n="$3" display_n="$4"
  shift 4
  for mode in 0 1; do
    run bench_whole_run "$name" "$image" "$n" --group-mode "$mode" "$@"
  done
  if [ "$display_n" != 0 ]; then
    run bench_whole_run "$name" "$image" "$display_n" --display "$@"
  fi
  for mode in 0 1; do
    run bench_phases "$name" "$image" "$n" --group-mode "$mode" "$@"
  done
}

case_runs "brain slice 256²" brain_slice.npy "$(reps 21)" "$(reps 21)"
case_runs "brain crop 128³" brain_crop.npy "$(reps 5)" "$(reps 3)"
if [ "$volume" = 1 ]; then
  case_runs "brain volume 256³" brain_volume.npy "$(reps 3)" 0
fi
case_runs "noise 256²" noise.npy "$(reps 5)" 0 --pred 1 --interval 0
case_runs "smooth 256²" smooth.npy "$(reps 21)" 0

echo "bench: peers" >&2
octave-cli --quiet --no-init-file bench/peers/qtdecomp_peer.m "$data/brain_slice.npy" \
  "brain slice 256²" "$(reps 5)" >>"$results" 2>>"$log"
for method in felzenszwalb slic watershed; do
  "$python" bench/peers/skimage_peers.py --method "$method" --image "$data/brain_slice.npy" \
    --name "brain slice 256²" --reps "$(reps 5)" >>"$results" 2>>"$log"
  "$python" bench/peers/skimage_peers.py --method "$method" --image "$data/brain_crop.npy" \
    --name "brain crop 128³" --reps "$(reps 3)" >>"$results" 2>>"$log"
done

echo "bench: micro-benchmarks" >&2
min_time=0.2
if [ "$quick" = 1 ]; then min_time=0.02; fi
"$bin/bench_micro" --data "$data" --benchmark_min_time="$min_time" \
  --benchmark_out="$build/micro.json" --benchmark_out_format=json >>"$log" 2>&1

cpu="$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//')"
machine="$(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, $cpu, commit $(git rev-parse --short HEAD 2>/dev/null || echo unknown)"
"$python" bench/make_table.py "$results" "$build/micro.json" "$machine" | tee "$build/report.md"
