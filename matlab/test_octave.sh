#!/usr/bin/env bash
# Builds the Octave module and runs its tests in octave-cli: the module on
# real arrays (reference cases, every error identifier, memory over repeated
# calls), once as the CMake build makes it and once as a user's
# `cd matlab; build_splitmerge` does (with the README's example); smsegment
# (its version that of CMakeLists.txt); Ctrl-C during a long call; then the
# help files without the module. Every stage runs; the script fails when any did.
#
# The reference cases are read from SPLITMERGE_CONFORMANCE, else from the
# repository's archive tests/reference/cases.tar.xz.
set -uo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"
build="${SPLITMERGE_OCTAVE_BUILD:-build/release}"
conformance="${SPLITMERGE_CONFORMANCE:-}"

if ! command -v mkoctfile >/dev/null || ! command -v octave-cli >/dev/null; then
  echo "test_octave: octave-cli and mkoctfile are needed (scripts/setup.sh test)" >&2
  exit 1
fi
scratch="$(mktemp -d)"
trap 'rm -rf "$scratch"' EXIT
if [ -z "$conformance" ]; then
  tar -xJf "$root/tests/reference/cases.tar.xz" -C "$scratch"
  conformance="$scratch/conformance"
fi
failed=()

# Octave 7 prints this on every exit of octave-cli; it is harmless.
harmless='^error: ignoring const execution_exception& while preparing to exit$'
run_octave() {
  local status
  octave-cli --norc --no-history --quiet --eval "$1" >"$scratch/log" 2>&1
  status=$?
  grep -v -e "$harmless" "$scratch/log"
  return "$status"
}
stage() {
  local name="$1"
  shift
  echo "== Octave: $name"
  if ! "$@"; then
    failed+=("$name")
  fi
}

cmake_module() {
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null &&
    cmake --build "$build" --target splitmerge_mex -j "${JOBS:-2}" >/dev/null
}
module_tests() {
  run_octave "addpath('$root/matlab/tests'); addpath('$1'); \
    test_splitmerge_module('$conformance');"
}
# As a user does it: cd matlab; build_splitmerge (in a copy of the sources),
# which puts the module next to the help files, then the README's example.
user_build() {
  mkdir -p "$scratch/clone" && cp -r "$root/CMakeLists.txt" "$root/src" "$root/include" "$root/matlab" "$scratch/clone/" &&
    rm -f "$scratch"/clone/matlab/*.mex &&
    run_octave "cd('$scratch/clone/matlab'); build_splitmerge; \
      I = imread(fullfile(OCTAVE_HOME, 'share', 'octave', OCTAVE_VERSION, 'imagelib', \
                          'octave-sombrero.png')); \
      [L, n] = smsegment(I, 'Fit', 'crop'); \
      if ~isempty(pkg('list', 'image')), pkg load image; rgb = label2rgb(L); \
      else, rgb = zeros([size(L), 3]); end; \
      if ~isequal(size(rgb), size(I)) || n < 2 || min(L(L > 0)) ~= 1 || max(L(:)) ~= n, \
        exit(1); end; \
      printf('example: %d regions\n', n);"
}
smsegment_tests() {
  run_octave "addpath('$root/matlab/tests'); addpath('$root/matlab'); addpath('$1'); \
    test_smsegment();"
}
# Ctrl-C during a long 3-D call, sent when its first progress line comes:
# the call ends with splitmerge:interrupted before its last line, and the
# module works afterwards.
interrupt_test() {
  local log="$scratch/interrupt.log" lines="$scratch/lines" pid line
  mkfifo "$lines"
  octave-cli --norc --no-history --quiet --eval "addpath('$root/matlab/tests'); \
    addpath('$1'); interrupt_run();" >"$lines" 2>&1 &
  pid=$!
  while IFS= read -r line; do
    echo "$line" >>"$log"
    if [ "$line" = "finished initialisation" ]; then kill -INT "$pid"; fi
  done <"$lines"
  wait "$pid"
  grep -v -e "$harmless" "$log"
  grep -qx 'interrupted' "$log" && ! grep -q 'finished make_output' "$log" &&
    grep -qx 'next call gives 16 labels' "$log"
}
# The help files alone, as in a clone where the module is not built (a
# module built next to them would answer instead).
help_tests() {
  mkdir -p "$scratch/help" && cp "$root"/matlab/*.m "$scratch/help/" &&
    run_octave "addpath('$root/matlab/tests'); addpath('$scratch/help'); test_splitmerge_help();"
}

stage "the module built by CMake" cmake_module
module="$root/$build/src/gateway"
stage "module tests (CMake build)" module_tests "$module"
stage "the module built by build_splitmerge.m" user_build
stage "module tests (build_splitmerge build)" module_tests "$scratch/clone/matlab"
stage "smsegment" smsegment_tests "$module"
stage "Ctrl-C during a long call" interrupt_test "$module"
stage "the help files" help_tests

if [ "${#failed[@]}" -ne 0 ]; then
  printf 'test_octave: failed: %s\n' "${failed[@]}" >&2
  exit 1
fi
echo "test_octave: all stages passed"
