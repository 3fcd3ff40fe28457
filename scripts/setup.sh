#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Usage: scripts/setup.sh [core|test|data|bench]
#   core: what builds the library, the program and the Python package; test: core and
#   what the tests and the documentation need; data: test and what regenerates the checked-in test data;
#   bench: test and what the benchmarks need.
set -euo pipefail
level="${1:-test}"

core=(cmake g++ make pkg-config zlib1g-dev libcli11-dev libpng-dev libtiff-dev libgif-dev
      libjpeg-dev libnifti2-dev mricron-data python3-numpy
      # the Python package (python/) and its batch runner
      python3-dev pybind11-dev python3-venv python3-pip python3-setuptools python3-wheel
      python3-distributed python3-nibabel python3-tqdm python3-tifffile python3-pil)
test=(libgtest-dev libgmock-dev clang-14 libclang-rt-14-dev octave liboctave-dev python3-pytest
      # the Python sdist and the documentation site (docs/)
      python3-build python3-sphinx python3-numpydoc python3-sphinx-gallery python3-matplotlib)
# regenerates the checked-in test data (tests/data/*.py)
data=(python3-scipy)
bench=(libbenchmark-dev python3-skimage octave-image time python3-matplotlib)

want=("${core[@]}")
case "$level" in
  core) ;;
  test) want+=("${test[@]}") ;;
  data) want+=("${test[@]}" "${data[@]}") ;;
  bench) want+=("${test[@]}" "${bench[@]}") ;;
  *) echo "usage: $0 [core|test|data|bench]" >&2; exit 2 ;;
esac

missing=()
for pkg in "${want[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done
if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi
echo "setup: installing ${missing[*]}" >&2
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
