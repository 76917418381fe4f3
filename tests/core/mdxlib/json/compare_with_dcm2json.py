#!/usr/bin/env python3
"""Compares the DICOM JSON that mdxlib writes from a tag file with what
DCMTK's dcm2json writes from the original files, attribute by attribute.

Usage: compare_with_dcm2json.py MANIFEST WORKDIR

MANIFEST is a JSON object {"studies": [{"json": OUR_FILE, "images":
{SOP_UID: DICOM_FILE, ...}}, ...]}. Each OUR_FILE holds one array of
datasets. Both sides are parsed with Python's json module; nothing of the
writer under test is used here. Character sets that dcm2json cannot convert
are decoded with pydicom.

Every difference must fall into one of the classes below; the script prints
how often each occurred and exits 1 on any other difference.

Difference classes:
  bulk-data            a value above the tag file's size limit (1024 bytes;
                       Pixel Data whatever its size) is a BulkDataURI on our
                       side, with the reference's value inline; the URI must
                       name the image's file and the attribute's path.
  bulk-data-vr         the VR of such a value is the dictionary's: OB and OW
                       may differ for "OB or OW" attributes, and an omitted
                       sequence is UN.
  pixel-data-stripped  dcm2json cannot write encapsulated Pixel Data inline
                       and refuses the file; it ran on a copy without Pixel
                       Data, which our side has as a bulk-data reference.
  charset-by-pydicom   dcm2json cannot convert the declared character set
                       (ISO 2022 Japanese with glibc's iconv); it ran on a
                       copy without (0008,0005), and its raw strings were
                       decoded by pydicom with the original declaration.
  charset-declared     (0008,0005) says ISO_IR 192 on our side, since the
                       text is UTF-8 now; dcm2json says so too, except when
                       it ran on a copy without the attribute.
  group-length         group lengths (gggg,0000) are not kept in tag files.
  padding-stripped     dcmodify drops Data Set Trailing Padding (FFFC,FFFC)
                       when it writes one of the copies above.
  uid-as-text          a Study, Series or SOP Instance UID that the file
                       stores as UN is UI text in the tag file.
  number-format        numbers are compared as numbers: DS and FD within
                       1e-12, FL as 32-bit floats (the JSON texts may differ:
                       we write the shortest text that reads back the same).
  invalid-text         bytes that are not valid in the declared character
                       set are U+FFFD on our side and raw in dcm2json's.
"""
import base64
import collections
import json
import math
import os
import struct
import subprocess
import sys

import pydicom
import pydicom.charset

LIMIT = 1024
PIXEL_DATA = "7FE00010"
CHARSET = "00080005"
PADDING = "FFFCFFFC"
UID_TAGS = {"0020000D", "0020000E", "00080018"}
STRING_VRS = {"AE", "AS", "CS", "DA", "DT", "LO", "LT", "SH", "ST", "TM", "UC", "UI", "UR", "UT"}

CLASSES = ("bulk-data", "bulk-data-vr", "pixel-data-stripped", "charset-by-pydicom", "charset-declared",
           "padding-stripped", "group-length", "uid-as-text", "number-format", "invalid-text")
classes = collections.Counter({name: 0 for name in CLASSES})
failures = []


def fail(where, what):
    if len(failures) < 40:
        failures.append(f"{where}: {what}")
    else:
        failures.append(None)


def run(*args):
    return subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def reference(path, workdir, index):
    """dcm2json's dataset for path, and what had to be stripped from a copy."""
    out = os.path.join(workdir, f"ref{index}.json")
    stripped = []
    result = run("dcm2json", "-q", "-fc", path, out)
    if result.returncode != 0:
        copy = os.path.join(workdir, f"copy{index}.dcm")
        with open(path, "rb") as source, open(copy, "wb") as target:
            target.write(source.read())
        for tag, name in ((PIXEL_DATA, "pixel-data-stripped"), (CHARSET, "charset-by-pydicom")):
            run("dcmodify", "-q", "-nb", "-imt", "-e", f"({tag[:4]},{tag[4:]})", copy)
            stripped.append(name)
            result = run("dcm2json", "-q", "-fc", copy, out)
            if result.returncode == 0:
                break
        if result.returncode != 0:
            raise RuntimeError(f"dcm2json fails on {path} even without Pixel Data and character set")
    with open(out, "rb") as f:
        # Raw bytes survive as surrogates where dcm2json wrote no UTF-8.
        return json.loads(f.read().decode("utf-8", "surrogateescape")), stripped


def raw_bytes(text):
    return text.encode("utf-8", "surrogateescape")


class Comparison:
    def __init__(self, dicom_path, stripped):
        self.path = dicom_path
        self.stripped = stripped
        self.encodings = None
        if "charset-by-pydicom" in stripped:
            ds = pydicom.dcmread(dicom_path, stop_before_pixels=True, force=True)
            self.encodings = pydicom.charset.convert_encodings(ds.get("SpecificCharacterSet", "ISO_IR 6"))

    def text(self, value, delimiters=b"\\"):
        """A string of the reference as the text it stands for."""
        if self.encodings is not None:
            return pydicom.charset.decode_bytes(raw_bytes(value), self.encodings, set(delimiters))
        return value

    def same_text(self, where, ours, theirs, delimiters=b"\\"):
        theirs = self.text(theirs, delimiters)
        if ours == theirs:
            return True
        if "\ufffd" in ours and any(0xDC80 <= ord(c) <= 0xDCFF for c in theirs):
            replaced = raw_bytes(theirs).decode("utf-8", "replace")
            if replaced.replace("\ufffd", "") == ours.replace("\ufffd", ""):
                classes["invalid-text"] += 1
                return True
        fail(where, f"text {ours!r} != {theirs!r}")
        return False

    def dataset(self, where, ours, theirs, path):
        for tag in sorted(set(ours) | set(theirs)):
            here = f"{where} {tag}"
            if tag not in ours:
                if tag.endswith("0000"):
                    classes["group-length"] += 1
                else:
                    fail(here, "missing on our side")
                continue
            if tag not in theirs:
                if tag == PIXEL_DATA and "pixel-data-stripped" in self.stripped and "BulkDataURI" in ours[tag]:
                    self.bulk(here, ours[tag], path + [tag])
                elif tag == PADDING and self.stripped:
                    classes["padding-stripped"] += 1
                elif tag == CHARSET and "charset-by-pydicom" in self.stripped:
                    classes["charset-declared"] += 1
                else:
                    fail(here, "not in dcm2json's output")
                continue
            self.attribute(here, tag, ours[tag], theirs[tag], path + [tag])

    def bulk(self, where, ours, path):
        uri = ours["BulkDataURI"]
        expected = "#bulk=" + "/".join(path)
        location = uri[: -len(expected)] if uri.endswith(expected) else None
        if location is None or not location.startswith("file://"):
            fail(where, f"BulkDataURI {uri} does not end in {expected}")
        elif os.path.realpath(location[len("file://"):].replace("%20", " ")) != os.path.realpath(self.path):
            fail(where, f"BulkDataURI {uri} names another file than {self.path}")

    def size(self, value):
        """Bytes of the reference's value as a file holds it, roughly."""
        if "InlineBinary" in value:
            return len(base64.b64decode(value["InlineBinary"]))
        if value.get("vr") == "SQ":
            return LIMIT + 1  # a sequence is omitted by its encoded length, which JSON does not show
        values = value.get("Value", [])
        return sum(len(raw_bytes(json.dumps(v, ensure_ascii=False))) for v in values) + len(values)

    def attribute(self, where, tag, ours, theirs, path):
        if "BulkDataURI" in ours:
            if tag != PIXEL_DATA and self.size(theirs) <= LIMIT - 8 * max(1, len(theirs.get("Value", []))):
                fail(where, f"bulk data although the value is small: {theirs}")
                return
            classes["bulk-data"] += 1
            if ours["vr"] != theirs["vr"]:
                if {ours["vr"], theirs["vr"]} <= {"OB", "OW"} or (ours["vr"] == "UN" and theirs["vr"] == "SQ"):
                    classes["bulk-data-vr"] += 1
                else:
                    fail(where, f"VR {ours['vr']} != {theirs['vr']} of bulk data")
            self.bulk(where, ours, path)
            return
        vr = ours["vr"]
        if vr != theirs["vr"]:
            if tag in UID_TAGS and vr == "UI" and theirs["vr"] == "UN":
                classes["uid-as-text"] += 1
                text = base64.b64decode(theirs["InlineBinary"]).rstrip(b"\0 ").decode("ascii")
                if ours.get("Value") != [text]:
                    fail(where, f"UID {ours.get('Value')} != {text}")
            else:
                fail(where, f"VR {vr} != {theirs['vr']}")
            return
        if tag == CHARSET:
            if ours.get("Value") != ["ISO_IR 192"] or theirs.get("Value") != ["ISO_IR 192"]:
                fail(where, f"character set {ours.get('Value')} / {theirs.get('Value')}")
            classes["charset-declared"] += 1
            return
        if "InlineBinary" in ours or "InlineBinary" in theirs:
            if base64.b64decode(ours.get("InlineBinary", "")) != base64.b64decode(theirs.get("InlineBinary", "")):
                fail(where, "binary values differ")
            return
        a, b = ours.get("Value", []), theirs.get("Value", [])
        if len(a) != len(b):
            fail(where, f"{len(a)} values != {len(b)}: {a} / {b}")
            return
        for i, (x, y) in enumerate(zip(a, b)):
            self.value(f"{where}[{i}]", vr, x, y, path + [str(i)])

    def value(self, where, vr, x, y, path):
        if vr == "SQ":
            self.dataset(where, x, y, path)
        elif vr == "PN":
            if x is None or y is None:
                if x != y and not (x is None and not any(y.values())):
                    fail(where, f"{x} != {y}")
                return
            for group in set(x) | set(y):
                self.same_text(f"{where}.{group}", x.get(group, ""), y.get(group, ""), b"\\^=")
        elif vr in STRING_VRS:
            if x is None or y is None:
                if x != y:
                    fail(where, f"{x!r} != {y!r}")
                return
            self.same_text(where, x, y)
        elif vr == "AT":
            if x != y:
                fail(where, f"{x} != {y}")
        else:
            if isinstance(x, (int, float)) and isinstance(y, (int, float)):
                if vr == "FL":  # as the 32-bit floats they are
                    x, y = (struct.unpack("<f", struct.pack("<f", v))[0] for v in (x, y))
                if not math.isclose(x, y, rel_tol=1e-12, abs_tol=1e-300):
                    fail(where, f"{x} != {y}")
                elif type(x) != type(y) or x != y:
                    classes["number-format"] += 1
            elif x != y:
                fail(where, f"{x!r} != {y!r}")


def main():
    manifest, workdir = sys.argv[1], sys.argv[2]
    with open(manifest) as f:
        studies = json.load(f)["studies"]
    images = 0
    index = 0
    for study in studies:
        with open(study["json"], "rb") as f:
            ours = json.loads(f.read().decode("utf-8"))  # strict: our side must be UTF-8
        by_sop = {d["00080018"]["Value"][0]: d for d in ours}
        if len(by_sop) != len(study["images"]):
            fail(study["json"], f"{len(by_sop)} datasets for {len(study['images'])} images")
        for sop, path in sorted(study["images"].items()):
            index += 1
            theirs, stripped = reference(path, workdir, index)
            for name in stripped:
                classes[name] += 1
            if sop not in by_sop:
                fail(path, f"no dataset for {sop}")
                continue
            Comparison(path, stripped).dataset(os.path.basename(path), by_sop[sop], theirs, [])
            images += 1
    print(f"{images} images of {len(studies)} studies compared with dcm2json")
    for name in CLASSES:
        print(f"  {name}: {classes[name]}")
    if failures:
        print(f"{len(failures)} unexplained differences:")
        for line in failures:
            if line:
                print("  " + line)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
