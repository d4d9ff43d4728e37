#!/usr/bin/env python3
"""The frequency responses of 100 records read from Python, against the same work done in C++.

Four ways over the same records (impulse responses of 65536 samples at 48 kHz, 1/12-octave
smoothing, the records' own FFT length):
  python_1: record.frequency_response() for each record in a Python loop;
  python_2: the same calls from two Python threads (each call releases the GIL while it computes);
  native_1: tavolar.frequency_responses(records, threads=1), one C++ loop that never enters Python;
  native_2: the same on two C++ threads.
Prints the best wall-clock time of a few runs of each, in seconds, as "NAME_seconds X", the
processor time of that run over its wall-clock time as "NAME_cores X" (how many cores the run
really had: a two-thread run near 1.0 found the second core busy with other work), the load
average before and after, and the ratios that tell what Python costs (python_1 / native_1) and
what a second thread gains.

The work is arithmetic on each record's own buffers (transform, magnitude, phase, smoothing) with
no lock shared between records and the GIL released, so two threads gain close to 2x on two idle
cores; on a machine whose other work keeps one core busy they gain little, and the cores figures
show it.

Arguments: the number of records (default 100). Run with PYTHONPATH naming the built package
(build/NAME/python) on an otherwise idle machine.
"""

from __future__ import annotations

import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from typing import Callable, List, Tuple

import numpy as np

import tavolar


def records(count: int) -> List[tavolar.Record]:
    rng = np.random.default_rng(1)
    made = []
    for _ in range(count):
        # A decaying noise tail behind an impulse at 1 ms: a room-like response.
        samples = rng.standard_normal(65536).astype(np.float32) * np.exp(-np.arange(65536) / 4800.0)
        samples[48] += 1.0
        made.append(tavolar.Record.from_impulse_response(samples.astype(np.float32), 48000))
    return made


def best_of(function: Callable[[], object], repeats: int = 7) -> Tuple[float, float]:
    """The best wall-clock time of repeats runs, and the cores that run had (processor over wall)."""
    best, cores = float("inf"), 0.0
    for _ in range(repeats):
        began, used = time.perf_counter(), time.process_time()
        function()
        elapsed = time.perf_counter() - began
        if elapsed < best:
            best, cores = elapsed, (time.process_time() - used) / elapsed
    return best, cores


def respond(record: tavolar.Record) -> tavolar.FrequencyResponse:
    return record.frequency_response()


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 100
    chosen = records(count)
    pool = ThreadPoolExecutor(2)
    load_before = os.getloadavg()[0]
    runs = {
        "python_1": best_of(lambda: [respond(record) for record in chosen]),
        "python_2": best_of(lambda: list(pool.map(respond, chosen))),
        "native_1": best_of(lambda: tavolar.frequency_responses(chosen, threads=1)),
        "native_2": best_of(lambda: tavolar.frequency_responses(chosen, threads=2)),
    }
    pool.shutdown()
    timings = {name: seconds for name, (seconds, _) in runs.items()}
    for name, (seconds, cores) in runs.items():
        print(f"{name}_seconds {seconds:.4f}")
        print(f"{name}_cores {cores:.2f}")
    print(f"load_average_before {load_before:.2f}")
    print(f"load_average_after {os.getloadavg()[0]:.2f}")
    print(f"python_over_native {timings['python_1'] / timings['native_1']:.3f}")
    print(f"python_two_thread_speedup {timings['python_1'] / timings['python_2']:.3f}")
    print(f"native_two_thread_speedup {timings['native_1'] / timings['native_2']:.3f}")


if __name__ == "__main__":
    main()
