#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the unit tests in a
# release build, the core alone installed and found by another project, the
# Python package from its sdist, the documentation site, the unit tests under
# AddressSanitizer/UndefinedBehaviorSanitizer, the Octave tests of the MEX
# module, and a bounded fuzz run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh test
jobs="$(nproc)"
# Two runs at once share the build folders: one builds at a time. The tests
# themselves each use a folder of their own and may run together.
mkdir -p build
locked() { flock build/.build.lock "$@"; }

echo "== release build and tests"
locked cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_TESTS=ON \
  -DSPLITMERGE_DEVELOPER_WARNINGS=ON >/dev/null
locked cmake --build build/release -j "$jobs"
ctest --test-dir build/release --output-on-failure -j "$jobs"

echo "== the core alone (no image library), installed and found by another project"
JOBS="$jobs" tests/consumer/run.sh

echo "== Python package: its sdist installed offline into a throwaway venv, then its tests"
# A venv and an sdist of this run's own.
venv="$(mktemp -d "$PWD/build/python-venv.XXXXXX")"
trap 'rm -rf "$venv"' EXIT
/usr/bin/python3 -m build --no-isolation --sdist --outdir "$venv/dist" . >/dev/null
/usr/bin/python3 -m venv --system-site-packages "$venv"
CMAKE_BUILD_PARALLEL_LEVEL="$jobs" \
  "$venv/bin/pip" install --quiet --no-build-isolation --no-index "$venv"/dist/splitmerge-*.tar.gz
# pytest's non-zero exit (failures, or no tests collected) ends the script.
SPLITMERGE_CLI="$PWD/build/release/tools/splitmerge" \
  "$venv/bin/python" -m pytest -q -p no:cacheprovider python/tests

echo "== documentation site (warnings are errors)"
# With the package just installed and the program just built; the pages go
# to build/docs/html.
locked env SPLITMERGE_CLI="$PWD/build/release/tools/splitmerge" \
  "$venv/bin/python" -m sphinx -W --keep-going -q -b html docs build/docs/html
locked "$venv/bin/python" docs/check_site.py build/docs/html

echo "== sanitizer build and tests (address, undefined, leak)"
locked cmake -S . -B build/sanitize -DCMAKE_BUILD_TYPE=Debug -DSPLITMERGE_SANITIZE=address,undefined \
  -DSPLITMERGE_BUILD_TESTS=ON -DSPLITMERGE_DEVELOPER_WARNINGS=ON >/dev/null
locked cmake --build build/sanitize -j "$jobs"
ASAN_OPTIONS=detect_leaks=1 ctest --test-dir build/sanitize --output-on-failure -j "$jobs"

if [ -x matlab/test_octave.sh ]; then
  echo "== Octave tests of the MEX module"
  locked matlab/test_octave.sh
fi
if [ -x tests/fuzz/run_bounded.sh ]; then
  echo "== bounded fuzz run"
  tests/fuzz/run_bounded.sh
fi
echo "== all tests passed"
