#!/usr/bin/env python3
"""Tissue regions of a preview picture with scipy.ndimage: the picture read
as "width height 1\\n" and its bytes on standard input, thresholded at 7,
grown by the four neighbours, and labelled with 4-connectivity.

Writes JSON: the labels row by row, the overall box for each border
(1 left, 2 right, 3 either) and what the largest-region algorithm gives for
each border: 1.0, the centre's y and the box, all relative to the picture.
Exit status 77 when numpy or scipy is missing.
"""
import json
import sys

try:
    import numpy as np
    from scipy import ndimage
except ImportError:
    sys.exit(77)


def relative_box(box, w, h):
    x0, y0, x1, y1 = box
    rx = (lambda v, whole: v / (w - 1)) if w > 1 else (lambda v, whole: whole)
    ry = (lambda v, whole: v / (h - 1)) if h > 1 else (lambda v, whole: whole)
    return [rx(x0, 0.0), ry(y0, 0.0), rx(x1, 1.0), ry(y1, 1.0)]


def box_and_center(mask, border):
    h, w = mask.shape
    ys, xs = np.nonzero(mask)
    if len(xs) == 0 or w <= 1 or h <= 1:
        return [0, 0, w - 1, h - 1], 0.5
    x0 = 0 if border == 1 else int(xs.min())
    x1 = w - 1 if border == 2 else int(xs.max())
    return [x0, int(ys.min()), x1, int(ys.max())], float(ys.mean()) / (h - 1)


def main():
    data = sys.stdin.buffer.read()
    end = data.index(b"\n")
    w, h, channels = (int(v) for v in data[:end].split())
    picture = np.frombuffer(data[end + 1 :], dtype=np.uint8).reshape(h, w, channels)[:, :, 0]
    cross = ndimage.generate_binary_structure(2, 1)
    grown = ndimage.binary_dilation(picture > 6, structure=cross)
    labels, count = ndimage.label(grown, structure=cross)
    sizes = np.bincount(labels.ravel(), minlength=count + 1)
    sizes[0] = 0
    best = int(np.argmax(sizes)) if count else 0  # the first label of the largest size
    result = {"labels": labels.ravel().tolist(), "overall": {}, "v1": {}}
    for border in (1, 2, 3):
        box, _ = box_and_center(grown, border)
        result["overall"][str(border)] = relative_box(box, w, h)
        keep = {best} if best else set()
        if best:
            if border & 1:
                keep |= set(labels[:, 0][labels[:, 0] > 0].tolist())
            if border & 2:
                keep |= set(labels[:, w - 1][labels[:, w - 1] > 0].tolist())
        mask = np.isin(labels, sorted(keep)) if keep else np.zeros_like(grown)
        box, center = box_and_center(mask, 0)
        result["v1"][str(border)] = [1.0, center] + relative_box(box, w, h)
    json.dump(result, sys.stdout)


main()
