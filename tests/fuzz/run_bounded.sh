#!/usr/bin/env bash
# Builds the fuzz target with clang (address, undefined and leak checks) and
# runs it for a bounded time on a copy of the seed corpus.
#   tests/fuzz/run_bounded.sh            # about one minute, as in the test command
#   tests/fuzz/run_bounded.sh 3600       # a longer run: one hour
set -euo pipefail
cd "$(dirname "$0")/../.."
seconds="${1:-60}"
scripts/setup.sh test
mkdir -p build/fuzz
# Another run may be building the same folder: one builds at a time.
exec 9>build/fuzz/.build.lock
flock 9
cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
  -DSPLITMERGE_BUILD_FUZZ=ON -DSPLITMERGE_BUILD_TESTS=OFF -DSPLITMERGE_BUILD_MEX=OFF \
  -DSPLITMERGE_SANITIZE=address,undefined -DSPLITMERGE_DEVELOPER_WARNINGS=ON >/dev/null
cmake --build build/fuzz --target splitmerge_fuzz -j "$(nproc)"
flock -u 9
# A corpus folder of this run's own, so that runs at the same time do not meet.
work="$(mktemp -d build/fuzz/corpus-run.XXXXXX)"
trap 'rm -rf "$work"' EXIT
cp tests/fuzz/corpus/* "$work"/
ASAN_OPTIONS=detect_leaks=1 build/fuzz/tests/fuzz/splitmerge_fuzz "$work" \
  -max_total_time="$seconds" -max_len=4096 -rss_limit_mb=2048 -timeout=20 \
  -close_fd_mask=3 -print_final_stats=1 -artifact_prefix=build/fuzz/ 2>&1 | tail -n 25
