#!/usr/bin/env python3
"""The slices of a waterfall computed in numpy as its users would write them (all slices at once:
a strided view of the response, the taper, one batched real FFT, magnitudes in dB, normalised to
the loudest bin), as the peer of bench/waterfall.cpp, which writes the data and runs this script.

Arguments: a file of float32 samples (the response from time zero), then for each waterfall a file
of float32 taper coefficients (one per FFT point), the FFT length, the slice count and the spacing of
the slices in samples. Prints, for each, the best of a few runs (at least a second of them) in seconds,
the mean level of the result, and the best time of numpy's batched FFT alone (of the slices already
tapered) as "waterfall N COUNT seconds X mean Y fft Z".
"""

import sys
import time

import numpy as np

FLOOR = np.float32(1.17549435e-38)


def waterfall(response, taper, length, count, spacing):
    slices = np.lib.stride_tricks.sliding_window_view(response, length)[np.arange(count) * spacing]
    spectra = np.fft.rfft(slices * taper, axis=1)
    levels = (20.0 * np.log10(np.abs(spectra) + FLOOR)).astype(np.float32)
    levels -= levels.max()
    return levels


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
    response = np.fromfile(sys.argv[1], dtype=np.float32)
    arguments = sys.argv[2:]
    for at in range(0, len(arguments), 4):
        window = np.fromfile(arguments[at], dtype=np.float32)
        length, count, spacing = (int(value) for value in arguments[at + 1 : at + 4])
        seconds = best_of(lambda: waterfall(response, window, length, count, spacing))
        mean = float(np.mean(waterfall(response, window, length, count, spacing)))
        tapered = np.lib.stride_tricks.sliding_window_view(response, length)[np.arange(count) * spacing] * window
        fft = best_of(lambda: np.fft.rfft(tapered, axis=1))
        print(f"waterfall {length} {count} seconds {seconds:.6f} mean {mean:.4f} fft {fft:.6f}", flush=True)


if __name__ == "__main__":
    main()
