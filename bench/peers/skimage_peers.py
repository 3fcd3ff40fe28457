"""Peer segmentations from scikit-image on the benchmark images.

One method and image per process, so the peak memory is that method's:
    /usr/bin/python3 skimage_peers.py --method slic --image crop.npy --name NAME --reps 3
Prints one JSON line like the C++ benchmark programs. The parameters, chosen
to give region counts of the order splitmerge gives on the brain:
  felzenszwalb  scale=100, sigma=0.8, min_size=30 (2-D only in scikit-image)
  slic          compactness=10, n_segments=150 (2-D) or 1500 (3-D), grey values 0..255
  watershed     markers: connected components of sobel(image) < 20; flooding
                the Sobel gradient (gradient, markers and flooding all timed)
"""
import argparse
import json
import os
import resource
import sys
import time

import numpy as np
import scipy.ndimage as ndi
from skimage import filters, segmentation


def felzenszwalb(image):
    if image.ndim != 2:
        return None
    return segmentation.felzenszwalb(image, scale=100, sigma=0.8, min_size=30)


def slic(image):
    segments = 150 if image.ndim == 2 else 1500
    return segmentation.slic(image, n_segments=segments, compactness=10,
                             channel_axis=None, start_label=0)


def watershed(image):
    gradient = filters.sobel(image)
    markers, _ = ndi.label(gradient < 20)
    return segmentation.watershed(gradient, markers)


METHODS = {"felzenszwalb": felzenszwalb, "slic": slic, "watershed": watershed}


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--method", choices=sorted(METHODS), required=True)
    parser.add_argument("--image", required=True)
    parser.add_argument("--name", required=True)
    parser.add_argument("--reps", type=int, default=5)
    args = parser.parse_args()

    image = np.load(args.image).astype(np.float64)
    method = METHODS[args.method]
    baseline = resident_bytes()
    times = []
    labels = None
    for _ in range(args.reps):
        start = time.perf_counter()
        labels = method(image)
        times.append(time.perf_counter() - start)
        if labels is None:
            break
    line = {"kind": "peer", "peer": "scikit-image " + args.method, "name": args.name,
            "voxels": int(image.size), "repetitions": args.reps}
    if labels is None:
        line["note"] = "2-D only"
    else:
        line.update({
            "median_s": float(np.median(times)),
            "mvoxels_per_s": image.size / float(np.median(times)) / 1e6,
            "regions": int(len(np.unique(labels))),
            "peak_rss_bytes": resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024,
            "baseline_rss_bytes": baseline,
        })
    print(json.dumps(line))
    return 0


if __name__ == "__main__":
    sys.exit(main())
