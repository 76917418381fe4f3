#!/usr/bin/env python3
"""SUV factors of `mdx suv` against the textbook formulas.

Each case is a PET or NM image written by DCMTK's dump2dcm from the same
attributes the expected values are computed from here, in double precision
and without the library: decay 2^(t/h), body weight, DuBois body surface
area, James lean body mass. Usage: suv_oracle.py MDX
"""
import datetime as dt
import json
import os
import subprocess
import sys
import tempfile
import zoneinfo

MDX = sys.argv[1]
F18 = 6586.2
TOL = 2e-5

BASE = {
    "0008,0016": ("UI", "1.2.840.10008.5.1.4.1.1.128"),
    "0008,0018": ("UI", "1.2.3.4.5"),
    "0008,0060": ("CS", "PT"),
    "0008,0021": ("DA", "20240315"),
    "0008,0031": ("TM", "101500"),
    "0008,0022": ("DA", "20240315"),
    "0008,0032": ("TM", "101455.5"),
    "0010,0040": ("CS", "F"),
    "0010,1020": ("DS", "1.65"),
    "0010,1030": ("DS", "62.5"),
    "0054,1001": ("CS", "BQML"),
    "0054,1102": ("CS", "START"),
    "0028,1053": ("DS", "0.5"),
    "0028,1052": ("DS", "0"),
    "0028,0010": ("US", "2"),
    "0028,0011": ("US", "2"),
    "0028,0100": ("US", "16"),
    "0028,0101": ("US", "16"),
    "0028,0102": ("US", "15"),
    "0028,0103": ("US", "0"),
    "0028,0002": ("US", "1"),
    "0028,0004": ("CS", "MONOCHROME2"),
    "7fe0,0010": ("OW", "0000\\0010\\0100\\1000"),
}
ITEM = {"0018,1072": ("TM", "091000"), "0018,1074": ("DS", "3.7e8"), "0018,1075": ("DS", str(F18))}


def dump(attrs, item, extra=""):
    lines = []
    for tag in sorted(k for k in attrs if k < "0054,0016"):
        vr, value = attrs[tag]
        lines.append(f"({tag}) {vr} [{value}]" if vr != "OW" else f"({tag}) {vr} {value}")
    if item is not None:
        lines.append("(0054,0016) SQ (Sequence with undefined length)")
        lines.append("(fffe,e000) na (Item with undefined length)")
        for tag in sorted(item):
            vr, value = item[tag]
            lines.append(f"({tag}) {vr} [{value}]")
        lines.append("(fffe,e00d) na (ItemDelimitationItem)")
        lines.append("(fffe,e0dd) na (SequenceDelimitationItem)")
    lines.append(extra)
    for tag in sorted(k for k in attrs if k > "0054,0016"):
        vr, value = attrs[tag]
        lines.append(f"({tag}) {vr} [{value}]" if vr != "OW" else f"({tag}) {vr} {value}")
    return "\n".join(lines) + "\n"


def seconds(start, end, tz=None):
    zone = zoneinfo.ZoneInfo(tz) if tz else None
    parse = lambda s: dt.datetime.strptime(s, "%Y%m%d%H%M%S").replace(tzinfo=zone)
    # Real elapsed time: through UTC, so that a daylight-saving change counts.
    return (parse(end).astimezone(dt.timezone.utc) - parse(start).astimezone(dt.timezone.utc)).total_seconds()


def factors(w, x, sex, d, h, t, activity=1.0):
    """Stored value (in Bq/ml times activity) to each unit."""
    decay = 2.0 ** (t / h)
    per_dose = activity * decay / d
    result = {"activity": activity, "body-weight": w * 1000.0 * per_dose, "raw-counts": 1.0}
    if x:
        result["body-surface"] = 71.84 * w ** 0.425 * (x * 100.0) ** 0.725 * per_dose
        if sex == "F":
            result["lean-body-mass"] = (1.07 * w - 148.0 * (w / (x * 100.0)) ** 2) * 1000.0 * per_dose
        elif sex == "M":
            result["lean-body-mass"] = (1.1 * w - 128.0 * (w / (x * 100.0)) ** 2) * 1000.0 * per_dose
        else:
            result["lean-body-mass"] = per_dose  # no sex: the dose term alone
    return result


def with_(base, **changes):
    out = dict(base)
    for key, value in changes.items():
        tag = key[1:5] + "," + key[6:]
        if value is None:
            out.pop(tag, None)
        else:
            out[tag] = value
    return out


PHILIPS = "(7053,0010) LO [Philips PET Private Group]\n"
ENHANCED = """(0018,9701) DT [20240315101500]
(0018,9758) CS [YES]
(5200,9230) SQ (Sequence with undefined length)
(fffe,e000) na (Item with undefined length)
(0040,9096) SQ (Sequence with undefined length)
(fffe,e000) na (Item with undefined length)
(0040,08ea) SQ (Sequence with undefined length)
(fffe,e000) na (Item with undefined length)
(0008,0100) SH [Bq/ml]
(fffe,e00d) na (ItemDelimitationItem)
(fffe,e0dd) na (SequenceDelimitationItem)
(0040,9211) US 32767
(0040,9216) US 0
(0040,9224) FD 10
(0040,9225) FD 2.5
(fffe,e00d) na (ItemDelimitationItem)
(fffe,e0dd) na (SequenceDelimitationItem)
(fffe,e00d) na (ItemDelimitationItem)
(fffe,e0dd) na (SequenceDelimitationItem)
"""

WORKED_T = seconds("20240315091000", "20240315101455")
CASES = [
    # name, attributes, item, extra dump lines, mdx options, environment, expected factors or None, extra checks
    ("worked", BASE, ITEM, "", [], {}, factors(62.5, 1.65, "F", 3.7e8, F18, WORKED_T), {"elapsedSeconds": 3895}),
    ("male-start-datetime", with_(BASE, G0010_0040=("CS", "M"), G0010_1030=("DS", "80"), G0010_1020=("DS", "1.80"),
                                  G0008_0032=None, G0008_0031=("TM", "110000")),
     dict(ITEM, **{"0018,1078": ("DT", "20240315093000")}), "", [], {},
     factors(80, 1.80, "M", 3.7e8, F18, 5400), {"elapsedSeconds": 5400}),
    ("nm-dose-in-mbq", with_(BASE, G0008_0060=("CS", "NM"), G0008_0016=("UI", "1.2.840.10008.5.1.4.1.1.20")),
     dict(ITEM, **{"0018,1074": ("DS", "370")}), "", [], {}, factors(62.5, 1.65, "F", 3.7e8, F18, WORKED_T),
     {"bundle.RadionuclideTotalDose": "370000000.000000"}),
    ("counts-bqml-factor", with_(BASE, G0054_1001=("CS", "CNTS")), ITEM,
     PHILIPS + "(7053,1000) DS [0.0003]\n(7053,1009) DS [1.7]", [], {},
     factors(62.5, 1.65, "F", 3.7e8, F18, WORKED_T, activity=1.7), {}),
    ("counts-suv-factor", with_(BASE, G0054_1001=("CS", "CNTS")), ITEM, PHILIPS + "(7053,1000) DS [0.0003]", [], {},
     dict(factors(62.5, 1.65, "F", 3.7e8, F18, WORKED_T,
                  activity=3.7e8 * 0.0003 / (62.5 * 2 ** (WORKED_T / F18) * 1000)), **{"body-weight": 0.0003}), {}),
    ("enhanced-real-world-mapping", with_(BASE, G0054_1001=None, G0054_1102=None, G0028_1053=None, G0028_1052=None,
                                          G0008_0016=("UI", "1.2.840.10008.5.1.4.1.1.130")),
     ITEM, ENHANCED, [], {},
     # Without Units the mapping stands for the file's unit in every mode, counts too.
     dict(factors(62.5, 1.65, "F", 3.7e8, F18, 3900, activity=2.5), **{"raw-counts": 2.5}),
     {"elapsedSeconds": 3900, "modes.body-weight.rescaleIntercept": 10.0}),
    ("start-datetime-13-characters", BASE, dict(ITEM, **{"0018,1078": ("DT", "2024031509100")}), "", [], {},
     factors(62.5, 1.65, "F", 3.7e8, F18, WORKED_T), {"bundle.RadiopharmaceuticalStartDateFromSeriesDate": "1"}),
    ("zr89-day-before", BASE, dict(ITEM, **{"0018,1078": ("DT", "20240314120000"), "0018,1075": ("DS", "282276")}),
     "", [], {}, factors(62.5, 1.65, "F", 3.7e8, 282276, seconds("20240314120000", "20240315101455")), {}),
    ("i124-date-from-series", BASE, dict(ITEM, **{"0018,1075": ("DS", "360806.4")}), "", [], {},
     {"activity": 1.0, "raw-counts": 1.0}, {}),
    ("i124-date-from-series-accepted", BASE, dict(ITEM, **{"0018,1075": ("DS", "360806.4")}), "",
     ["--accept-long-half-life"], {}, factors(62.5, 1.65, "F", 3.7e8, 360806.4, WORKED_T), {}),
    ("missing-sex", with_(BASE, G0010_0040=None), ITEM, "", [], {},
     factors(62.5, 1.65, None, 3.7e8, F18, WORKED_T), {}),
    ("unparsable-weight", with_(BASE, G0010_1030=("DS", "abc")), ITEM, "", [], {},
     {"activity": 1.0, "raw-counts": 1.0}, {}),
    ("daylight-saving-change", with_(BASE, G0008_0021=("DA", "20240331"), G0008_0022=("DA", "20240331"),
                                     G0008_0031=("TM", "033000"), G0008_0032=None),
     dict(ITEM, **{"0018,1072": ("TM", "013000")}), "", [], {"TZ": "Europe/Berlin"},
     factors(62.5, 1.65, "F", 3.7e8, F18, seconds("20240331013000", "20240331033000", "Europe/Berlin")),
     {"elapsedSeconds": 3600}),
    ("not-pet", with_(BASE, G0008_0060=("CS", "CT")), ITEM, "", [], {}, None, {}),
]


def lookup(report, path):
    node = report
    for part in path.split("."):
        node = node[part]
    return node


def close(a, b):
    return abs(a - b) <= TOL * max(abs(a), abs(b), 1e-30)


def main():
    failures = []
    assert close(factors(62.5, 1.65, "F", 3.7e8, F18, 3895)["body-weight"], 2.545094e-4)
    with tempfile.TemporaryDirectory() as folder:
        for name, attrs, item, extra, options, env, expected, checks in CASES:
            dump_path = os.path.join(folder, name + ".txt")
            dcm_path = os.path.join(folder, name + ".dcm")
            with open(dump_path, "w") as out:
                out.write(dump(attrs, item, extra))
            subprocess.run(["dump2dcm", "-q", dump_path, dcm_path], check=True)
            run = subprocess.run([MDX, "suv", "--json"] + options + [dcm_path], capture_output=True, text=True,
                                 env=dict(os.environ, **env))
            if expected is None:
                if run.returncode != 4 or json.loads(run.stdout)[0]["supportsSUV"]:
                    failures.append(f"{name}: expected no SUV, got status {run.returncode}")
                continue
            if run.returncode != 0:
                failures.append(f"{name}: status {run.returncode}: {run.stderr.strip()}")
                continue
            report = json.loads(run.stdout)[0]
            for mode, entry in report["modes"].items():
                if mode not in expected:
                    if entry["supported"]:
                        failures.append(f"{name}: {mode} supported, expected not")
                    continue
                if not entry["supported"]:
                    failures.append(f"{name}: {mode} unsupported")
                    continue
                if not close(entry["factor"], expected[mode]):
                    failures.append(f"{name}: {mode} factor {entry['factor']!r}, expected {expected[mode]!r}")
                # The file's rescale slope, 0.5, rides along with every factor.
                slope = expected[mode] * float(attrs.get("0028,1053", ("DS", "1"))[1])
                if not close(entry["rescaleSlope"], slope):
                    failures.append(f"{name}: {mode} rescale slope {entry['rescaleSlope']!r}, expected {slope!r}")
            for path, value in checks.items():
                got = lookup(report, path)
                if (isinstance(value, float) and not close(got, value)) or (not isinstance(value, float) and got != value):
                    failures.append(f"{name}: {path} is {got!r}, expected {value!r}")
        missing = subprocess.run([MDX, "suv", os.path.join(folder, "absent.dcm")], capture_output=True, text=True)
        if missing.returncode != 2 or "no such file" not in missing.stderr:
            failures.append(f"absent file: status {missing.returncode}, {missing.stderr.strip()!r}")
    for line in failures:
        print(line)
    print(f"{len(CASES)} cases, {len(failures)} failures")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
