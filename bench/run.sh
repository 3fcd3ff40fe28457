#!/usr/bin/env bash
# Runs the benchmark suite and prints its report as Markdown tables: whole
# runs against their targets, the phases one by one, earlier versions side by
# side with this one, the large images, the peers (Octave qtdecomp,
# scikit-image) on the same data, and the micro-benchmarks.
# Takes about five minutes on two cores without --baseline and the large
# images; never part of scripts/test.sh.
#
# Usage: bench/run.sh [--no-volume] [--quick] [--no-large] [--huge] [--memory] [--baseline REV]...
#   --no-volume     leave out the 256^3 volume (about 10 s and 1.5 GB per run)
#   --quick         fewer repetitions everywhere, for trying the suite out
#   --no-large      leave out the large images: camera.png 512^2 through the
#                   command-line program, a 2048^2 photograph and a 512x512x64
#                   CT-like stack (about a minute)
#   --huge          add a 512^3 volume (several GB and minutes per run)
#   --memory        add the memory cases (bench/memory_cases.py: the brain at
#                   512^3, a run stopped by its budget, a smooth 1024^3 volume,
#                   a 16384^2 photograph; about 10 GB of inputs, minutes)
#   --baseline REV  build the benchmark programs of revision REV in a worktree,
#                   build/bench/baseline-<commit> (kept and reused), and run the
#                   whole-run cases with them and with this version in turn,
#                   invocation by invocation, through segment() and as whole
#                   command-line processes; may be given more than once,
#                   e.g. --baseline b47ea49 --baseline c80b043
# The report is also kept in build/bench/report.md; the raw results are in
# build/bench/results.jsonl and build/bench/micro.json, messages in build/bench/log.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: $0 [--no-volume] [--quick] [--no-large] [--huge] [--memory] [--baseline REV]..."
volume=1
quick=0
large=1
huge=0
memory=0
baselines=()
while [ "$#" -gt 0 ]; do
  case "$1" in
    --no-volume) volume=0 ;;
    --quick) quick=1 ;;
    --no-large) large=0 ;;
    --huge) huge=1 ;;
    --memory) memory=1 huge=1 ;;
    --baseline)
      [ "$#" -ge 2 ] || { echo "$usage" >&2; exit 2; }
      baselines+=("$2")
      shift
      ;;
    --baseline=*) baselines+=("${1#--baseline=}") ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
  shift
done

scripts/setup.sh bench
build=build/bench
bin="$build/bench"
data="$build/data"
results="$build/results.jsonl"
log="$build/log.txt"
python=/usr/bin/python3  # Debian's numpy and scikit-image live here

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_BENCH=ON \
  -DSPLITMERGE_BUILD_TESTS=OFF -DSPLITMERGE_BUILD_MEX=OFF -DSPLITMERGE_DEVELOPER_WARNINGS=ON >/dev/null
cmake --build "$build" -j 2 --target bench_make_data bench_whole_run bench_phases bench_micro \
  splitmerge_cli >/dev/null

mkdir -p "$data"
: >"$results"
: >"$log"
data_sets=()
if [ "$large" = 1 ]; then data_sets+=(--large); fi
if [ "$huge" = 1 ]; then data_sets+=(--huge); fi
"$bin/bench_make_data" /usr/share/mricron/templates/ch2.nii.gz "$data" "${data_sets[@]}"
if [ "$large" = 1 ]; then "$python" bench/make_photo_data.py "$data"; fi

# build_baseline REV: the worktree of REV, its bench_whole_run built there
# with the options of that revision; prints the program's path.
build_baseline() {
  local commit tree
  commit="$(git rev-parse --short "$1^{commit}")"
  tree="$build/baseline-$commit"
  if [ ! -e "$tree/.git" ]; then
    git worktree prune
    git worktree add --detach "$tree" "$commit" >>"$log" 2>&1
  fi
  local flags=(-DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_BENCH=ON -DSPLITMERGE_BUILD_TESTS=OFF
    -DSPLITMERGE_BUILD_MEX=OFF)
  if grep -q 'SPLITMERGE_BUILD_PYTHON' "$tree/CMakeLists.txt"; then
    flags+=(-DSPLITMERGE_BUILD_PYTHON=OFF)
  fi
  echo "bench: building $1 ($commit) in $tree" >&2
  cmake -S "$tree" -B "$tree/build" "${flags[@]}" >>"$log" 2>&1
  cmake --build "$tree/build" -j 2 --target bench_whole_run splitmerge_cli >>"$log" 2>&1
  echo "$tree/build/bench/bench_whole_run"
}

baseline_programs=()
baseline_clis=()
baseline_commits=()
for rev in "${baselines[@]}"; do
  program="$(build_baseline "$rev")"
  baseline_programs+=("$program")
  baseline_clis+=("$(dirname "$(dirname "$program")")/tools/splitmerge")
  baseline_commits+=("$(git rev-parse --short "$rev^{commit}")")
done
now_commit="$(git rev-parse --short HEAD)"
if ! git diff --quiet HEAD -- src include bench 2>/dev/null; then now_commit+="+"; fi

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

# tagged KEY VALUE COMMAND...: the command's JSON lines into the results with
# "KEY": "VALUE" in front (earlier programs cannot add it themselves).
tagged() {
  local key="$1" value="$2"
  shift 2
  "$@" 2>>"$log" | sed "s/^{/{\"$key\": \"$value\", /" >>"$results"
}

# versus NAME IMAGE REPS ROUNDS [OPTIONS...]: the whole run of the case, display
# off, both groupings, by every baseline program and by this version with one
# thread and with all of them, taking turns invocation by invocation for
# ROUNDS rounds so that a change in the machine's load hits all alike.
versus() {
  local name="$1" image="$2" n="$3" rounds="$4"
  shift 4
  local mode round i
  for mode in 0 1; do
    echo "bench: versions $name group mode $mode" >&2
    for ((round = 0; round < rounds; ++round)); do
      for i in "${!baseline_programs[@]}"; do
        tagged version "${baseline_commits[$i]}" "${baseline_programs[$i]}" \
          --image "$data/$image" --name "$name" --reps "$n" --group-mode "$mode" "$@"
        tagged version "$now_commit" "$bin/bench_whole_run" --image "$data/$image" \
          --name "$name" --reps "$n" --group-mode "$mode" --threads 1 "$@"
      done
      tagged version "$now_commit" "$bin/bench_whole_run" --image "$data/$image" \
        --name "$name" --reps "$n" --group-mode "$mode" --threads 0 "$@"
    done
  done
}

# The standard parameters of the benchmark programs, as command-line options.
cli_parameters=(--pred-choice 4 --sigma 5 --threshold-row 3 --interval-length 10 --init-level 3
  --small-size 30 --statistic-update 1 --max-seed 8)

# versus_cli NAME IMAGE ROUNDS: whole command-line processes (reading the
# .npy, the run, writing the labels as .npy), sequential grouping, by every
# baseline program and by this version with one thread and with all of
# them, taking turns process by process.
versus_cli() {
  local name="$1 (command line)" image="$2" rounds="$3"
  local round i
  echo "bench: versions $name through the command-line program" >&2
  for ((round = 0; round < rounds; ++round)); do
    for i in "${!baseline_clis[@]}"; do
      tagged version "${baseline_commits[$i]}" "$python" bench/cli_run.py \
        --program "${baseline_clis[$i]}" --image "$data/$image" --name "$name" --reps 1 \
        --work "$build/cli" --labels-format npy --threads 1 --group-mode 0 -- "${cli_parameters[@]}"
      tagged version "$now_commit" "$python" bench/cli_run.py --program "$build/tools/splitmerge" \
        --image "$data/$image" --name "$name" --reps 1 --work "$build/cli" --labels-format npy \
        --threads 1 --group-mode 0 -- "${cli_parameters[@]}"
    done
    tagged version "$now_commit" "$python" bench/cli_run.py --program "$build/tools/splitmerge" \
      --image "$data/$image" --name "$name" --reps 1 --work "$build/cli" --labels-format npy \
      --threads 0 --group-mode 0 -- "${cli_parameters[@]}"
  done
}

case_runs "brain slice 256²" brain_slice.npy "$(reps 21)" "$(reps 21)"
case_runs "brain crop 128³" brain_crop.npy "$(reps 5)" "$(reps 3)"
if [ "$volume" = 1 ]; then
  case_runs "brain volume 256³" brain_volume.npy "$(reps 3)" 0
fi
case_runs "noise 256²" noise.npy "$(reps 5)" 0 --pred 1 --interval 0
case_runs "smooth 256²" smooth.npy "$(reps 21)" 0

if [ "${#baselines[@]}" -gt 0 ]; then
  versus "brain slice 256²" brain_slice.npy "$(reps 21)" "$(reps 5)"
  versus "brain crop 128³" brain_crop.npy "$(reps 3)" "$(reps 3)"
  if [ "$volume" = 1 ]; then
    versus "brain volume 256³" brain_volume.npy 1 "$(reps 3)"
  fi
  versus "noise 256²" noise.npy "$(reps 5)" "$(reps 3)" --pred 1 --interval 0
  versus "smooth 256²" smooth.npy "$(reps 21)" "$(reps 5)"
  versus_cli "brain crop 128³" brain_crop.npy "$(reps 5)"
  if [ "$volume" = 1 ]; then
    versus_cli "brain volume 256³" brain_volume.npy "$(reps 3)"
  fi
fi

# large NAME SIZE IMAGE REPS [OPTIONS...]: whole runs of a large image, both
# groupings with all threads and the sequential one with one thread.
large_runs() {
  local name="$1" size="$2" image="$3" n="$4"
  shift 4
  local mode threads
  for mode in 0 1; do
    for threads in 1 0; do
      if [ "$mode" = 1 ] && [ "$threads" = 1 ]; then continue; fi
      echo "bench: large $name group mode $mode threads $threads" >&2
      tagged size "$size" "$bin/bench_whole_run" --image "$data/$image" --name "$name" \
        --reps "$n" --group-mode "$mode" --threads "$threads" "$@"
    done
  done
}

if [ "$large" = 1 ]; then
  echo "bench: large camera.png through the command-line program" >&2
  "$python" bench/cli_run.py --program "$build/tools/splitmerge" --image "$data/camera.png" \
    --name "camera.png (command line)" --reps "$(reps 5)" --work "$build/cli" \
    >>"$results" 2>>"$log"
  large_runs "retina 2048²" "2048 × 2048" retina_2048.npy "$(reps 5)"
  large_runs "CT-like 512²×64" "512 × 512 × 64" ct_512x512x64.npy "$(reps 3)"
fi
if [ "$huge" = 1 ]; then
  # Its worst case (every voxel a block, about 40 GiB) exceeds this machine; the
  # brain itself needs about 3 GB, which the run's memory budget allows.
  large_runs "brain 512³" "512 × 512 × 512" brain_512.npy 1
fi

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
if [ "$memory" = 1 ]; then
  echo "bench: memory cases" >&2
  { printf '\n## Memory\n\n'
    "$python" bench/memory_cases.py --program "$build/tools/splitmerge" --data "$data" \
      --work "$build/memory"; } | tee -a "$build/report.md"
fi
