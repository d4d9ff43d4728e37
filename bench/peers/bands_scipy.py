#!/usr/bin/env python3
"""The third-octave band levels of a signal as a plain scipy filter bank, the peer of
bench/bands.cpp, which writes the signal and runs this script.

Every band from 31.5 Hz up to the top of the bank at the signal's rate (12.5 kHz at 44100 and
48000, 20 kHz above) is filtered at the full rate with scipy's sosfilt through the same design as
the library's tables: a Butterworth band-pass of third order at the exact centre 1000 * 2^(k/3) Hz
with edges at the centre times 2^(-1/6) and 2^(1/6), as second-order sections; each band's level is
the RMS value of its output.

Arguments: a file of float32 samples and the sample rate. Prints the best of a few runs (at least a
second of them), in seconds of processor time (as the benchmark measures), as "bank_seconds X".
"""

import sys
import time

import numpy as np
from scipy import signal


def bank(rate):
    top = 11 if rate < 88200 else 13
    sections = []
    for k in range(-15, top + 1):
        centre = 1000 * 2 ** (k / 3)
        sections.append(signal.butter(3, [centre * 2 ** (-1 / 6), centre * 2 ** (1 / 6)], "bandpass",
                                      fs=rate, output="sos"))
    return sections


def levels(samples, sections):
    return [np.sqrt(np.mean(np.square(signal.sosfilt(sos, samples)))) for sos in sections]


def best_of(function, repeats, seconds=1.0):
    """The fastest of at least `repeats` runs, and of as many more as fit in `seconds`."""
    best = float("inf")
    runs = 0
    began = time.process_time()
    while runs < repeats or time.process_time() - began < seconds:
        start = time.process_time()
        function()
        best = min(best, time.process_time() - start)
        runs += 1
    return best


def main():
    path, rate = sys.argv[1], int(sys.argv[2])
    samples = np.fromfile(path, dtype=np.float32)
    sections = bank(rate)
    print("bank_seconds", best_of(lambda: levels(samples, sections), 3))


if __name__ == "__main__":
    main()
