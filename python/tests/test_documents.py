"""Documents and records: opening, looking records up, and changes that the command line sees."""

from __future__ import annotations

import json
import logging
from pathlib import Path
from typing import Any, Callable, List, Union

import numpy as np
import pytest

import tavolar


def info(cli: Callable[..., Any], path: Path) -> Any:
    return json.loads(cli("info", str(path), "1", "--json").stdout)[0]


def test_open_create_and_close(document: Path, tmp_path: Path) -> None:
    with tavolar.Document.open(document) as opened:
        assert len(opened.records) == 1 and not opened.closed
        record = opened.records[0]
    assert opened.closed
    # A record outlives its closed document with its samples.
    assert record.impulse.shape == (524288,)

    with pytest.raises(tavolar.DocumentError) as missing:
        tavolar.Document.open(tmp_path / "missing.tavolar")
    assert "does not exist" in missing.value.message and missing.value.suggestion
    with pytest.raises(tavolar.DocumentError, match="already exists"):
        tavolar.Document.create(document)
    with tavolar.Document.create(tmp_path / "new.tavolar") as created:
        assert len(created.records) == 0


def test_records_are_found_by_place_uuid_prefix_and_name(document: Path) -> None:
    with tavolar.Document.open(document) as opened:
        first = opened.records[0]
        keys: List[Union[int, str]] = [-1, first.uuid, first.uuid[:6].lower(), "Left speaker", "1"]
        for key in keys:
            assert opened.records[key] == first, key
        assert first.uuid in opened.records and "nothing" not in opened.records
        assert opened.records[0:5] == [first]
        with pytest.raises(KeyError, match="names no record"):
            opened.records["nothing"]
        with pytest.raises(IndexError):
            opened.records[3]


@pytest.mark.parametrize(
    "attribute, value, key, expected",
    [
        ("name", "Tweeter", "name", "Tweeter"),
        ("notes", "axis, 1 m", "notes", "axis, 1 m"),
        ("spl_reference", 87.5, "splReference", {"inUse": True, "levelDecibels": 87.5}),
        ("speed_of_sound", 343.0, "speedOfSound", 343.0),
        ("color", "red", "color", "#FF0000"),
        ("window", (-1.0, 80.0, "half-hanning"), "window", {"beginMilliseconds": -1.0, "endMilliseconds": 80.0,
                                                            "type": "half-hanning"}),
    ],
)
def test_changes_are_written_as_set_writes_them(cli: Callable[..., Any], document: Path, attribute: str,
                                                value: Any, key: str, expected: Any) -> None:
    with tavolar.Document.open(document) as opened:
        setattr(opened.records[0], attribute, value)
    stored = info(cli, document)[key]
    if isinstance(expected, dict):
        stored = {name: stored[name] for name in expected}
    assert stored == expected


@pytest.mark.parametrize(
    "change, error, message",
    [
        ({"end": -5.0}, ValueError, "before it begins"),
        ({"end": 99999.0}, ValueError, "lies outside the impulse response"),
        ({"type": "triangle"}, ValueError, "not a window type"),
    ],
)
def test_bad_changes_leave_the_record_as_it_was(document: Path, change: Any, error: type,
                                                message: str) -> None:
    with tavolar.Document.open(document) as opened:
        record = opened.records[0]
        before = record.info()
        with pytest.raises(error, match=message):
            record.set_window(**change)
        with pytest.raises(ValueError, match="not a colour"):
            record.color = "ultraviolet"
        assert record.info() == before


def test_read_only_documents_refuse_changes(document: Path) -> None:
    with tavolar.Document.open(document, readonly=True) as opened:
        with pytest.raises(tavolar.DocumentError, match="read-only"):
            opened.records[0].name = "x"
        with pytest.raises(tavolar.DocumentError, match="read-only"):
            opened.add_impulse_responses(np.ones(64, np.float32), 48000)
        with pytest.raises(tavolar.DocumentError, match="read-only"):
            del opened.records[0]


def test_impulse_responses_become_records(cli: Callable[..., Any], tmp_path: Path) -> None:
    path = tmp_path / "added.tavolar"
    impulses = np.zeros((2, 4096), dtype=np.float64, order="F")
    impulses[0, 10] = 1.0
    impulses[1, 20] = 0.5
    with tavolar.Document.create(path) as created:
        added = created.add_impulse_responses(impulses, 48000, name="Pair")
        assert [record.name for record in added] == ["Pair (channel 0)", "Pair (channel 1)"]
        # A record of no document is stored as a copy.
        loose = tavolar.Record.from_impulse_response(impulses[0], 44100, name="Loose")
        (copy,) = created.add(loose)
        assert copy.uuid != loose.uuid and copy.sample_rate == 44100
        np.testing.assert_array_equal(copy.impulse, loose.impulse)
    listed = json.loads(cli("list", str(path), "--json").stdout)
    assert [entry["name"] for entry in listed] == ["Pair (channel 0)", "Pair (channel 1)", "Loose"]
    with tavolar.Document.open(path) as opened:
        np.testing.assert_array_equal(opened.records[1].impulse, impulses[1].astype(np.float32))
        assert opened.records[0].info()["peak"]["samples"] == 10
        np.testing.assert_array_equal(opened.records["Loose"].impulse, impulses[0].astype(np.float32))
        # Removed as delete removes it.
        del opened.records["Pair (channel 1)"]
        assert [record.name for record in opened.records] == ["Pair (channel 0)", "Loose"]
    listed = json.loads(cli("list", str(path), "--json").stdout)
    assert [entry["name"] for entry in listed] == ["Pair (channel 0)", "Loose"]


def test_calibrations_attach_as_calibrate_attaches_them(cli: Callable[..., Any], document: Path,
                                                        tmp_path: Path, caplog: pytest.LogCaptureFixture) -> None:
    caplog.set_level(logging.INFO, logger="tavolar")
    file = tmp_path / "mic-7.txt"
    file.write_text("10 -3.0 0\n1000 -3.0 0\n24000 -3.0 0\n")
    (tmp_path / "broken.txt").write_text("this is no calibration\n")
    with tavolar.Document.open(document) as opened:
        record = opened.records[0]
        uncalibrated = record.frequency_response(smoothing=None)
        band = (uncalibrated.frequencies >= 20) & (uncalibrated.frequencies <= 20000)
        with pytest.raises(tavolar.CalibrationError, match="no microphone calibration"):
            record.calibrate(sensitivity=12.0)
        with pytest.raises(tavolar.CalibrationError, match="broken.txt") as broken:
            record.calibrate(file=tmp_path / "broken.txt")
        assert broken.value.suggestion
        # The parser's own account of the failure reaches Python's logging.
        logged = [line.message for line in caplog.records if line.name == "tavolar"]
        assert logged == ["ERROR: No calibration data read"]
        record.calibrate(file=file, sensitivity=-38.0, sensitivity_unit="dBV/uBar")
        # The calibration's -3 dB is taken out of the response within the calibrated band.
        calibrated = record.frequency_response(smoothing=None).magnitude
        np.testing.assert_allclose((calibrated - uncalibrated.magnitude)[band], 3.0, atol=0.01)
    stored = info(cli, document)["calibration"]
    assert (stored["microphone"], stored["sensitivity"], stored["inUse"]) == ("mic-7", -38.0, True)
    with tavolar.Document.open(document) as opened:
        opened.records[0].calibrate(remove=True)
        assert opened.records[0].calibration is None
