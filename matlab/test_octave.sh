#!/usr/bin/env bash
# Builds the Octave module and runs its tests in octave-cli: the module on
# real arrays (shapes, reference cases, every error identifier), once as the
# CMake build makes it and once as build_splitmerge.m does, then the help
# file without the module. Judged by Octave's exit status.
set -euo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"
build="${SPLITMERGE_OCTAVE_BUILD:-build/release}"
conformance="${SPLITMERGE_CONFORMANCE:-$(cd .. && pwd)/shared/conformance}"

if ! command -v mkoctfile >/dev/null || ! command -v octave-cli >/dev/null; then
  echo "test_octave: octave-cli and mkoctfile are needed (scripts/setup.sh test)" >&2
  exit 1
fi
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" --target splitmerge_mex -j "${JOBS:-2}"

scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT

# Octave 7 prints this on every exit of octave-cli; it is harmless.
harmless='^error: ignoring const execution_exception& while preparing to exit$'
run_octave() {
  local status
  set +e
  octave-cli --norc --no-history --quiet --eval "$1" >"$scratch/log" 2>&1
  status=$?
  set -e
  grep -v -e "$harmless" "$scratch/log" || true
  return "$status"
}

echo "== Octave: the module built by CMake"
run_octave "addpath('$root/matlab/tests'); addpath('$root/$build/src/gateway'); \
  test_splitmerge_module('$conformance');"

echo "== Octave: the module built by build_splitmerge.m"
mkdir "$scratch/module"
run_octave "addpath('$root/matlab'); build_splitmerge('$scratch/module');"
run_octave "addpath('$root/matlab/tests'); addpath('$scratch/module'); \
  test_splitmerge_module('$conformance');"

echo "== Octave: the help file"
run_octave "addpath('$root/matlab/tests'); addpath('$root/matlab'); test_splitmerge_help();"
