#!/usr/bin/env bash
# Segments a real brain scan, the Colin27 T1 template that Debian's mricron-data
# ships, with the command-line program:
#   out/slice-input.png      axial slice 90 (segmented padded to 256 x 256, shown at
#                            its own size in the radiological convention)
#   out/labels.png           its regions, one colour each
#   out/overlay.png          the region borders over the slice
#   out/frames.gif           the segmentation as it progresses
#   out/volume-labels.nii.gz the whole volume, centre-cropped to 128 x 128 x 128, as
#                            NIfTI labels that viewers lay over the scan
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh core

scan=/usr/share/mricron/templates/ch2.nii.gz
if [ ! -f "$scan" ]; then
  scan="$(dpkg -L mricron-data | grep '/ch2\.nii\.gz$' | head -n 1)"
fi

jobs="$(nproc)"
# Its own build folder: only the program, none of the tests.
cmake -S . -B build/demo -DCMAKE_BUILD_TYPE=Release -DSPLITMERGE_BUILD_TESTS=OFF \
  -DSPLITMERGE_BUILD_MEX=OFF >/dev/null
cmake --build build/demo --target splitmerge_cli -j "$jobs" >/dev/null
splitmerge=build/demo/tools/splitmerge

mkdir -p out
echo "== axial slice 90 of $scan, padded to 256 x 256"
"$splitmerge" "$scan" --slice 90 --fit pad --save-input out/slice-input.png \
  --labels out/labels.png --overlay out/overlay.png --frames out/frames.gif
echo "== the volume, centre-cropped to 128 x 128 x 128"
"$splitmerge" "$scan" --fit crop --labels out/volume-labels.nii.gz --quiet
echo "== wrote out/slice-input.png, out/labels.png, out/overlay.png, out/frames.gif," \
  "out/volume-labels.nii.gz"
