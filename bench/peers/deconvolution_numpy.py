#!/usr/bin/env python3
"""The swept-sine deconvolution written plainly in numpy, float32 in and out, as the peer of
bench/deconvolution.cpp, which writes the data and runs this script.

Arguments: a file of float32 samples (the stimulus, then every sweep's channels in order),
the stimulus length (every recording has the same length), the channel count and the sweep count.
Prints the best of a few runs (at least a second of them), in seconds of processor time (as the
benchmark measures), as "one_channel_seconds X" (deconvolving the first channel of the first sweep)
and "measurement_seconds X" (averaging and deconvolving every channel).
"""

import sys
import time

import numpy as np


def transform_length(response_length, stimulus_length):
    return 1 << (response_length + stimulus_length - 2).bit_length()


def deconvolve(response, stimulus_spectrum, length):
    spectrum = np.fft.rfft(response, length)
    return np.fft.irfft(spectrum / stimulus_spectrum, length).astype(np.float32)


def one_channel(response, stimulus):
    length = transform_length(len(response), len(stimulus))
    return deconvolve(response, np.fft.rfft(stimulus, length), length)


def measurement(recordings, stimulus):
    """recordings[sweep][channel]; the stimulus spectrum is made once."""
    length = transform_length(len(recordings[0][0]), len(stimulus))
    stimulus_spectrum = np.fft.rfft(stimulus, length)
    results = []
    for channel in range(len(recordings[0])):
        total = None
        for sweep in recordings:
            impulse = deconvolve(sweep[channel], stimulus_spectrum, length)
            peak = int(np.argmax(np.abs(impulse)))
            if total is None:
                total, first_peak = impulse, peak
            else:
                total += np.roll(impulse, first_peak - peak)
        results.append(total * np.float32(1.0 / len(recordings)))
    return results


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
    path, stimulus_length, channels, sweeps = sys.argv[1], *map(int, sys.argv[2:5])
    samples = np.fromfile(path, dtype=np.float32)
    stimulus = samples[:stimulus_length]
    recordings = [[samples[stimulus_length * (1 + sweep * channels + channel):
                           stimulus_length * (2 + sweep * channels + channel)]
                   for channel in range(channels)] for sweep in range(sweeps)]
    print("one_channel_seconds", best_of(lambda: one_channel(recordings[0][0], stimulus), 5))
    print("measurement_seconds", best_of(lambda: measurement(recordings, stimulus), 3))


if __name__ == "__main__":
    main()
