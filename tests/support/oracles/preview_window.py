#!/usr/bin/env python3
"""The 8-bit preview of a DICOM file's first frame, computed from the raw
pixels with pydicom and numpy: the modality rescale, the file's first window
(or the range of the values), and the linear window mapping in 32-bit float.

usage: preview_window.py FILE [FACTOR]

Compressed files other than RLE are first decompressed with DCMTK's
dcmdjpeg or dcmdjpls. With FACTOR, the windowed image is reduced by that
integer factor by averaging blocks. Writes "width height channels\\n" and
the bytes row by row. Exit status 77 when numpy or pydicom is missing.
"""
import os
import subprocess
import sys
import tempfile

try:
    import numpy as np
    import pydicom
except ImportError:
    sys.exit(77)

F = np.float32


def read(path):
    ds = pydicom.dcmread(path)
    syntax = ds.file_meta.TransferSyntaxUID
    if syntax.is_compressed and syntax != pydicom.uid.RLELossless:
        tool = "dcmdjpls" if syntax.startswith("1.2.840.10008.1.2.4.8") else "dcmdjpeg"
        with tempfile.TemporaryDirectory() as work:
            out = os.path.join(work, "plain.dcm")
            subprocess.run([tool, path, out], check=True, capture_output=True)
            ds = pydicom.dcmread(out)
            ds.pixel_array  # decode while the file exists
            return ds
    return ds


def first(ds, keyword):
    value = ds.get(keyword)
    if value is None:
        return None
    if isinstance(value, pydicom.multival.MultiValue):
        return float(value[0])
    return float(value)


def main():
    ds = read(sys.argv[1])
    factor = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    pixels = ds.pixel_array
    frames = int(ds.get("NumberOfFrames", 1) or 1)
    if frames > 1:
        pixels = pixels[0]
    if ds.SamplesPerPixel == 3:
        out = pixels.astype(np.float64)
        channels = 3
    else:
        slope = first(ds, "RescaleSlope") or 1.0
        intercept = first(ds, "RescaleIntercept") or 0.0
        values = pixels.astype(np.float64) * slope + intercept
        center, width = first(ds, "WindowCenter"), first(ds, "WindowWidth")
        if center is not None and width is not None and width > 0:
            low_value, high_value = F(center - width * 0.5), F(center + width * 0.5)
        else:
            low_value, high_value = F(values.min()), F(values.max())
        center = (low_value + high_value) * F(0.5)
        width = high_value - low_value
        low, high = center - F(0.5) * width, center + F(0.5) * width
        if ds.PhotometricInterpretation == "MONOCHROME1":
            low, high = center + F(0.5) * width, center - F(0.5) * width
        scale = F(0) if high == low else F(255) / (high - low)
        mapped = (values.astype(F) - low + F(0.5)) * scale
        out = np.where(mapped > 0, np.minimum(mapped, F(255)), F(0)).astype(np.int32).astype(np.float64)
        channels = 1
    if factor > 1:
        h, w = out.shape[0] // factor, out.shape[1] // factor
        out = out[: h * factor, : w * factor]
        out = out.reshape(h, factor, w, factor, *out.shape[2:]).mean(axis=(1, 3))
    out = np.clip(np.rint(out), 0, 255).astype(np.uint8)
    sys.stdout.buffer.write(b"%d %d %d\n" % (out.shape[1], out.shape[0], channels))
    sys.stdout.buffer.write(out.tobytes())


main()
