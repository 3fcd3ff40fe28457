#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Usage: scripts/setup.sh [core|test|bench]   (each level includes the ones before it)
set -euo pipefail
level="${1:-test}"

core=(cmake g++ make pkg-config zlib1g-dev libcli11-dev libpng-dev libtiff-dev libgif-dev
      libnifti2-dev mricron-data python3-numpy)
test=(libgtest-dev libgmock-dev clang-14 libclang-rt-14-dev octave liboctave-dev python3-nibabel)
bench=(libbenchmark-dev python3-skimage octave-image time)

want=("${core[@]}")
case "$level" in
  core) ;;
  test) want+=("${test[@]}") ;;
  bench) want+=("${test[@]}" "${bench[@]}") ;;
  *) echo "usage: $0 [core|test|bench]" >&2; exit 2 ;;
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
