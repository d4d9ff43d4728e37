"""Sweep stimuli and records deconvolved from recorded responses, as sweep and import make them."""

from __future__ import annotations

import struct
from pathlib import Path
from typing import Any, Callable, Dict, List, Tuple, Type

import numpy as np
import numpy.typing as npt
import pytest

import tavolar


def write_float_wav(path: Path, channels: npt.NDArray[np.float32], rate: int) -> None:
    """A 32-bit float WAV file (format 3) of channels x samples."""
    frames = np.ascontiguousarray(channels.T, dtype="<f4").tobytes()
    count = channels.shape[0]
    header = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 36 + len(frames), b"WAVE", b"fmt ", 16, 3, count, rate,
                         rate * 4 * count, 4 * count, 32, b"data", len(frames))
    path.write_bytes(header + frames)


def read_float_wav(path: Path) -> npt.NDArray[np.float32]:
    """The samples of a mono 32-bit float WAV file, read from its data chunk."""
    data = path.read_bytes()
    at = 12
    while data[at:at + 4] != b"data":
        at += 8 + struct.unpack("<I", data[at + 4:at + 8])[0]
    size = struct.unpack("<I", data[at + 4:at + 8])[0]
    return np.frombuffer(data[at + 8:at + 8 + size], dtype="<f4")


def test_recorded_responses_deconvolve_as_import_does(cli: Callable[..., Any], tmp_path: Path) -> None:
    sweep = {"length": 500, "end_silence": 300}
    cli("sweep", str(tmp_path / "stimulus.wav"), "--length", "500", "--end-silence", "300")
    stimulus = tavolar.sweep_stimulus(48000, sweep)
    np.testing.assert_array_equal(stimulus, read_float_wav(tmp_path / "stimulus.wav"))

    # A wire at half gain 1 ms late, and a gentle low-pass.
    response = np.zeros((2, stimulus.size + 2000), np.float32)
    response[0, 48:48 + stimulus.size] = 0.5 * stimulus
    response[1, :stimulus.size + 2] = np.convolve(stimulus, [0.25, 0.5, 0.25])
    write_float_wav(tmp_path / "response.wav", response, 48000)
    cli("import", str(tmp_path / "d.tavolar"), str(tmp_path / "response.wav"), "--length", "500",
        "--end-silence", "300")

    records = tavolar.deconvolve(response, 48000, sweep=sweep, name="response")
    assert [record.name for record in records] == ["response channel 0", "response channel 1"]
    assert int(np.argmax(records[0].impulse)) == 48 and records[0].impulse[48] == pytest.approx(0.5, abs=1e-3)
    assert records[0].sweep is not None and records[0].harmonic_distortion(orders=(2,)).orders[2].size > 0
    with tavolar.Document.open(tmp_path / "d.tavolar", readonly=True) as document:
        for mine, imported in zip(records, document.records):
            np.testing.assert_allclose(mine.impulse, imported.impulse, rtol=1e-6, atol=1e-9)

    # The stimulus given itself divides alike.
    (given,) = tavolar.deconvolve(response[0], 48000, stimulus=stimulus)
    np.testing.assert_allclose(given.impulse, records[0].impulse, atol=1e-6)


def test_deconvolution_refusals() -> None:
    stimulus = tavolar.sweep_stimulus(48000, {"length": 100})
    refusals: List[Tuple[Dict[str, Any], Type[Exception], str]] = [
        ({"response": stimulus}, ValueError, "Give the stimulus"),
        ({"response": np.zeros(1000), "stimulus": stimulus}, tavolar.Error, "silent"),
        ({"response": stimulus, "stimulus": stimulus, "reference": np.zeros(10)}, tavolar.Error,
         "reference recording is silent"),
        ({"response": stimulus, "sweep": {"length": 100}, "regularization": -1.0}, ValueError, "regularization"),
    ]
    for arguments, error, message in refusals:
        with pytest.raises(error, match=message):
            tavolar.deconvolve(sample_rate=48000, **arguments)
