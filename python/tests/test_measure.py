"""Measuring with the simulated device: records, progress, errors, cancelling and Ctrl-C."""

from __future__ import annotations

import gc
import json
import os
import signal
import threading
import time
from pathlib import Path
from typing import Any, Callable, Dict, List, Type

import pytest

import tavolar


def test_devices_mark_the_default() -> None:
    listed = tavolar.devices()
    assert listed[0].uid == "sim:default" and listed[0].default and listed[0].inputs == 2
    assert repr(listed).startswith("* <Device sim:default (default)")


def test_measurements_give_records_and_progress(cli: Callable[..., Any], tmp_path: Path) -> None:
    events: List[Dict[str, Any]] = []
    path = tmp_path / "m.tavolar"
    # The document's calibrations of its inputs: input 0's applies to the record, input 1's stays.
    (tmp_path / "mic-3.txt").write_text("10 -1.0 0\n24000 -1.0 0\n")
    cli("calibrate", str(path), "--capture-settings", "--file", str(tmp_path / "mic-3.txt"), "--channel", "0",
        "--channel", "1")
    with tavolar.Document.open(path) as document:
        (record,) = tavolar.measure(fast=True, loopback=(1, 1), averages=2, name="Left",
                                    sweep={"start": 20, "end": 20000, "length": 500}, progress=events.append,
                                    document=document)
        assert record.name == "Left" and record.averages == 2
        assert (record.sweep or {})["durationMilliseconds"] == 500
        assert abs(record.info()["delayMilliseconds"]) < 5
        assert (record.calibration or {})["microphone"] == "mic-3"
    with pytest.raises(tavolar.DocumentError, match="closed or was opened read-only"):
        tavolar.start_measure(fast=True, document=document)
    assert [event["sweep"] for event in events if event["stage"] == "sweep"] == [1, 2]
    assert events[-1] == {"stage": "deconvolving", "channel": 1, "channels": 1}
    assert [entry["name"] for entry in json.loads(cli("list", str(path), "--json").stdout)] == ["Left"]
    # The document keeps the loop-back reference the response was divided by, as measure keeps it.
    assert json.loads(cli("info", str(path), "1", "--json").stdout)[0]["loopback"] == {"output": 1, "input": 1}
    with tavolar.Document.open(path) as document:
        (again,) = tavolar.measure(fast=True, channels=[1], level_check=False, sweep={"length": 100},
                                   document=document)
        assert (again.calibration or {})["microphone"] == "mic-3"


@pytest.mark.parametrize(
    "options, error, message",
    [
        ({"device": "sim:studio"}, ValueError, "no simulated device sim:studio"),
        ({"playback_device": "sim:studio"}, ValueError, "no simulated device sim:studio"),
        ({"device": "jack:nowhere"}, tavolar.DeviceError, "not present"),
        ({"client_name": "left"}, ValueError, "client_name and connect=False apply to JACK devices"),
        ({"channels": [5]}, ValueError, "no input 5"),
        ({"channels": [0, 0]}, ValueError, "input 0 twice"),
        ({"loopback": "1:0"}, ValueError, "divided by itself"),
        ({"averages": 0}, ValueError, "averages"),
        ({"sweep": {"start": 5000, "end": 100}}, ValueError, "5000"),
        ({"sweep": {"speed": 1}}, ValueError, "no setting \"speed\""),
        ({"channels": [1]}, tavolar.DeviceError, "Too Quiet"),
    ],
)
def test_bad_measurements_are_refused(options: Dict[str, Any], error: Type[Exception], message: str) -> None:
    with pytest.raises(error, match=message) as raised:
        tavolar.measure(fast=True, sweep=options.pop("sweep", {"length": 100}), **options)
    if message == "Too Quiet":
        assert "level_check=False" in getattr(raised.value, "suggestion")


def test_waiting_releases_the_gil_and_can_be_cancelled() -> None:
    counted = [0]
    stop = threading.Event()

    def count() -> None:
        while not stop.is_set():
            counted[0] += 1
            time.sleep(0.001)

    counter = threading.Thread(target=count)
    counter.start()
    measurement = tavolar.start_measure(sweep={"length": 1000})
    with pytest.raises(TimeoutError):
        measurement.wait(timeout=0.2)
    stop.set()
    counter.join()
    assert counted[0] > 20 and not measurement.done
    measurement.cancel()
    with pytest.raises(tavolar.Error, match="Measurement Aborted"):
        measurement.wait()


def test_measurements_run_side_by_side_and_are_waited_for_on_the_main_thread() -> None:
    sweep = {"start": 100, "end": 10000, "length": 300, "begin_silence": 0, "end_silence": 50}
    near = tavolar.start_measure(sweep=sweep)
    far = tavolar.start_measure(device="sim:default?delay=96", sweep=sweep)
    (first,), (second,) = near.wait(), far.wait()
    assert second.info()["delayMilliseconds"] - first.info()["delayMilliseconds"] == pytest.approx(2.0)
    refused: List[BaseException] = []

    def wait_elsewhere() -> None:
        try:
            tavolar.measure(fast=True, sweep=sweep)
        except RuntimeError as error:
            refused.append(error)

    elsewhere = threading.Thread(target=wait_elsewhere)
    elsewhere.start()
    elsewhere.join()
    assert "main thread" in str(refused[0])


def test_ctrl_c_ends_a_measurement_at_once() -> None:
    measurement = tavolar.start_measure(sweep={"length": 2000})
    raised_at: List[float] = []

    def interrupt() -> None:
        raised_at.append(time.monotonic())
        signal.raise_signal(signal.SIGINT)

    threading.Timer(0.3, interrupt).start()
    with pytest.raises(KeyboardInterrupt):
        measurement.wait()
    assert time.monotonic() - raised_at[0] < 0.5
    assert measurement.done


def test_open_measure_close_cycles_do_not_grow_memory(tmp_path: Path) -> None:
    # A leak of one impulse response a cycle (128 KiB) would add 128 MiB over the cycles counted; the
    # bound leaves room for the allocator's arenas, which settle after a few hundred cycles.
    path = tmp_path / "cycles.tavolar"
    tavolar.Document.create(path).close()
    sweep = {"start": 100, "end": 10000, "length": 100, "begin_silence": 0, "end_silence": 50}

    def resident_kib() -> int:
        with open("/proc/self/statm") as statm:
            return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE") // 1024

    def cycle(index: int) -> None:
        with tavolar.Document.open(path) as document:
            # Saving costs a file sync, so only every 50th cycle keeps its record.
            (record,) = tavolar.measure(fast=True, sweep=sweep, document=document if index % 50 == 0 else None)
            assert record.frequency_response().magnitude.size > 0

    for index in range(200):
        cycle(index)
    gc.collect()
    warm = resident_kib()
    for index in range(1000):
        cycle(index)
    gc.collect()
    assert resident_kib() - warm < 24 * 1024
