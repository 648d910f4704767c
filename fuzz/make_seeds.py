#!/usr/bin/env python3
"""Writes the seed corpus of the fuzz targets into fuzz/corpus/<target>/.

Each seed follows the input layout described at the top of its target's
source.  The frame-buffer seeds name the frame buffers by the tags the
target creates at start-up (print them with DRUX_FUZZ_PRINT_TAGS=1); their
blocks are written by fbuf_block, the host exporter's block writer, built in
the normal build:

    ninja -C build/release fbuf_block && python3 fuzz/make_seeds.py [path/to/fbuf_block]
"""
import os
import struct
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
FBUF_BLOCK = sys.argv[1] if len(sys.argv) > 1 else os.path.join(HERE, "..", "build", "release", "fbuf_block")
if not os.access(FBUF_BLOCK, os.X_OK):
    sys.exit("make_seeds: no fbuf_block at %s (build it: ninja -C build/release fbuf_block)" % FBUF_BLOCK)
KELU = 0x4B656C75
NAME_TAGS = {"beauty": 6, "diffuse": 7, "shadow": 8, "matte": 9, "unknown": 10, "empty": 11, "data": 12}


def u16(v):
    return struct.pack("<H", v & 0xFFFF)


def u32(v):
    return struct.pack("<I", v & 0xFFFFFFFF)


def i32(v):
    return struct.pack("<i", v)


def swap32(v):
    return struct.unpack("<I", struct.pack(">I", v))[0]


def write(target, name, data):
    d = os.path.join(HERE, "corpus", target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


# ------------------------------------------------------------------ FBuf
def fbuf_block(records, nonmat, counts, tc_len=35, **header):
    """records: list of (name tag, [9 flag words], [4 host words], tail);
    header: header words written instead of the layout's (fbuf_block --set)."""
    args = [FBUF_BLOCK]
    for name, flags, host, tail in records:
        args += ["--record", "%d:%s:%s:%d" % (name, ",".join(map(str, flags)), ",".join(map(str, host)), tail)]
    for name in nonmat:
        args += ["--nonmat", str(name)]
    args += ["--counts", ",".join(str(counts.get(t, 0)) for t in range(tc_len))]
    for field, value in header.items():
        args += ["--set", "%s=%d" % (field, value)]
    return subprocess.run(args, check=True, stdout=subprocess.PIPE).stdout


def fbuf_seed(flags, block, ops):
    return bytes([flags]) + u16(len(block)) + block + bytes(ops)


def rec(name, flags=(), host=(0, 0, 0, 0), tail=0):
    f = [0] * 9
    for k in flags:
        f[k - 1] = 1
    return (NAME_TAGS[name], f, list(host), tail)


three = [rec("beauty"), rec("diffuse", (5, 6)), rec("shadow", (8,), (1, 2, 3, 4), 5)]
counts3 = {0: 2, 12: 1}
script = (
    [2, 0x00]                                        # sample begin (names resolved)
    + [8, 0, 200, 100, 50, 1, 1, 128, 4, 0]          # light loop at depth 0
    + [3, 1]                                         # sample end, shaded
    + [4, 0, 2, 0x11, 3, 1]                          # init shader on pass 0, another sample
    + [5, 0, 5, 1, 5, 0xFF, 6]                       # non-material lookups, block query
    + [9, 0]                                         # invalid operation
    + [0, 2, 0x22, 10, 2, 0x23, 10]                  # second set-up, suspension on and off
    + [7] + list(u16(20)) + list(u32(99))            # the record count changes under the state
    + [2, 0x00, 3, 1]
    + [11] + list(u16(100)) + [2, 0x00, 1, 2, 0x00]  # truncation, exit, sample after exit
)
good = fbuf_block(three, [NAME_TAGS["matte"]], counts3)
write("fbuf", "three-records", fbuf_seed(0x01, good, script))
write("fbuf", "rasterizer-decoy", fbuf_seed(0x02 | 0x04 | 0x08, good, script))
write("fbuf", "swapped-magic", fbuf_seed(0x10, good, [2, 0, 3, 1]))
write("fbuf", "no-records", fbuf_seed(0x00, fbuf_block([], [], {}), [2, 0, 3, 1, 5, 0]))
write("fbuf", "truncated", fbuf_seed(0x00, good[:-30], [2, 0, 3, 1]))
write("fbuf", "records-past-end", fbuf_seed(0x00, fbuf_block(three, [], counts3, frameBufferInfoFirst=7), [2, 0]))
write("fbuf", "negative-first", fbuf_seed(0x00, fbuf_block(three, [], counts3, typeCountsFirst=-40), [2, 0]))
write("fbuf", "counts-mismatch", fbuf_seed(0x00, fbuf_block(three, [], {0: 2, 12: 2}), [2, 0, 3, 1, 1]))
write("fbuf", "short-type-counts", fbuf_seed(0x03, fbuf_block(three, [], counts3, tc_len=13), [2, 0, 8, 3, 9, 9, 9, 1, 0, 0, 2, 1, 3, 1]))
write("fbuf", "unknown-names",
      fbuf_seed(0x00, fbuf_block([rec("unknown"), rec("empty"), rec("data")], [NAME_TAGS["data"]], {0: 3}),
                [2, 0, 5, 0, 3, 1]))
write("fbuf", "nonmat-count-huge",
      fbuf_seed(0x00, fbuf_block(three, [NAME_TAGS["matte"]], counts3, nonMaterialPassesCount=1000), [2, 0, 5, 0, 5, 200]))


# ------------------------------------------------------------------ user data
def ud_block(size, magic_sel, next_sel, payload=b"", raw_magic=None):
    out = bytes([size, magic_sel])
    if magic_sel % 6 == 5:
        out += u32(raw_magic or 0)
    out += bytes([next_sel])
    rest = max(0, size % 41 - 4)
    return out + (payload + bytes(rest))[:rest]


def ud_seed(blocks, objects, instances, queries):
    out = b"".join(blocks)
    out += bytes(objects) + bytes(instances)
    for q in queries:
        out += bytes(q)
    return out


# blocks 0..7: magic choices 0 FBuf, 1 Kelu, 2 swapped FBuf, 3 swapped Kelu, 4 zero
# link choices: 0..7 blocks, 8..11 objects, 12..15 instances, 20 = tag 0
chain = [ud_block(12, 1, 1), ud_block(8, 2, 2), ud_block(16, 0, 20)] + [ud_block(4, 4, 20)] * 5
write("userdata", "chain", ud_seed(chain, [0, 20, 20, 20], [8, 16, 19, 12],
                                   [[0, 0, 0, 3], [0, 0, 0, 1], [1, 1, 12, 3], [0, 1, 12, 2], [1, 2, 12, 3]]))
loop = [ud_block(8, 4, 1), ud_block(8, 4, 2), ud_block(8, 4, 0)] + [ud_block(0, 1, 20)] * 5
write("userdata", "loop", ud_seed(loop, [0, 1, 20, 20], [8, 9, 12, 20],
                                  [[1, 0, 0, 3], [1, 1, 12, 1], [1, 1, 13, 1], [0, 0, 2, 0]]))
short = [ud_block(3, 1, 1), ud_block(0, 1, 2), ud_block(4, 1, 20)] + [ud_block(40, 0, 20, b"x" * 36)] * 5
write("userdata", "short-blocks", ud_seed(short, [0, 3, 20, 20], [8, 9, 16, 15], [[1, 0, 0, 3], [0, 1, 13, 3]]))
wrong = [ud_block(8, 1, 8), ud_block(8, 0, 17), ud_block(8, 3, 18)] + [ud_block(8, 4, 20)] * 5
write("userdata", "wrong-types", ud_seed(wrong, [0, 1, 2, 20], [8, 12, 16, 17],
                                         [[1, 0, 0, 1], [0, 0, 1, 3], [3, 0, 2, 3], [1, 1, 12, 1], [1, 1, 13, 1]]))


# ------------------------------------------------------------------ ramps
def ramp_seed(flags, block_words, offset_words, entries, is_color, first=0, count=None, connections=(),
              lookups=()):
    """A parameter block of block_words words with the ramp at offset_words."""
    size = 4 * block_words
    blk = bytearray(size)
    at = 4 * offset_words
    n = len(entries) if count is None else count
    header = (i32(first) + i32(n))[:max(0, size - at)]
    blk[at:at + len(header)] = header
    elem = 24 if is_color else 12
    for k, e in enumerate(entries):
        off = at + 8 + elem * (first + k)
        if is_color:
            pos, c, kind = e
            b = struct.pack("<f", pos) + b"".join(struct.pack("<f", x) for x in c) + i32(kind)
        else:
            pos, v, kind = e
            b = struct.pack("<f", pos) + struct.pack("<f", v) + i32(kind)
        if 0 <= off and off + elem <= size:
            blk[off:off + elem] = b
    out = bytes([flags]) + u16(size - 8) + u16(offset_words) + bytes(blk)
    out += bytes([len(connections)])
    for word, src in connections:
        out += u16(word) + bytes([src])
    for x in lookups:
        out += bytes([16]) + struct.pack("<f", x)
    return out


xs = (-1.0, 0.0, 0.25, 0.5, 0.75, 1.0, 2.0)
write("ramp", "scalar-linear", ramp_seed(0, 16, 2, [(1.0, 3.0, 1), (0.0, 1.0, 1)], False, lookups=xs))
write("ramp", "scalar-kinds", ramp_seed(0, 24, 0, [(0, 0, 2), (0.5, 1, 3), (1, 0, 0), (2, 4, 9)], False, lookups=xs))
write("ramp", "colour-spline", ramp_seed(1, 40, 4, [(0, (0, 0, 0, 1), 3), (1, (1, 0.5, 0.25, 0.5), 3)], True,
                                         lookups=xs))
write("ramp", "first-index", ramp_seed(0, 30, 0, [(0, 2, 1), (1, 4, 1)], False, first=3, lookups=xs))
write("ramp", "past-the-block", ramp_seed(0, 10, 2, [(0, 2, 1), (1, 4, 1)], False, first=1, lookups=xs))
write("ramp", "header-at-end", ramp_seed(0, 10, 9, [], False, count=0))
write("ramp", "connected", ramp_seed(2 | 4, 16, 0, [(0, 1, 0), (5, 99, 0)], False,
                                     connections=((4, 1), (5, 0), (6, 3)), lookups=xs))


# ------------------------------------------------------------------ masks
def mask_seed(n, text0, text1, data_sel, ud_size, ud_sel, light_param, occ_param, light, occ, entries, tr,
              to_light, rest=b""):
    out = bytes([n]) + bytes([len(text0)]) + text0 + bytes([len(text1)]) + text1
    out += bytes(data_sel) + bytes([ud_size, ud_sel]) + bytes([light_param, occ_param, light, occ])
    for f, s, l in entries:
        out += bytes([f & 0xFF]) + bytes(s) + bytes(l)
    for f, _, _ in entries:
        out += bytes([f >> 8])
    out += bytes(tr) + bytes([to_light]) + rest
    return out


# choices: 0 text0, 2 text1, 3 data0, 4 data1, 5 user data, 6 light inst, 7 occluder inst, 9 tag 0
ents = [(0x03 | (0x03 << 8), (255, 255, 255, 255), (128, 128, 128, 255)),
        (0x0B | (0x0B << 8), (255, 128, 64, 255), (255, 255, 255, 255)),
        (0x01 | (0x07 << 8), (64, 64, 64, 64), (0, 0, 0, 0)),
        (0x03 | (0x03 << 8), (255, 255, 255, 255), (10, 20, 30, 40))]
write("mask", "light-5-occluder-2F", mask_seed(4, b"5", b"2F", [0, 2], 4, 0, 3, 4, 6, 7, ents, (128, 64, 0, 255), 1,
                                               bytes([10, 20, 30, 255, 3])))
write("mask", "empty-and-userdata", mask_seed(8, b"", b"fa", [0, 2], 8, 2, 5, 3, 6, 7, ents * 2, (0, 0, 0, 0), 0,
                                              bytes([1, 1, 1, 1, 5])))
write("mask", "not-hex", mask_seed(40, b"zZ!~\x7f\x80\xff", b"0123456789", [0, 8], 2, 0, 5, 4, 9, 6, ents * 10,
                                   (255, 255, 255, 255), 1, bytes([255, 0, 0, 255, 6])))


# ------------------------------------------------------------------ irradiance
def kelu_block(size_sel, magic_sel, w5_sel, next_sel, words=None, raw_size=None):
    out = bytes([size_sel]) + (bytes([raw_size]) if size_sel & 7 == 7 else b"")
    out += bytes([magic_sel]) + bytes([w5_sel]) + bytes([next_sel])
    w = words or [16, 0x40000000, 0x3F000000, 1, 2, 100, 0x3E800000, 50, 0x3E000000, 0, 0xBF800000]
    return out + b"".join(u32(x) for x in w)


def irr_seed(blocks, obj, inst, state_inst, render, rays, minc, full, pw, tint, color, tr, diffuse, gain):
    out = b"".join(blocks) + bytes([obj, inst, render, rays, state_inst, minc, full])
    return out + bytes(pw) + bytes(tint) + bytes(color) + bytes(tr) + bytes([diffuse, gain])


# link choices: 0..3 blocks, 4 object, 6 instance, 8 light, 10 tag 0
settings = [kelu_block(5, 0, 1, 10)] + [kelu_block(0, 0, 0, 10)] * 3
common = dict(pw=(255, 255, 255, 255), tint=(128, 128, 128), color=(255, 200, 100), tr=(0, 0, 0))
write("irradiance", "settings-fg-off", irr_seed(settings, 0, 4, 6, 0, 16, 1, 5, diffuse=128, gain=85, **common))
write("irradiance", "settings-fg-scaled", irr_seed(settings, 0, 4, 6, 1, 16, 2, 6, diffuse=128, gain=85, **common))
decoy = [kelu_block(5, 2, 1, 1), kelu_block(3, 0, 1, 2), kelu_block(5, 0, 1, 10)] + [kelu_block(0, 0, 0, 10)]
write("irradiance", "decoy-and-short", irr_seed(decoy, 0, 4, 6, 1, 8, 0, 0, diffuse=255, gain=255, **common))
loop = [kelu_block(4, 3, 1, 1), kelu_block(6, 3, 1, 0)] + [kelu_block(0, 0, 0, 10)] * 2
write("irradiance", "loop", irr_seed(loop, 0, 4, 6, 1, 4, 0, 7, diffuse=255, gain=0, **common))
write("irradiance", "direct-object", irr_seed(settings, 0, 8, 4, 1, 32, 0, 7, diffuse=50, gain=0, **common))
