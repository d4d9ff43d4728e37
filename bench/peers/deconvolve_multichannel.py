#!/usr/bin/python3
"""A multichannel deconvolution as whole processes: `tavolar deconvolve` of one 8-channel recording
of a 10 s sweep at 48 kHz against DRC's lsconv run once per channel on the same data (lsconv takes
one channel of raw 32-bit float samples at a time, convolved with the inverse sweep that DRC's
glsweep writes beside the sweep).

Each channel of the recording is the sweep through a system of its own (a delay and a gain) with a
little noise. glsweep's sweep is band-limited, so ours divides with regularisation (--lambda),
as lsconv's inverse sweep is limited to the swept band too. Both sides start from files on disk and
write every impulse response to disk; each is timed by wall clock as the best of a few runs, the two
sides taking turns, and the ratio of ours to lsconv's total printed, with the processor time of each
side and the load average, since on a shared machine the wall clock follows the load.

Argument: the tavolar program (default: tavolar on the PATH). Needs glsweep and lsconv (Debian's
drc package) and sox.
"""

import os
import resource
import shutil
import subprocess
import sys
import tempfile
import time

import numpy as np

RATE = 48000
CHANNELS = 8
SECONDS = 10
RUNS = 3


def run(arguments, folder):
    subprocess.run(arguments, cwd=folder, check=True, stdout=subprocess.DEVNULL)


def cpu_seconds():
    """User and system time of the finished child processes so far."""
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    return used.ru_utime + used.ru_stime


def timed(commands, folder):
    """Seconds of wall clock and processor seconds of one run of the commands one after the other
    (processor time depends far less on what else the machine runs)."""
    began, began_cpu = time.perf_counter(), cpu_seconds()
    for command in commands:
        run(command, folder)
    return time.perf_counter() - began, cpu_seconds() - began_cpu


def best_times(sides, folder):
    """The fastest of RUNS runs of each side's commands, as (wall, processor) seconds. The sides take
    turns, so that a change in the machine's load weighs on both alike."""
    best = [(float("inf"), float("inf"))] * len(sides)
    for _ in range(RUNS):
        for index, commands in enumerate(sides):
            wall, cpu = timed(commands, folder)
            best[index] = (min(best[index][0], wall), min(best[index][1], cpu))
    return best


def main():
    tavolar = sys.argv[1] if len(sys.argv) > 1 else shutil.which("tavolar")
    for program in ("glsweep", "lsconv", "sox"):
        if shutil.which(program) is None:
            sys.exit(f"{program} is missing: install the drc and sox packages (scripts/bootstrap does).")
    if tavolar is None:
        sys.exit("Give the tavolar program as the argument.")
    tavolar = os.path.abspath(tavolar)

    with tempfile.TemporaryDirectory() as folder:
        run(["glsweep", str(RATE), "0.5", "10", "23000", str(SECONDS), "1", "0.05", "0.005",
             "sweep.pcm", "inverse.pcm"], folder)
        sweep = np.fromfile(os.path.join(folder, "sweep.pcm"), dtype=np.float32)
        generator = np.random.default_rng(1)
        recording = np.empty((len(sweep) + RATE // 2, CHANNELS), dtype=np.float32)
        for channel in range(CHANNELS):
            delayed = np.zeros(recording.shape[0])
            delay = 48 + 37 * channel
            delayed[delay:delay + len(sweep)] = (0.9 - 0.1 * channel) * sweep
            delayed += 1e-5 * generator.standard_normal(len(delayed))
            recording[:, channel] = delayed
            recording[:, channel].tofile(os.path.join(folder, f"response{channel}.pcm"))
        recording.tofile(os.path.join(folder, "response.f32"))
        run(["sox", "-t", "f32", "-r", str(RATE), "-c", "1", "sweep.pcm", "sweep.wav"], folder)
        run(["sox", "-t", "f32", "-r", str(RATE), "-c", str(CHANNELS), "response.f32", "response.wav"],
            folder)

        load_before = os.getloadavg()
        (ours, ours_cpu), (theirs, theirs_cpu) = best_times(
            [[[tavolar, "deconvolve", "sweep.wav", "response.wav", "--lambda", "1e-6", "-o", "ir.wav"]],
             [["lsconv", f"response{channel}.pcm", "inverse.pcm", f"ir{channel}.pcm"]
              for channel in range(CHANNELS)]], folder)

    print(f"channels {CHANNELS}, sweep {SECONDS} s at {RATE} Hz, best of {RUNS} runs")
    print(f"tavolar_deconvolve_seconds {ours:.3f}")
    print(f"lsconv_per_channel_total_seconds {theirs:.3f}")
    print(f"ratio {ours / theirs:.3f} (target at most 0.5)")
    print(f"tavolar_deconvolve_cpu_seconds {ours_cpu:.3f}")
    print(f"lsconv_per_channel_total_cpu_seconds {theirs_cpu:.3f}")
    print(f"cpu_ratio {ours_cpu / theirs_cpu:.3f}")
    # On a machine shared with other work the wall-clock ratio moves with the load: say what it was.
    print("load_average_before {:.2f} {:.2f} {:.2f}".format(*load_before))
    print("load_average_after {:.2f} {:.2f} {:.2f}".format(*os.getloadavg()))


if __name__ == "__main__":
    main()
