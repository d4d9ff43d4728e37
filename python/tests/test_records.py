"""Arrays shared with the engine, errors, and records crossing process boundaries by pickling."""

from __future__ import annotations

import copy
import gc
import multiprocessing
import pickle
from pathlib import Path
from typing import Any

import numpy as np
import pytest

import tavolar


def test_impulse_arrays_share_the_engines_samples(document: Path) -> None:
    with tavolar.Document.open(document) as opened:
        record = opened.records[0]
        first, second = record.impulse, opened.records[record.uuid].impulse
        expected = np.array(first)
    assert np.shares_memory(first, second)
    assert not first.flags.writeable
    with pytest.raises(ValueError):
        first[0] = 1.0
    # The samples stay alive with the array, after the record and its document are gone.
    del record, second
    gc.collect()
    np.testing.assert_array_equal(first, expected)

    # Curves computed for the caller are the caller's; a surface views the engine's graph data.
    loose = tavolar.Record.from_impulse_response(expected[:8192], 48000)
    curve = loose.frequency_response()
    assert curve.magnitude.flags.writeable and curve.magnitude.dtype == np.float32
    surface = loose.waterfall(slices=4, fft_length=1024)
    del loose
    gc.collect()
    assert surface.levels.shape == (4, surface.frequencies.size) and not surface.levels.flags.writeable
    assert np.isfinite(surface.levels).all()


@pytest.mark.parametrize(
    "channels, samples, error, message",
    [
        (False, np.zeros(64, np.int16), TypeError, "float32 or float64 samples, not int16"),
        (True, np.zeros((2, 3, 64)), ValueError, r"\(samples,\) or \(channels, samples\), not \(2, 3, 64\)"),
        (False, np.zeros((1, 64), np.float32), ValueError, r"one channel of shape \(samples,\), not \(1, 64\)"),
        (True, np.array([0.0, np.nan] * 8), ValueError, "not finite"),
    ],
)
def test_bad_samples_are_refused(tmp_path: Path, channels: bool, samples: Any, error: type,
                                 message: str) -> None:
    with pytest.raises(error, match=message), tavolar.Document.create(tmp_path / "d.tavolar") as document:
        if channels:
            document.add_impulse_responses(samples, 48000)
        else:
            tavolar.Record.from_impulse_response(samples, 48000)


def test_samples_of_any_layout_are_read(tmp_path: Path) -> None:
    ramp = np.arange(256, dtype=np.float64)
    record = tavolar.Record.from_impulse_response(ramp[::2], 48000)
    np.testing.assert_array_equal(record.impulse, ramp[::2].astype(np.float32))
    # An odd length is evened with a zero, so that the circular time axis stays exact.
    np.testing.assert_array_equal(tavolar.Record.from_impulse_response(ramp[:7], 48000).impulse, [*ramp[:7], 0])
    with tavolar.Document.create(tmp_path / "d.tavolar") as document:
        channels = np.asfortranarray(np.stack([ramp, -ramp]).astype(np.float32))
        added = document.add_impulse_responses(channels, 48000)
        np.testing.assert_array_equal(added[1].impulse, -ramp)
    with pytest.raises(tavolar.Error, match="outside the sample rates"):
        tavolar.Record.from_impulse_response(ramp, 100)


def test_errors_carry_message_and_suggestion() -> None:
    error = tavolar.DocumentError("The document is damaged.", "Open a backup copy.", "Domain", 7)
    assert str(error) == "The document is damaged.\nOpen a backup copy."
    again = pickle.loads(pickle.dumps(error))
    assert (type(again), again.message, again.suggestion, again.code) == (tavolar.DocumentError,
                                                                          error.message, error.suggestion, 7)


def test_records_pickle_through_their_archive(measured: Path, tmp_path: Path) -> None:
    with tavolar.Document.open(measured, readonly=True) as document:
        record = document.records[0]
        with pytest.raises(TypeError, match="cannot be pickled"):
            pickle.dumps(document)
    restored = pickle.loads(pickle.dumps(record))
    assert restored == record and restored.info() == record.info()
    np.testing.assert_array_equal(restored.impulse, record.impulse)
    # A record just written to a document carries its samples too.
    with tavolar.Document.create(tmp_path / "new.tavolar") as created:
        (stored,) = created.add(record)
        stored.name = "Changed"
        again = pickle.loads(pickle.dumps(stored))
    assert again.name == "Changed"
    np.testing.assert_array_equal(again.impulse, record.impulse)

    # A spawned process starts from nothing: the record reaches it, and comes back, as its archive.
    with multiprocessing.get_context("spawn").Pool(1) as pool:
        returned = pool.apply(copy.copy, (record,))
    assert isinstance(returned, tavolar.Record)
    np.testing.assert_array_equal(returned.frequency_response().magnitude,
                                  record.frequency_response().magnitude)
