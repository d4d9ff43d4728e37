#!/usr/bin/env python3
"""Fractional-octave smoothing and reduction to the logarithmic grid written plainly in numpy, with
the same arithmetic (float32 window limits truncated, running sums accumulated in float64 and stored
as float32, means divided in float64), as the peer of bench/smoothing.cpp, which writes the data and
runs this script.

Arguments: a file of float32 bins (0 Hz to the Nyquist frequency), the sample rate, and the
denominators N of the fractions 1/N to time. Prints, for each, the best of a few runs (at least a
second of them) in seconds as "smoothing N seconds X".
"""

import sys
import time

import numpy as np


def smooth(x, fraction):
    n = len(x)
    sums = np.cumsum(x, dtype=np.float64).astype(np.float32)
    positions = np.arange(n, dtype=np.float32)
    last = n - 1
    low = np.clip((positions * np.float32(2.0 ** -fraction)).astype(np.int64), 1, last)
    high = np.clip((positions * np.float32(2.0 ** fraction)).astype(np.int64), 1, last)
    difference = sums[high] - sums[low - 1]
    return (difference.astype(np.float64) / (high - low + 1)).astype(np.float32)


def grid(fraction, rate):
    f = np.float32(fraction)
    up = 1
    while np.float32(1000) * np.exp2(np.float32(up) * f) < np.float32(rate) * np.float32(0.5):
        up += 1
    down = 1
    while np.float32(1000) * np.exp2(np.float32(-down) * f) > np.float32(10):
        down += 1
    k = np.arange(-(down - 1), up + 1, dtype=np.float32)
    return np.float32(1000) * np.exp2(k * f)


def reduce(smoothed, fraction, rate):
    table = grid(fraction, rate)
    bins_per_hz = np.float32(len(smoothed)) / (np.float32(rate) * np.float32(0.5))
    index = np.minimum(np.rint(table * bins_per_hz).astype(np.int64), len(smoothed) - 1)
    return smoothed[index]


def best_of(function, repeats=3, seconds=1.0):
    best = float("inf")
    runs = 0
    began = time.perf_counter()
    while runs < repeats or time.perf_counter() - began < seconds:
        start = time.perf_counter()
        function()
        best = min(best, time.perf_counter() - start)
        runs += 1
    return best


def main():
    x = np.fromfile(sys.argv[1], dtype=np.float32)
    rate = int(sys.argv[2])
    for denominator in sys.argv[3:]:
        fraction = np.float32(1.0 / int(denominator))
        seconds = best_of(lambda: reduce(smooth(x, fraction), fraction, rate))
        print(f"smoothing {denominator} seconds {seconds:.9f}")


if __name__ == "__main__":
    main()
