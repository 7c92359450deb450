#!/usr/bin/env python3
"""Renders converted modules with FluidSynth and compares them with openmpt123.

    compare_module_render.py WORK_DIR SECONDS MOD MID SF2 [MOD MID SF2 ...]

For each module the first SECONDS of our song (MID played by FluidSynth on
SF2) are held against openmpt123's render of MOD, both at 48 kHz and both from
the song's first row. The modules render side by side. Prints one line per
module, in the order given:

  NAME f_measure=F envelope=E lag_ms=L

  f_measure  onsets by aubioonset (default method) matched one to one within
             30 ms: 2PR / (P + R)
  envelope   correlation of the 20 ms RMS envelopes (1 ms hop) at the best
             lag within +-200 ms
  lag_ms     that best lag (positive: ours late)
"""
import os
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

import mido
import numpy as np
import soundfile as sf


def cut_song(source, target, seconds):
    song = mido.MidiFile(source)
    tempo_at = []  # (tick, microseconds per quarter) of the control track
    tick = 0
    for msg in song.tracks[0]:
        tick += msg.time
        if msg.type == "set_tempo":
            tempo_at.append((tick, msg.tempo))
    # The tick at which SECONDS have passed.
    elapsed, last, tempo, cut = 0.0, 0, 500000, None
    for t, us in tempo_at + [(1 << 40, None)]:
        span = (t - last) * tempo / 1e6 / song.ticks_per_beat
        if elapsed + span >= seconds:
            cut = last + int((seconds - elapsed) * 1e6 * song.ticks_per_beat / tempo)
            break
        elapsed, last, tempo = elapsed + span, t, us
    for track in song.tracks:
        kept, tick, at, channels = mido.MidiTrack(), 0, 0, set()
        for msg in track:
            tick += msg.time
            if tick >= cut or msg.type == "end_of_track":
                break
            kept.append(msg.copy(time=tick - at))
            at = tick
            if hasattr(msg, "channel"):
                channels.add(msg.channel)
        # Looped samples would sound for ever: FluidSynth renders until
        # every voice has ended.
        for channel in sorted(channels):
            kept.append(mido.Message("control_change", channel=channel, control=123, time=max(0, cut - at)))
            at = max(at, cut)
        kept.append(mido.MetaMessage("end_of_track", time=max(0, cut - at)))
        track[:] = kept
    song.save(target)


def onsets(path):
    out = subprocess.run(["aubioonset", "-i", path], capture_output=True, text=True, check=True).stdout
    return np.array([float(x) for x in out.split()])


def f_measure(a, b, tolerance=0.030):
    used = np.zeros(len(b), dtype=bool)
    hits = 0
    for t in a:
        near = np.where(~used & (np.abs(b - t) <= tolerance))[0]
        if len(near):
            used[near[np.argmin(np.abs(b[near] - t))]] = True
            hits += 1
    if not hits:
        return 0.0
    precision, recall = hits / len(a), hits / len(b)
    return 2 * precision * recall / (precision + recall)


def envelope(path, seconds):
    data, rate = sf.read(path, dtype="float64", always_2d=True)
    x = data[: int(seconds * rate)].mean(axis=1)
    hop, width = rate // 1000, rate // 50
    power = np.concatenate([[0.0], np.cumsum(x * x)])
    starts = np.arange(0, len(x) - width, hop)
    return np.sqrt((power[starts + width] - power[starts]) / width)


def compare(work, seconds, mod, mid, bank):
    name = os.path.basename(mod)
    cut = os.path.join(work, name + ".cut.mid")
    ours = os.path.join(work, name + ".ours.wav")
    theirs = os.path.join(work, name + ".openmpt.wav")
    cut_song(mid, cut, seconds)
    subprocess.run(["fluidsynth", "-ni", "-q", "-R", "0", "-C", "0", "-F", ours, "-r", "48000", bank, cut],
                   capture_output=True, check=True)
    subprocess.run(["openmpt123", "--batch", "-q", "--force", "--samplerate", "48000", "--end-time",
                    str(seconds), "-o", theirs, mod], capture_output=True, check=True)
    a, b = envelope(ours, seconds), envelope(theirs, seconds)
    n = min(len(a), len(b))
    best, best_lag = -2.0, 0
    for lag in range(-200, 201):
        x = a[max(0, lag): n + min(0, lag)]
        y = b[max(0, -lag): n - max(0, lag)]
        m = min(len(x), len(y))
        c = np.corrcoef(x[:m], y[:m])[0, 1]
        if c > best:
            best, best_lag = c, lag
    end = n / 1000.0
    oa, ob = onsets(ours), onsets(theirs)
    f = f_measure(oa[oa < end], ob[ob < end])
    return "%s f_measure=%.3f envelope=%.3f lag_ms=%d" % (name, f, best, best_lag)


def main():
    work, seconds = sys.argv[1], float(sys.argv[2])
    jobs = [sys.argv[i:i + 3] for i in range(3, len(sys.argv) - 2, 3)]
    with ThreadPoolExecutor(max_workers=len(jobs)) as pool:
        for line in pool.map(lambda j: compare(work, seconds, *j), jobs):
            print(line)


if __name__ == "__main__":
    main()
