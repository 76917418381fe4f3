#!/usr/bin/env python3
"""Python's zipfile as an independent judge of ZIP archives, for the tests.

  zip_oracle.py inspect ARCHIVE
      prints JSON: whether zipfile opens the archive, testzip()'s verdict, the
      MD5 and size of the file, and per member (in central directory order)
      name, size, CRC, date_time, flag bits, header offset, the offset of the
      data (from the local header) and the MD5 of the contents zipfile reads.
  zip_oracle.py make KIND ARCHIVE FILE...
      writes an archive of the files with zipfile alone, and prints
      {"made": ARCHIVE}:
        plain       stored members, the usual way
        deflated    deflated members
        streamed    stored members written to a stream that cannot seek, so
                    that every local header carries flag bit 3
        fake-table  a first stored member named ".0" holding "KZ00" and a
                    count, as a container would but for the magic
        extra-table a first member named ".0" with "KZ01" and an extra field
"""
import hashlib
import io
import json
import struct
import sys
import zipfile


def inspect(path):
    with open(path, "rb") as f:
        raw = f.read()
    result = {"md5": hashlib.md5(raw).hexdigest(), "size": len(raw)}
    try:
        with zipfile.ZipFile(path) as archive:
            result["testzip"] = archive.testzip()
            members = []
            for info in archive.infolist():
                header = raw[info.header_offset:info.header_offset + 30]
                name_length, extra_length = struct.unpack("<HH", header[26:30])
                members.append({
                    "name": info.filename,
                    "size": info.file_size,
                    "compressSize": info.compress_size,
                    "compressType": info.compress_type,
                    "crc": info.CRC,
                    "dateTime": list(info.date_time),
                    "flags": info.flag_bits,
                    "headerOffset": info.header_offset,
                    "dataOffset": info.header_offset + 30 + name_length + extra_length,
                    "md5": hashlib.md5(archive.read(info)).hexdigest(),
                })
            result["members"] = members
            result["ok"] = True
    except (zipfile.BadZipFile, OSError, ValueError) as error:
        result["ok"] = False
        result["error"] = str(error)
    print(json.dumps(result))


class Unseekable(io.RawIOBase):
    def __init__(self, target):
        self.target = target

    def writable(self):
        return True

    def write(self, data):
        return self.target.write(data)


def make(kind, path, files):
    compression = zipfile.ZIP_DEFLATED if kind == "deflated" else zipfile.ZIP_STORED
    with open(path, "wb") as out:
        target = Unseekable(out) if kind == "streamed" else out
        with zipfile.ZipFile(target, "w", compression) as archive:
            if kind in ("fake-table", "extra-table"):
                info = zipfile.ZipInfo(".0", (2024, 1, 2, 3, 4, 6))
                magic = b"KZ00" if kind == "fake-table" else b"KZ01"
                if kind == "extra-table":
                    info.extra = struct.pack("<HH", 0xCAFE, 0)
                archive.writestr(info, magic + struct.pack("<I", 0))
            for name in files:
                archive.write(name, arcname=name.rsplit("/", 1)[-1])
    print(json.dumps({"made": path}))


def main(argv):
    if len(argv) >= 3 and argv[1] == "inspect":
        inspect(argv[2])
    elif len(argv) >= 4 and argv[1] == "make":
        make(argv[2], argv[3], argv[4:])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
