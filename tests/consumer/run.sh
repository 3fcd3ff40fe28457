#!/usr/bin/env bash
# The core as another project gets it: configured without the command-line
# program, the tests or the MEX module (so without any image library), built,
# installed to a temporary prefix, then found there by the three-line project
# in this folder with find_package(splitmerge), built and run.
set -euo pipefail
cd "$(dirname "$0")/../.."
jobs="${JOBS:-$(nproc)}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

# Configures with image libraries and test tools hidden (a find_package of any
# of them fails the configuration) and checks that the cache names none of
# them, nor anything in the extra pattern given.
configure_alone() {
  local name="$1" extra="$2"
  shift 2
  cmake -S . -B "$work/$name" -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_TOOLS=OFF \
    -DSPLITMERGE_BUILD_TESTS=OFF -DSPLITMERGE_BUILD_MEX=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_PNG=ON -DCMAKE_DISABLE_FIND_PACKAGE_TIFF=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_GIF=ON -DCMAKE_DISABLE_FIND_PACKAGE_ZLIB=ON \
    -DCMAKE_DISABLE_FIND_PACKAGE_CLI11=ON -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON \
    "$@" >"$work/$name.log" 2>&1 || { cat "$work/$name.log" >&2; return 1; }
  local found
  found="$(grep -v '^CMAKE_DISABLE_FIND_PACKAGE' "$work/$name/CMakeCache.txt" |
    grep -iE "png|tiff|gif|nifti|zlib|cli11|gtest$extra" || true)"
  if [ -n "$found" ]; then
    echo "consumer: the $name configuration looked for more than it needs:" >&2
    echo "$found" >&2
    return 1
  fi
}

# The MEX module and the Python module each need the core and their host only.
configure_alone mex "" -DSPLITMERGE_BUILD_MEX=ON
if [ -f /usr/lib/cmake/pybind11/pybind11Config.cmake ]; then
  configure_alone python "|mkoctfile" -DSPLITMERGE_BUILD_PYTHON=ON \
    -DPython_EXECUTABLE=/usr/bin/python3
fi
# The core alone: built and installed.
configure_alone core "|mkoctfile" -DSPLITMERGE_INSTALL=ON -DCMAKE_INSTALL_PREFIX="$work/prefix"
cmake --build "$work/core" -j "$jobs" >/dev/null
cmake --install "$work/core" >/dev/null
test -f "$work/prefix/include/splitmerge/splitmerge.hpp"
test -f "$work/prefix/lib/cmake/splitmerge/splitmergeConfigVersion.cmake"
test -f "$work/prefix/share/doc/splitmerge/LICENSE"

cmake -S tests/consumer -B "$work/consumer" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" -j "$jobs" >/dev/null
# The core's usage requirement reached the consumer.
grep -q -- '-ffp-contract=off' "$work/consumer/CMakeFiles/consumer.dir/flags.make"
"$work/consumer/consumer"
echo "consumer: found the installed splitmerge with find_package, built and ran"
