"""The deterministic byte stream every test peer serves (python3 standard library only).

Byte i of the stream (i = 0, 1, 2, ...) is defined as

    n    = i >> 3                        # index of the 64-bit word holding byte i
    w    = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13))
    byte = (w >> (8 * (i & 7))) & 0xFF   # words are stored little-endian

with the usual 64-bit finaliser (all arithmetic modulo 2**64):

    mix(x): x += 0x9E3779B97F4A7C15
            x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9
            x = (x ^ (x >> 27)) * 0x94D049BB133111EB
            return x ^ (x >> 31)

In C++:

    uint64_t mix(uint64_t x) {
      x += 0x9E3779B97F4A7C15ull;
      x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
      x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
      return x ^ (x >> 31);
    }
    uint8_t peerByte(uint64_t i) {
      const uint64_t n = i >> 3;
      const uint64_t w = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13));
      return static_cast<uint8_t>(w >> (8 * (i & 7)));
    }

Why this shape: a file of N bytes is the first N bytes of the stream, so a body, a range or a file
on disk can be checked byte for byte from its offset alone. A plain multiplicative formula repeats
every power of two, which would hide exactly the bugs we hunt (a read-ahead block fetched from the
wrong 1 MiB boundary). Here every 64 KiB segment is one fixed 64 KiB pattern XORed with a word that
differs for every segment (mix is a bijection), so no two segments and no two offsets inside a
segment look alike. It also makes the generator fast in pure Python: one big-integer XOR per 64 KiB,
about 1 GiB per second.
"""

import os
import re

SEGMENT = 1 << 16  # bytes per segment: 8192 words
_MASK = (1 << 64) - 1


def mix(x):
    x = (x + 0x9E3779B97F4A7C15) & _MASK
    x = ((x ^ (x >> 30)) * 0xBF58476D1CE4E5B9) & _MASK
    x = ((x ^ (x >> 27)) * 0x94D049BB133111EB) & _MASK
    return x ^ (x >> 31)


# The segment pattern as one integer, and 1 + 2**64 + 2**128 + ... so that a word times it
# repeats the word over a whole segment without building the bytes first.
_BASE = int.from_bytes(b"".join(mix(j).to_bytes(8, "little") for j in range(SEGMENT // 8)),
                       "little")
_REPEAT = int.from_bytes((1).to_bytes(8, "little") * (SEGMENT // 8), "little")


def segment(k):
    """The 64 KiB of the stream starting at byte k * SEGMENT."""
    return (_BASE ^ (mix(0x2000 + k) * _REPEAT)).to_bytes(SEGMENT, "little")


def byte_at(i):
    n = i >> 3
    w = mix(n & 0x1FFF) ^ mix(0x2000 + (n >> 13))
    return (w >> (8 * (i & 7))) & 0xFF


def chunks(start, end, piece=SEGMENT):
    """Yield the stream bytes [start, end) in pieces of at most `piece` bytes."""
    pos = start
    while pos < end:
        k = pos // SEGMENT
        seg = segment(k)
        lo = pos - k * SEGMENT
        hi = min(SEGMENT, end - k * SEGMENT)
        view = memoryview(seg)[lo:hi]
        for off in range(0, len(view), piece):
            yield bytes(view[off:off + piece])
        pos = k * SEGMENT + hi


def data(start, end):
    """The stream bytes [start, end) as one bytes object (keep it small)."""
    return b"".join(chunks(start, end))


def write_file(path, size):
    """Write the first `size` bytes of the stream to `path` (atomically: via a temporary name)."""
    tmp = "%s.part%d" % (path, os.getpid())
    with open(tmp, "wb") as f:
        for k in range((size + SEGMENT - 1) // SEGMENT):
            seg = segment(k)
            left = size - k * SEGMENT
            f.write(seg if left >= SEGMENT else seg[:left])
    os.replace(tmp, path)


def parse_size(text):
    """'1000', '4k', '5M', '64MiB', '1G' -> bytes (multiples of 1024)."""
    m = re.fullmatch(r"\s*(\d+)\s*([kmgt]?)(i?b)?\s*", text.lower())
    if not m:
        raise ValueError("not a size: %r" % text)
    return int(m.group(1)) << (10 * " kmgt".index(m.group(2) or " "))


if __name__ == "__main__":
    import sys
    # Self-check of the fast path against the per-byte definition, and a speed figure.
    import time
    for i in list(range(0, 70000, 997)) + [SEGMENT * 5 + 3, (1 << 30) + 12345, (1 << 33) + 7]:
        k = i // SEGMENT
        assert segment(k)[i - k * SEGMENT] == byte_at(i), i
    assert data(65530, 65545) == bytes(byte_at(i) for i in range(65530, 65545))
    t = time.time()
    n = sum(len(c) for c in chunks(0, 64 << 20))
    print("ok: %d bytes generated in %.3f s" % (n, time.time() - t))
    sys.exit(0)
