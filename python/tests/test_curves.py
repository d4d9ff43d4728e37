"""Curves read in Python hold the numbers that tavolar export and tavolar bands write."""

from __future__ import annotations

import json
from pathlib import Path
from typing import Any, Callable, List, Tuple

import numpy as np
import pytest

import tavolar
from conftest import read_csv


def close(python: Any, exported: Any) -> None:
    # Frequency curves are written with six decimals, which bounds the agreement of small values.
    np.testing.assert_allclose(np.asarray(python, dtype=np.float64), exported, rtol=1e-6, atol=1e-6)


@pytest.mark.parametrize(
    "curve, arguments",
    [
        (lambda r: r.frequency_response(smoothing=None), ["--curves", "magnitude,phase"]),
        (lambda r: r.frequency_response(smoothing=6, points_per_octave=24),
         ["--curves", "magnitude,phase", "--smoothing", "6", "--points-per-octave", "24"]),
        (lambda r: r.frequency_response(weighting="a", phase_reference="peak", smoothing_domain="power"),
         ["--curves", "magnitude,phase", "--smoothing", "12", "--weighting", "a", "--phase-reference",
          "peak", "--smoothing-domain", "power"]),
        (lambda r: r.frequency_response(smoothing=3, spl=True, fft_length=8192, unwrapped=True),
         ["--curves", "spl,phase", "--smoothing", "3", "--fft-length", "8192", "--unwrapped"]),
        (lambda r: r.group_delay(phase_reference="window"), ["--curves", "group-delay", "--phase-reference",
                                                              "window"]),
        (lambda r: r.minimum_phase(points_per_octave=12), ["--curves", "minimum-phase",
                                                           "--points-per-octave", "12"]),
        (lambda r: r.excess_phase(), ["--curves", "excess-phase"]),
    ],
)
def test_frequency_curves_equal_export(cli: Callable[..., Any], measured: Path, tmp_path: Path,
                                       curve: Callable[[tavolar.Record], Any], arguments: List[str]) -> None:
    output = tmp_path / "curve.csv"
    cli("export", str(measured), "1", "-o", str(output), *arguments)
    exported = read_csv(output)
    with tavolar.Document.open(measured, readonly=True) as document:
        result = curve(document.records[0])
    values = [result.magnitude, result.phase] if hasattr(result, "magnitude") else [result.values]
    assert len(values) + 1 == len(exported)
    for python, column in zip([result.frequencies, *values], exported):
        close(python, column)


def test_harmonics_and_time_curves_equal_export(cli: Callable[..., Any], measured: Path,
                                                tmp_path: Path) -> None:
    cli("export", str(measured), "1", "-o", str(tmp_path / "h.csv"), "--curves", "harmonics,thd,noise-floor",
        "--orders", "2,3,5")
    cli("export", str(measured), "1", "-o", str(tmp_path / "t.csv"), "--curves", "impulse,etc")
    with tavolar.Document.open(measured, readonly=True) as document:
        record = document.records[0]
        harmonics = record.harmonic_distortion(orders=(5, 3, 2))
        impulse, etc = record.impulse_response(), record.etc()
    frequency, h2, h3, h5, thd, noise = read_csv(tmp_path / "h.csv")
    for python, column in zip([harmonics.frequencies, *harmonics.orders.values(), harmonics.thd,
                               harmonics.noise_floor], [frequency, h2, h3, h5, thd, noise]):
        close(python, column)
    assert list(harmonics.orders) == [2, 3, 5] and harmonics.meta["summed_orders"] == 9
    time, samples, envelope = read_csv(tmp_path / "t.csv")
    # Time curves are written with every significant digit.
    np.testing.assert_allclose(impulse.time, time, rtol=1e-6)
    np.testing.assert_allclose(impulse.values, samples, rtol=1e-6, atol=1e-30)
    np.testing.assert_allclose(etc.values, envelope, rtol=1e-6)


@pytest.mark.parametrize("kind, arguments, options", [
    ("waterfall", ["--slices", "10", "--start", "1"], {"slices": 10, "start": 1.0}),
    ("spectrogram", ["--duration", "300", "--overlap", "0.25"], {"duration": 300.0, "overlap": 0.25}),
])
def test_surfaces_equal_export(cli: Callable[..., Any], measured: Path, tmp_path: Path, kind: str,
                               arguments: List[str], options: Any) -> None:
    output = tmp_path / "surface.csv"
    cli("export", str(measured), "1", "-o", str(output), "--curves", kind, *arguments)
    header, *rows = [line.rstrip(",").split(",") for line in output.read_text().splitlines()]
    with tavolar.Document.open(measured, readonly=True) as document:
        surface = getattr(document.records[0], kind)(**options)
    assert surface.levels.shape == (len(rows), len(header) - 1)
    close(surface.frequencies, [float(field) for field in header[1:]])
    close(surface.times, [float(row[0]) for row in rows])
    close(surface.levels, [[float(field) for field in row[1:]] for row in rows])


@pytest.mark.parametrize("octave, weighting", [(True, "a"), (False, None)])
def test_band_levels_equal_bands(cli: Callable[..., Any], measured: Path, octave: bool,
                                 weighting: Any) -> None:
    arguments = ["--octave" if octave else "--third-octave"] + (["--weighting", weighting] if weighting else [])
    (listed,) = json.loads(cli("bands", str(measured), "1", "--json", *arguments).stdout)
    with tavolar.Document.open(measured, readonly=True) as document:
        record = document.records[0]
        bands = record.octave_bands(weighting) if octave else record.third_octave_bands(weighting)
    for name, values in [("nominal", bands.nominal), ("exact", bands.exact), ("level", bands.levels)]:
        np.testing.assert_allclose(values, [band[name] for band in listed["bands"]], rtol=1e-6)


def test_curve_errors_name_the_problem(measured: Path) -> None:
    with tavolar.Document.open(measured, readonly=True) as document:
        record = document.records[0]
        calls: List[Tuple[Callable[[], object], str]] = [
            (lambda: record.frequency_response(smoothing=0), "smoothing"),
            (lambda: record.frequency_response(fft_length=1000), "power of two"),
            (lambda: record.frequency_response(weighting="b"), "weighting"),
            (lambda: record.group_delay(phase_reference="middle"), "phase_reference"),
            (lambda: record.harmonic_distortion(orders=(1,)), "orders"),
        ]
        for call, message in calls:
            with pytest.raises(ValueError, match=message):
                call()
    loose = tavolar.Record.from_impulse_response(np.roll(np.eye(1, 4096, dtype=np.float32)[0], 5), 22050)
    with pytest.raises(tavolar.Error, match="no sweep settings"):
        loose.harmonic_distortion()
    with pytest.raises(tavolar.Error, match="22050 Hz") as unsupported:
        loose.octave_bands()
    assert "44100" in unsupported.value.suggestion


def test_many_records_on_threads_equal_one_by_one() -> None:
    rng = np.random.default_rng(7)
    records = [tavolar.Record.from_impulse_response(rng.standard_normal(8192).astype(np.float32), 48000)
               for _ in range(5)]
    together = tavolar.frequency_responses(records, smoothing=6, threads=2)
    for record, response in zip(records, together):
        alone = record.frequency_response(smoothing=6)
        np.testing.assert_array_equal(response.magnitude, alone.magnitude)
        np.testing.assert_array_equal(response.phase, alone.phase)
        assert response.meta["record"] == record.uuid
    odd = tavolar.Record.from_impulse_response(np.ones(64, np.float32), 22050)
    with pytest.raises(tavolar.Error, match="no A-weighting filter"):
        tavolar.frequency_responses([*records, odd], weighting="a", threads=2)
