"""Measurement documents and their records."""

from __future__ import annotations

import datetime
import json
import os
import typing
from collections import abc
from typing import Any, Dict, List, Optional, Tuple, Union, overload

import numpy as np
import numpy.typing as npt

from . import _native
from ._curves import BandLevels, FrequencyCurve, FrequencyResponse, HarmonicDistortion, Surface, TimeCurve

if typing.TYPE_CHECKING:
    from ._plots import Plot

PathLike = Union[str, "os.PathLike[str]"]


class Window(typing.NamedTuple):
    """The analysed stretch of an impulse response: ms from time zero, end exclusive, and its taper."""

    begin: float
    end: float
    type: str


def _record_from_archive(data: bytes) -> "Record":
    return Record(_native.RecordHandle.from_archive(data))


class Record:
    """One measurement: an impulse response and how it was measured and is analysed.

    Setting a property changes the record as ``tavolar set`` does; a record of a document is written
    back to it at once.
    """

    __slots__ = ("_handle",)

    def __init__(self, handle: _native.RecordHandle) -> None:
        self._handle = handle

    @classmethod
    def from_impulse_response(cls, samples: npt.ArrayLike, sample_rate: int,
                              name: Optional[str] = None) -> "Record":
        """A record of its own (in no document) from an impulse response, time zero at sample 0."""
        return cls(_native.RecordHandle.from_impulse(np.asarray(samples), sample_rate, name))

    # ---- Metadata

    def info(self) -> Dict[str, Any]:
        """Everything ``tavolar info --json`` shows of the record."""
        description: Dict[str, Any] = json.loads(self._handle.description())
        return description

    @property
    def uuid(self) -> str:
        return self._handle.uuid

    @property
    def name(self) -> str:
        """The record's comment, which is its name ("Untitled" without one)."""
        return self._handle.display_name

    @name.setter
    def name(self, value: str) -> None:
        self._handle.change(comment=value)

    @property
    def notes(self) -> Optional[str]:
        notes: Optional[str] = self.info()["notes"]
        return notes

    @notes.setter
    def notes(self, value: str) -> None:
        self._handle.change(notes=value)

    @property
    def sample_rate(self) -> int:
        return self._handle.sample_rate

    @property
    def window(self) -> Window:
        window = self.info()["window"]
        return Window(window["beginMilliseconds"], window["endMilliseconds"], window["type"])

    @window.setter
    def window(self, value: Tuple[float, float] | Tuple[float, float, str]) -> None:
        self.set_window(*value)

    def set_window(self, begin: Optional[float] = None, end: Optional[float] = None,
                   type: Optional[str] = None) -> None:
        """Moves the window's edges (ms from time zero) or changes its taper; each left out stays."""
        self._handle.change(window_begin=begin, window_end=end, window_type=type)

    @property
    def sweep(self) -> Optional[Dict[str, Any]]:
        """The sweep the record was measured with: frequencies, duration, level and silences."""
        sweep: Optional[Dict[str, Any]] = self.info()["sweep"]
        return sweep

    @property
    def averages(self) -> int:
        averages: int = self.info()["averages"]
        return averages

    @property
    def date(self) -> Optional[datetime.datetime]:
        date = self.info()["date"]
        if date is None:
            return None
        return datetime.datetime.fromisoformat(date.replace("Z", "+00:00"))

    @property
    def calibration(self) -> Optional[Dict[str, Any]]:
        """The microphone calibration: microphone, sensitivity, points, whether it is in use."""
        calibration: Optional[Dict[str, Any]] = self.info()["calibration"]
        return calibration

    def calibrate(self, file: Optional[PathLike] = None, sensitivity: Optional[float] = None,
                  sensitivity_unit: Optional[str] = None, remove: bool = False) -> None:
        """Attaches a microphone calibration file (lines of frequency in Hz, magnitude in dB and
        optionally phase in degrees), gives the calibration a sensitivity (mV/Pa, dBV/uBar or dBFS),
        or removes it, as ``tavolar calibrate`` does."""
        self._handle.calibrate(file=None if file is None else os.fspath(file), sensitivity=sensitivity,
                               sensitivity_unit=sensitivity_unit, remove=remove)

    @property
    def spl_reference(self) -> Optional[float]:
        """The SPL reference level in dB while it is in use, else None."""
        reference = self.info()["splReference"]
        return float(reference["levelDecibels"]) if reference["inUse"] else None

    @spl_reference.setter
    def spl_reference(self, value: Optional[float]) -> None:
        if value is None:
            self._handle.change(no_spl_reference=True)
        else:
            self._handle.change(spl_reference=value)

    @property
    def speed_of_sound(self) -> float:
        speed: float = self.info()["speedOfSound"]
        return speed

    @speed_of_sound.setter
    def speed_of_sound(self, value: float) -> None:
        self._handle.change(speed_of_sound=value)

    @property
    def color(self) -> Optional[str]:
        color: Optional[str] = self.info()["color"]
        return color

    @color.setter
    def color(self, value: str) -> None:
        self._handle.change(color=value)

    # ---- Samples

    @property
    def impulse(self) -> npt.NDArray[np.float32]:
        """The stored impulse response (time zero at sample 0, negative times in the upper half).
        The array shares the engine's samples and is read-only."""
        return self._handle.impulse()

    def windowed_impulse(self) -> npt.NDArray[np.float32]:
        """The impulse response cut to the window and tapered (a new array)."""
        return self._handle.windowed_impulse()

    # ---- Curves

    def _meta(self, **extra: Any) -> Dict[str, Any]:
        meta: Dict[str, Any] = {"record": self.uuid, "window": self.window}
        meta.update(extra)
        return meta

    def _frequency(self, names: List[str], smoothing: Optional[int], points_per_octave: Optional[int],
                   weighting: Optional[str], phase_reference: str, fft_length: Optional[int],
                   unwrapped: bool, smoothing_domain: str = "db") -> Tuple[Any, List[Any], Dict[str, Any]]:
        axis, curves, length = self._handle.frequency_curves(
            names, smoothing=smoothing, smoothing_domain=smoothing_domain,
            points_per_octave=points_per_octave, weighting=weighting,
            phase_reference=phase_reference, fft_length=fft_length, unwrapped=unwrapped)
        meta = self._meta(smoothing=smoothing, smoothing_domain=smoothing_domain,
                          points_per_octave=points_per_octave, weighting=weighting,
                          phase_reference=phase_reference, fft_length=length, unwrapped=unwrapped)
        return axis, curves, meta

    def frequency_response(self, smoothing: Optional[int] = 12, points_per_octave: Optional[int] = None,
                           weighting: Optional[str] = None, phase_reference: str = "zero",
                           fft_length: Optional[int] = None, spl: bool = False,
                           smoothing_domain: str = "db", unwrapped: bool = False) -> FrequencyResponse:
        """Magnitude (dB, or dB SPL with spl) smoothed over 1/smoothing octave (None: not smoothed),
        and phase in degrees counted from phase_reference ("zero", "window" or "peak")."""
        (response,) = frequency_responses([self], smoothing, points_per_octave, weighting, phase_reference,
                                          fft_length, spl, smoothing_domain, unwrapped, threads=1)
        return response

    def _frequency_curve(self, name: str, unit: str, points_per_octave: Optional[int],
                         phase_reference: str, fft_length: Optional[int],
                         unwrapped: bool) -> FrequencyCurve:
        axis, (values,), meta = self._frequency([name], None, points_per_octave, None, phase_reference,
                                                fft_length, unwrapped)
        meta["units"] = {"frequencies": "Hz", "values": unit}
        return FrequencyCurve(axis, values, meta)

    def group_delay(self, points_per_octave: Optional[int] = None, phase_reference: str = "zero",
                    fft_length: Optional[int] = None) -> FrequencyCurve:
        """Group delay in ms, counted from phase_reference."""
        return self._frequency_curve("group-delay", "ms", points_per_octave, phase_reference,
                                     fft_length, False)

    def minimum_phase(self, points_per_octave: Optional[int] = None, fft_length: Optional[int] = None,
                      unwrapped: bool = False) -> FrequencyCurve:
        """The phase of the minimum-phase reconstruction, degrees."""
        return self._frequency_curve("minimum-phase", "deg", points_per_octave, "zero", fft_length,
                                     unwrapped)

    def excess_phase(self, points_per_octave: Optional[int] = None, phase_reference: str = "zero",
                     fft_length: Optional[int] = None, unwrapped: bool = False) -> FrequencyCurve:
        """Phase less minimum phase, degrees."""
        return self._frequency_curve("excess-phase", "deg", points_per_octave, phase_reference,
                                     fft_length, unwrapped)

    def impulse_response(self) -> TimeCurve:
        """The impulse response over time (ms), time zero in the middle."""
        time, impulse, _ = self._handle.time_curves()
        return TimeCurve(time, impulse, self._meta(units={"time": "ms", "values": "FS"}))

    def etc(self) -> TimeCurve:
        """The energy-time curve (the envelope of the impulse response) in dB over time (ms)."""
        time, _, envelope = self._handle.time_curves()
        return TimeCurve(time, envelope, self._meta(units={"time": "ms", "values": "dB"}))

    def harmonic_distortion(self, orders: abc.Sequence[int] = (2, 3), thd: bool = True,
                            noise_floor: bool = True, fft_length: Optional[int] = None) -> HarmonicDistortion:
        """Harmonic levels, total harmonic distortion (orders 2 to 9 as far as the record tells them
        apart) and noise floor, each in dB relative to the fundamental."""
        result = self._handle.harmonic_curves(sorted(set(orders)), thd, noise_floor, fft_length)
        meta = self._meta(units={"frequencies": "Hz", "values": "dB re fundamental"},
                          summed_orders=result["summed_orders"], highest_order=result["highest_order"])
        return HarmonicDistortion(result["frequencies"], result["orders"], result["phases"],
                                  result["total"], result["noise_floor"], meta)

    def _bands(self, octave: bool, weighting: Optional[str]) -> BandLevels:
        result = self._handle.band_levels(octave, weighting)
        meta = self._meta(bands="octave" if octave else "third-octave", weighting=weighting,
                          units={"frequencies": "Hz", "levels": "dBFS", "spl": "dB SPL"})
        return BandLevels(result["nominal"], result["exact"], result["levels"], result["spl"], meta)

    def octave_bands(self, weighting: Optional[str] = None) -> BandLevels:
        """Octave band levels of the windowed impulse response, A- or C-weighted if asked."""
        return self._bands(True, weighting)

    def third_octave_bands(self, weighting: Optional[str] = None) -> BandLevels:
        """Third-octave band levels of the windowed impulse response, A- or C-weighted if asked."""
        return self._bands(False, weighting)

    def _surface(self, spectrogram: bool, fft_length: Optional[int], slices: int, start: float,
                 duration: float, window: Optional[str], overlap: float, start_at_peak: bool) -> Surface:
        frequencies, times, levels = self._handle.surface(
            spectrogram, fft_length=fft_length, slices=slices, start=start, duration=duration,
            window=window, overlap=overlap, start_at_peak=start_at_peak)
        meta = self._meta(kind="spectrogram" if spectrogram else "waterfall", slices=len(times),
                          slice_window=window, fft_length=fft_length, start=start, duration=duration,
                          units={"frequencies": "Hz", "times": "ms", "levels": "dB"})
        return Surface(frequencies, times, levels, meta)

    def waterfall(self, slices: int = 25, start: float = 0.0, duration: float = 0.0,
                  fft_length: Optional[int] = None, window: Optional[str] = None,
                  start_at_peak: bool = False) -> Surface:
        """Cumulative spectral decay: a slice every duration / slices ms from start (a half Hanning
        window and 8192 points unless given)."""
        return self._surface(False, fft_length, slices, start, duration, window, 0.5, start_at_peak)

    def spectrogram(self, start: float = 0.0, duration: float = 0.0, fft_length: Optional[int] = None,
                    window: Optional[str] = None, overlap: float = 0.5, start_at_peak: bool = False) -> Surface:
        """Short-time spectra over the impulse response (a Hanning window, 4096 points and half
        overlap unless given); the slices follow from duration, fft_length and overlap."""
        return self._surface(True, fft_length, 25, start, duration, window, overlap, start_at_peak)

    # ---- Graphs

    def plot(self, graph: str = "magnitude", path: Optional[PathLike] = None, **options: Any) -> "Plot":
        """The record's graph, written to path when one is given (see tavolar.plot)."""
        from ._plots import plot

        return plot(self, graph, path, **options)

    def _repr_png_(self) -> bytes:
        return self.plot()._repr_png_()

    def _repr_svg_(self) -> str:
        return self.plot()._repr_svg_()

    # ---- Python protocols

    def __reduce__(self) -> Tuple[Any, Tuple[bytes]]:
        # Through the engine's keyed archive, which holds the samples and every property.
        return (_record_from_archive, (self._handle.archive(),))

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Record) and other.uuid == self.uuid

    def __hash__(self) -> int:
        return hash(self.uuid)

    def __repr__(self) -> str:
        return f"<tavolar.Record {self.name!r} {self.uuid} {self.sample_rate} Hz>"


def frequency_responses(records: abc.Sequence[Record], smoothing: Optional[int] = 12,
                        points_per_octave: Optional[int] = None, weighting: Optional[str] = None,
                        phase_reference: str = "zero", fft_length: Optional[int] = None, spl: bool = False,
                        smoothing_domain: str = "db", unwrapped: bool = False,
                        threads: Optional[int] = None) -> List[FrequencyResponse]:
    """The frequency responses of many records (see Record.frequency_response), computed on threads
    (one per core unless given) that run while Python goes on."""
    unit = ("dB SPL" if spl else "dB") + (weighting.upper() if weighting else "")
    computed = _native.frequency_curves_of_records(
        [record._handle for record in records], ["spl" if spl else "magnitude", "phase"], smoothing=smoothing,
        smoothing_domain=smoothing_domain, points_per_octave=points_per_octave, weighting=weighting,
        phase_reference=phase_reference, fft_length=fft_length, unwrapped=unwrapped, threads=threads)
    responses = []
    for record, (axis, (magnitude, phase), length) in zip(records, computed):
        meta = record._meta(smoothing=smoothing, smoothing_domain=smoothing_domain,
                            points_per_octave=points_per_octave, weighting=weighting,
                            phase_reference=phase_reference, fft_length=length, unwrapped=unwrapped,
                            units={"frequencies": "Hz", "magnitude": unit, "phase": "deg"})
        responses.append(FrequencyResponse(axis, magnitude, phase, meta))
    return responses


class Records(abc.Sequence[Record]):
    """The records of a document in document order; also looked up by UUID, UUID prefix or name."""

    __slots__ = ("_document",)

    def __init__(self, document: _native.DocumentHandle) -> None:
        self._document = document

    def __len__(self) -> int:
        return len(self._document)

    @overload
    def __getitem__(self, key: int) -> Record: ...

    @overload
    def __getitem__(self, key: str) -> Record: ...

    @overload
    def __getitem__(self, key: slice) -> List[Record]: ...

    def __getitem__(self, key: Union[int, str, slice]) -> Union[Record, List[Record]]:
        if isinstance(key, slice):
            return [self[index] for index in range(*key.indices(len(self)))]
        if isinstance(key, str):
            return Record(self._document.load(self._document.find(key)))
        index = key + len(self) if key < 0 else key
        return Record(self._document.load(index))

    def __delitem__(self, key: Union[int, str]) -> None:
        """Removes a record from the document, as ``tavolar delete`` does."""
        if isinstance(key, str):
            self._document.remove(self._document.find(key))
        else:
            self._document.remove(key + len(self) if key < 0 else key)

    def __contains__(self, key: object) -> bool:
        if isinstance(key, Record):
            return key.uuid in self._document.uuids()
        if isinstance(key, str):
            try:
                self._document.find(key)
            except KeyError:
                return False
            return True
        return False

    def __iter__(self) -> abc.Iterator[Record]:
        for index in range(len(self)):
            yield self[index]

    def __repr__(self) -> str:
        return f"<tavolar.Records of {len(self)}>"


class Document:
    """A measurement document: records and their impulse responses in one file, read and written
    through the same code as the command line. Use it as a context manager to close it."""

    __slots__ = ("_handle",)

    def __init__(self, handle: _native.DocumentHandle) -> None:
        self._handle = handle

    @classmethod
    def open(cls, path: PathLike, readonly: bool = False) -> "Document":
        return cls(_native.DocumentHandle.open(os.fspath(path), create=False, readonly=readonly))

    @classmethod
    def create(cls, path: PathLike) -> "Document":
        """A new, empty document; an existing file is refused."""
        return cls(_native.DocumentHandle.open(os.fspath(path), create=True))

    @property
    def path(self) -> str:
        return self._handle.path

    @property
    def closed(self) -> bool:
        return self._handle.closed

    @property
    def records(self) -> Records:
        return Records(self._handle)

    def add_impulse_responses(self, samples: npt.ArrayLike, sample_rate: int,
                              name: Optional[str] = None) -> List[Record]:
        """Stores impulse responses (channels first, samples last; time zero at sample 0) as new
        records, with the analysis defaults of a measurement, and answers them."""
        handles = self._handle.add_impulses(np.asarray(samples), sample_rate, name)
        return [Record(handle) for handle in handles]

    def add(self, records: Union[Record, abc.Sequence[Record]]) -> List[Record]:
        """Stores copies of records (measured ones, or records of another document)."""
        given = [records] if isinstance(records, Record) else list(records)
        return [Record(handle) for handle in self._handle.add([record._handle for record in given])]

    def close(self) -> None:
        """Closes the file; records read from it keep their samples."""
        self._handle.close()

    def __enter__(self) -> "Document":
        return self

    def __exit__(self, *exception: object) -> None:
        self.close()

    def __reduce__(self) -> Any:
        raise TypeError("A Document is an open file and cannot be pickled; pickle its records, or pass "
                        "its path and open it again.")

    def __repr__(self) -> str:
        if self.closed:
            return "<tavolar.Document (closed)>"
        return f"<tavolar.Document {self.path!r}, {len(self._handle)} records>"
