"""The engine of the tavolar package: documents, records, curves, measuring and plots."""

from typing import Any, Callable, Dict, List, Optional, Tuple

import numpy as np
import numpy.typing as npt

_Array = npt.NDArray[np.float32]

class RecordHandle:
    @staticmethod
    def from_impulse(samples: npt.NDArray[Any], sample_rate: int, name: Optional[str] = None) -> RecordHandle: ...
    @staticmethod
    def from_archive(arg0: bytes) -> RecordHandle: ...
    @property
    def uuid(self) -> str: ...
    @property
    def display_name(self) -> str: ...
    @property
    def sample_rate(self) -> int: ...
    @property
    def in_document(self) -> bool: ...
    def description(self) -> str: ...
    def impulse(self) -> _Array: ...
    def windowed_impulse(self) -> _Array: ...
    def change(
        self,
        *,
        window_begin: Optional[float] = None,
        window_end: Optional[float] = None,
        window_type: Optional[str] = None,
        comment: Optional[str] = None,
        notes: Optional[str] = None,
        color: Optional[str] = None,
        spl_reference: Optional[float] = None,
        no_spl_reference: bool = False,
        speed_of_sound: Optional[float] = None,
    ) -> None: ...
    def calibrate(
        self,
        *,
        file: Optional[str] = None,
        sensitivity: Optional[float] = None,
        sensitivity_unit: Optional[str] = None,
        remove: bool = False,
    ) -> None: ...
    def archive(self) -> bytes: ...
    def frequency_curves(
        self,
        names: List[str],
        smoothing: Optional[int] = None,
        smoothing_domain: str = "db",
        points_per_octave: Optional[int] = None,
        weighting: Optional[str] = None,
        phase_reference: str = "zero",
        fft_length: Optional[int] = None,
        unwrapped: bool = False,
    ) -> Tuple[_Array, List[_Array], int]: ...
    def time_curves(self) -> Tuple[_Array, _Array, _Array]: ...
    def harmonic_curves(
        self, orders: List[int], total: bool, noise_floor: bool, fft_length: Optional[int] = None
    ) -> Dict[str, Any]: ...
    def band_levels(self, octave: bool, weighting: Optional[str] = None) -> Dict[str, Any]: ...
    def surface(
        self,
        spectrogram: bool,
        fft_length: Optional[int] = None,
        slices: int = 25,
        start: float = 0.0,
        duration: float = 0.0,
        window: Optional[str] = None,
        overlap: float = 0.5,
        start_at_peak: bool = False,
    ) -> Tuple[_Array, _Array, _Array]: ...

class DocumentHandle:
    @staticmethod
    def open(path: str, create: bool = False, readonly: bool = False) -> DocumentHandle: ...
    @property
    def path(self) -> str: ...
    @property
    def closed(self) -> bool: ...
    @property
    def readonly(self) -> bool: ...
    def close(self) -> None: ...
    def __len__(self) -> int: ...
    def uuids(self) -> List[str]: ...
    def find(self, arg0: str) -> int: ...
    def remove(self, arg0: int) -> None: ...
    def load(self, arg0: int) -> RecordHandle: ...
    def add(self, arg0: List[RecordHandle]) -> List[RecordHandle]: ...
    def add_impulses(
        self, samples: npt.NDArray[Any], sample_rate: int, name: Optional[str] = None
    ) -> List[RecordHandle]: ...

class MeasurementHandle:
    def __init__(
        self,
        *,
        device: str,
        playback_device: Optional[str],
        channels: List[int],
        output_channel: int,
        loopback: Optional[Tuple[int, int]],
        sweep: object,
        averages: int,
        level_check: bool,
        client_name: Optional[str],
        connect: bool,
        fast: bool,
        name: Optional[str],
        progress: Optional[Callable[[Dict[str, Any]], None]],
        document: Optional[DocumentHandle],
    ) -> None: ...
    def wait(self, timeout: Optional[float] = None) -> List[RecordHandle]: ...
    def cancel(self) -> None: ...
    @property
    def done(self) -> bool: ...

def devices() -> List[Dict[str, Any]]: ...

graph_names: List[str]

class PictureHandle:
    @staticmethod
    def make(records: List[RecordHandle], graph: str, options: Dict[str, Any]) -> PictureHandle: ...
    @property
    def graph(self) -> str: ...
    @property
    def curve_count(self) -> int: ...
    def write(self, path: str, width: float, height: float, dpi: float) -> None: ...
    def csv(self) -> str: ...

def sweep_stimulus(sample_rate: int, sweep: object = None) -> _Array: ...
def deconvolve(
    response: npt.NDArray[Any],
    sample_rate: int,
    stimulus: Optional[npt.NDArray[Any]] = None,
    sweep: object = None,
    reference: Optional[npt.NDArray[Any]] = None,
    regularization: Optional[float] = None,
    name: Optional[str] = None,
) -> List[RecordHandle]: ...
def frequency_curves_of_records(
    records: List[RecordHandle],
    names: List[str],
    smoothing: Optional[int] = None,
    smoothing_domain: str = "db",
    points_per_octave: Optional[int] = None,
    weighting: Optional[str] = None,
    phase_reference: str = "zero",
    fft_length: Optional[int] = None,
    unwrapped: bool = False,
    threads: Optional[int] = None,
) -> List[Tuple[_Array, List[_Array], int]]: ...
