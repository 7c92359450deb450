#!/usr/bin/env python3
"""Compares two renders of one song: ours and a peer's.

    compare_render.py OURS.wav THEIRS.wav LEAD_IN_SECONDS

THEIRS starts LEAD_IN_SECONDS earlier than OURS (our renders begin with the
first note). Prints one line of name=value figures:

  offset      median difference of 1 s loudness, dB (ours - theirs)
  loud_share  share of 1 s windows above -50 dB (of the loudest) within 3 dB
              of that offset
  band_low    largest deviation of a 1/3-octave band of the long-term
              spectrum after the offset, 63 Hz - 2 kHz, dB
  band_high   the same, 2.5 - 10 kHz
  lag_first   best lag of the onset envelopes over the first 20 s, ms
  lag_last    the same over the last 20 s, ms
"""
import sys

import numpy as np
import soundfile as sf


def mono(path):
    data, rate = sf.read(path, dtype="float64", always_2d=True)
    return data.mean(axis=1), rate


def window_db(x, n):
    count = len(x) // n
    if count == 0:
        return np.array([])
    power = (x[: count * n].reshape(count, n) ** 2).mean(axis=1)
    return 10 * np.log10(power + 1e-20)


def third_octave_bands(x, rate):
    # Long-term spectrum by Welch averaging, 8192-point Hann segments.
    n = 8192
    if len(x) < n:
        x = np.pad(x, (0, n - len(x)))
    hop = n // 2
    w = np.hanning(n)
    acc = np.zeros(n // 2 + 1)
    segments = 0
    for at in range(0, len(x) - n + 1, hop):
        acc += np.abs(np.fft.rfft(x[at : at + n] * w)) ** 2
        segments += 1
    acc /= max(segments, 1)
    freqs = np.fft.rfftfreq(n, 1.0 / rate)
    centres = 1000.0 * 2.0 ** (np.arange(-12, 11) / 3.0)  # 63 Hz .. 10 kHz
    bands = []
    for fc in centres:
        lo, hi = fc * 2 ** (-1 / 6), fc * 2 ** (1 / 6)
        sel = (freqs >= lo) & (freqs < hi)
        bands.append(10 * np.log10(acc[sel].sum() + 1e-30))
    return np.array(bands)


def onset_envelope(x, rate):
    # Positive change of the 5 ms log energy: where notes begin.
    hop = int(rate * 0.001)
    n = len(x) // hop
    e = 10 * np.log10((x[: n * hop].reshape(n, hop) ** 2).mean(axis=1) + 1e-12)
    e = np.convolve(e, np.ones(5) / 5, mode="same")
    d = np.diff(e, prepend=e[0])
    return np.maximum(d, 0), hop


def best_lag_ms(a, b, rate, hop, max_ms=50):
    m = min(len(a), len(b))
    a, b = a[:m] - a[:m].mean(), b[:m] - b[:m].mean()
    max_lag = int(max_ms * 0.001 * rate / hop)
    best, best_value = 0, -np.inf
    for lag in range(-max_lag, max_lag + 1):
        if lag >= 0:
            v = np.dot(a[lag:], b[: m - lag])
        else:
            v = np.dot(a[: m + lag], b[-lag:])
        if v > best_value:
            best, best_value = lag, v
    return best * hop * 1000.0 / rate


def main():
    ours, rate = mono(sys.argv[1])
    theirs, rate2 = mono(sys.argv[2])
    if rate != rate2:
        sys.exit("rates differ: %d and %d" % (rate, rate2))
    theirs = theirs[int(round(float(sys.argv[3]) * rate)) :]
    m = min(len(ours), len(theirs))
    ours, theirs = ours[:m], theirs[:m]

    a, b = window_db(ours, rate), window_db(theirs, rate)
    keep = b > b.max() - 50
    diffs = (a - b)[keep]
    offset = float(np.median(diffs))
    share = float(np.mean(np.abs(diffs - offset) <= 3.0))

    bands = third_octave_bands(ours, rate) - third_octave_bands(theirs, rate)
    deviation = np.abs(bands - offset)
    band_low, band_high = float(np.max(deviation[:16])), float(np.max(deviation[16:]))

    ea, hop = onset_envelope(ours, rate)
    eb, _ = onset_envelope(theirs, rate)
    span = int(20 * rate / hop)
    lag_first = best_lag_ms(ea[:span], eb[:span], rate, hop)
    lag_last = best_lag_ms(ea[-span:], eb[-span:], rate, hop)
    print(
        "offset=%.3f loud_share=%.3f band_low=%.3f band_high=%.3f lag_first=%.1f lag_last=%.1f seconds=%.1f"
        % (offset, share, band_low, band_high, lag_first, lag_last, m / rate)
    )


if __name__ == "__main__":
    main()
