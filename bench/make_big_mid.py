#!/usr/bin/env python3
"""Writes a large format 1 Standard MIDI file for the listing benchmark:
16 tracks that use running status and every kind of event a Standard MIDI
file holds (notes, key and channel pressure, controllers, programs, pitch
bend, SysEx, text and tempo metas). System common messages are left out:
files don't carry them, and midicsv crashes on them. Usage: make_big_mid.py OUT [MEGABYTES]"""
import random
import struct
import sys


def varlen(v):
    out = [v & 0x7F]
    v >>= 7
    while v:
        out.append(0x80 | (v & 0x7F))
        v >>= 7
    return bytes(reversed(out))


def track(seed, size):
    rnd = random.Random(seed)
    ch = seed % 16
    body = bytearray(b"\x00\xff\x03" + varlen(8) + b"Track %02d" % seed)
    while len(body) < size:
        kind = rnd.randrange(19)
        delta = varlen(rnd.choice((0, 0, 1, 12, 96, 480, 20000)))
        if kind < 12:  # a run of notes under one status byte
            body += delta + bytes((0x90 | ch, rnd.randrange(128), rnd.randrange(1, 128)))
            for _ in range(rnd.randrange(1, 30)):
                body += varlen(rnd.randrange(200)) + bytes((rnd.randrange(128), rnd.randrange(128)))
        elif kind == 12:
            body += delta + bytes((0xB0 | ch, rnd.randrange(128), rnd.randrange(128)))
            body += b"\x00" + bytes((rnd.randrange(128), rnd.randrange(128)))
        elif kind == 13:
            body += delta + bytes((0xE0 | ch, rnd.randrange(128), rnd.randrange(128)))
        elif kind == 14:
            body += delta + bytes((0xC0 | ch, rnd.randrange(128), 0x00, 0xD0 | ch, rnd.randrange(128)))
        elif kind == 15:
            body += delta + bytes((0xA0 | ch, rnd.randrange(128), rnd.randrange(128)))
        elif kind == 16:
            msg = bytes((0x41, 0x10, 0x42, 0x12, 0x40, 0x00, 0x7F, 0x00, 0x41, 0xF7))
            body += delta + b"\xf0" + varlen(len(msg)) + msg
        elif kind == 17:
            body += delta + b"\xff\x51\x03" + struct.pack(">I", rnd.randrange(200000, 900000))[1:]
        else:
            text = b"lyric %d" % rnd.randrange(1000)
            body += delta + b"\xff\x05" + varlen(len(text)) + text
    body += b"\x00\xff\x2f\x00"
    return b"MTrk" + struct.pack(">I", len(body)) + bytes(body)


def main():
    out = sys.argv[1]
    megabytes = float(sys.argv[2]) if len(sys.argv) > 2 else 50
    per_track = int(megabytes * 1024 * 1024 / 16)
    with open(out, "wb") as f:
        f.write(b"MThd" + struct.pack(">IHHH", 6, 1, 16, 480))
        for n in range(16):
            f.write(track(n + 1, per_track))


main()
