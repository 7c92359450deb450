#!/usr/bin/python3
"""Resampler quality of `kelvo --op resample` next to sox and libsamplerate.

A test signal of 2 s segments at 44.1 kHz (a 1 kHz sine at 0 and -1 dBFS,
then -1 dBFS sines from 20 Hz to 21 kHz, 10 ms raised-cosine edges) is
converted to 48 kHz by every algorithm and by the peers, as 32-bit float and
as 16-bit files. Each segment is analysed over 1 s from 0.5 s in (1 Hz bins,
every tone a whole number of Hz) under a periodic 4-term Blackman-Harris
window computed here:

  THD+N  power outside the tone's +-10 Hz within 20 Hz-20 kHz, over the tone's
  spur   the largest single bin from 10 Hz to the output's Nyquist outside
         the tone's +-10 Hz, relative to the input tone (dBr)
  gain   the tone's amplitude out over in

The gates of the float path (algorithms 7 and 8, also 48 to 44.1 kHz) and of
the 16-bit path (algorithm 8) decide the exit status; algorithms 0-6 and the
peers are printed for comparison.

  bench/resampler_quality.py [--kelvo build/ui/kelvo] [--detail]
"""
import argparse
import os
import shutil
import subprocess
import sys
import tempfile

import numpy as np
import soundfile as sf

SEG_S = 2.0
FROM_S = 0.5
NOTCH = 10
TONES = [20, 100, 1000, 5000, 10000, 15000, 18000, 19000, 20000, 20500, 21000]
SEGMENTS = [("1k 0 dBFS", 1000, 0.0), ("1k -1 dBFS", 1000, -1.0)] + [(f"{f} Hz", f, -1.0) for f in TONES]
PEERS = [
    ("sox rate", ["sox", "{i}", "{o}", "rate", "{r}"]),
    ("sox rate -v", ["sox", "{i}", "{o}", "rate", "-v", "{r}"]),
    ("sndfile-resample -c 0", ["sndfile-resample", "-to", "{r}", "-c", "0", "{i}", "{o}"]),
]


def signal(rate):
    n = int(SEG_S * rate)
    t = np.arange(n) / rate
    edge = int(0.01 * rate)
    ramp = 0.5 - 0.5 * np.cos(np.pi * np.arange(edge) / edge)
    env = np.ones(n)
    env[:edge], env[-edge:] = ramp, ramp[::-1]
    return np.concatenate([10 ** (db / 20) * np.sin(2 * np.pi * f * t) * env for _, f, db in SEGMENTS])


def blackman_harris(n):
    k = 2 * np.pi * np.arange(n) / n  # periodic: the window of one period of the block
    return 0.35875 - 0.48829 * np.cos(k) + 0.14128 * np.cos(2 * k) - 0.01168 * np.cos(3 * k)


def analyse(y, rate):
    """Per segment: (label, THD+N dB, gain dB, spur dBr)."""
    out = []
    n = rate  # one second: 1 Hz bins
    w = blackman_harris(n)
    freqs = np.fft.rfftfreq(n, 1 / rate)
    for k, (label, f0, db) in enumerate(SEGMENTS):
        start = int((k * SEG_S + FROM_S) * rate)
        block = y[start:start + n]
        if len(block) < n:
            raise SystemExit(f"output too short for segment {label}")
        power = np.abs(np.fft.rfft(block * w)) ** 2
        tone = np.abs(freqs - f0) <= NOTCH
        p_tone = power[tone].sum()
        rest = power[(freqs >= 20) & (freqs <= 20000) & ~tone].sum()
        amp = np.sqrt(4 * p_tone / (n * np.sum(w ** 2)))
        gain = 20 * np.log10(max(amp, 1e-30)) - db
        spur = 10 * np.log10(max(power[(freqs >= 10) & ~tone].max() / max(p_tone, 1e-300), 1e-30)) + gain
        out.append((label, 10 * np.log10(max(rest / max(p_tone, 1e-300), 1e-30)), gain, spur))
    return out


def summary(res):
    tones = [r for r in res if r[0].endswith(" Hz")]
    return {
        "thdn": max(res[0][1], res[1][1]),  # the worse of the two 1 kHz levels
        "spur": max(r[3] for r in tones),
        "flat": (min(r[2] for r in tones if int(r[0].split()[0]) <= 20000),
                 max(r[2] for r in tones if int(r[0].split()[0]) <= 20000)),
        "g21k": next(r[2] for r in tones if r[0] == "21000 Hz"),
    }


def run(cmd):
    r = subprocess.run(cmd, capture_output=True, text=True)
    if r.returncode != 0:
        raise SystemExit(f"{' '.join(cmd)} failed:\n{r.stdout}{r.stderr}")


def convert(work, name, template, src, rate, subtype):
    out = os.path.join(work, f"{name.replace(' ', '_')}_{subtype}_{rate}.wav")
    run([a.format(i=src, o=out, r=rate) for a in template])
    y, got = sf.read(out, always_2d=True)
    if got != rate:
        raise SystemExit(f"{name}: output at {got} Hz, not {rate}")
    return y[:, 0]


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--kelvo", default=os.path.join(here, "..", "build", "ui", "kelvo"))
    ap.add_argument("--detail", action="store_true", help="print every segment")
    a = ap.parse_args()
    for tool in ("sox", "sndfile-resample"):
        if not shutil.which(tool):
            raise SystemExit(f"{tool} is needed (packages sox, samplerate-programs)")
    work = tempfile.mkdtemp(prefix="kv-rsq-")
    os.environ["XDG_CONFIG_HOME"] = os.path.join(work, "config")
    try:
        inputs = {}
        for rate in (44100, 48000):
            x = signal(rate)
            inputs[("FLOAT", rate)] = os.path.join(work, f"in_f_{rate}.wav")
            sf.write(inputs[("FLOAT", rate)], x.astype(np.float32), rate, subtype="FLOAT")
            inputs[("PCM_16", rate)] = os.path.join(work, f"in_s16_{rate}.wav")
            sf.write(inputs[("PCM_16", rate)], np.round(x * 32767).astype(np.int16), rate, subtype="PCM_16")

        def ours(algorithm):
            return [a.kelvo, "-NOMSG", "{i}", "--op", "resample", "rate={r}", f"algorithm={algorithm}", "--save", "{o}"]

        rows = {}
        for subtype in ("FLOAT", "PCM_16"):
            tools = [(f"kelvo {alg}", ours(alg)) for alg in range(9)] + PEERS
            for name, template in tools:
                y = convert(work, name, template, inputs[(subtype, 44100)], 48000, subtype)
                res = analyse(y, 48000)
                rows[(name, subtype)] = summary(res)
                if a.detail:
                    for label, thdn, gain, spur in res:
                        print(f"  {name:24s} {subtype:6s} {label:12s} THD+N {thdn:8.1f}  gain {gain:+9.4f}  spur {spur:8.1f}")
        down = summary(analyse(convert(work, "kelvo 7 down", ours(7), inputs[("FLOAT", 48000)], 44100, "FLOAT"), 44100))
    finally:
        shutil.rmtree(work, ignore_errors=True)

    print("44.1 to 48 kHz; THD+N at 1 kHz (worse of 0 and -1 dBFS), worst spur over the tones, passband 20 Hz-20 kHz")
    print(f"{'tool':24s} {'path':6s} {'THD+N dB':>9s} {'spur dBr':>9s} {'passband dB':>19s} {'21 kHz dB':>10s}")
    for (name, subtype), s in rows.items():
        print(f"{name:24s} {subtype:6s} {s['thdn']:9.1f} {s['spur']:9.1f} "
              f"{s['flat'][0]:+9.4f}..{s['flat'][1]:+.4f} {s['g21k']:+10.3f}")
    print(f"{'kelvo 7, 48 to 44.1 kHz':24s} {'FLOAT':6s} {down['thdn']:9.1f} {down['spur']:9.1f} "
          f"{down['flat'][0]:+9.4f}..{down['flat'][1]:+.4f} {down['g21k']:+10.3f}")

    f7, f8, s8 = rows[("kelvo 7", "FLOAT")], rows[("kelvo 8", "FLOAT")], rows[("kelvo 8", "PCM_16")]
    gates = [
        ("alg 7 THD+N at 1 kHz <= -130 dB", f7["thdn"] <= -130),
        ("alg 7 worst spur <= -110 dBr", f7["spur"] <= -110),
        ("alg 7 passband 20 Hz-20 kHz within +-0.001 dB", max(abs(v) for v in f7["flat"]) <= 0.001),
        ("alg 7 gain at 21 kHz >= -0.01 dB", f7["g21k"] >= -0.01),
        ("alg 8 float THD+N <= -130 dB", f8["thdn"] <= -130),
        ("alg 8 float spur <= -100 dBr", f8["spur"] <= -100),
        ("alg 8 16-bit THD+N <= -90 dB", s8["thdn"] <= -90),
        ("alg 7 48 to 44.1 kHz THD+N <= -145 dB", down["thdn"] <= -145),
        ("alg 7 48 to 44.1 kHz spur <= -140 dBr", down["spur"] <= -140),
    ]
    failed = 0
    for text, ok in gates:
        print(f"{'pass' if ok else 'FAIL'}  {text}")
        failed += not ok
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
