"""The curves read from records: arrays over one axis, and what they were computed with."""

from __future__ import annotations

import dataclasses
from typing import Any, Dict, Optional

import numpy as np
import numpy.typing as npt

Array = npt.NDArray[np.float32]


@dataclasses.dataclass(frozen=True)
class FrequencyResponse:
    """Magnitude (dB, or dB SPL) and phase (degrees) over frequency (Hz)."""

    frequencies: Array
    magnitude: Array
    phase: Array
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class FrequencyCurve:
    """One curve over frequency (Hz): a phase in degrees or a group delay in ms."""

    frequencies: Array
    values: Array
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class TimeCurve:
    """One curve over time (ms from time zero): the impulse response, or its energy in dB."""

    time: Array
    values: Array
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class HarmonicDistortion:
    """Harmonic levels relative to the fundamental (dB) over the excitation frequency (Hz)."""

    frequencies: Array
    orders: Dict[int, Array]
    phases: Dict[int, Array]
    thd: Optional[Array]
    noise_floor: Optional[Array]
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class BandLevels:
    """Octave or third-octave band levels: nominal and exact centres (Hz), dB re full scale, dB SPL."""

    nominal: Array
    exact: Array
    levels: Array
    spl: Optional[Array]
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass(frozen=True)
class Surface:
    """A waterfall or spectrogram: levels (dB) with a row per slice (times, ms) and a column per
    frequency (Hz). The arrays view the engine's graph data and are read-only."""

    frequencies: Array
    times: Array
    levels: Array
    meta: Dict[str, Any] = dataclasses.field(default_factory=dict)
