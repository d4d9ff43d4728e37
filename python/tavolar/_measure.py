"""Audio devices and measuring with a swept sine."""

from __future__ import annotations

import typing
from collections import abc
from typing import Any, Callable, Dict, List, Optional, Tuple, Union

from . import _native
from ._errors import DocumentError
from ._records import Document, Record

Progress = Callable[[Dict[str, Any]], None]
Sweep = Union[None, str, Dict[str, Any]]


class Device(typing.NamedTuple):
    """An audio device: its UID (what measure takes), name, sample rate and channel counts."""

    uid: str
    name: str
    sample_rate: float
    inputs: int
    outputs: int
    default: bool

    def __repr__(self) -> str:
        mark = " (default)" if self.default else ""
        return (f"<Device {self.uid}{mark}: {self.name!r}, {self.sample_rate:g} Hz, {self.inputs} in, "
                f"{self.outputs} out>")


class Devices(List[Device]):
    """The devices present, one a line, the defaults marked with *."""

    def __repr__(self) -> str:
        return "\n".join(("* " if device.default else "  ") + repr(device) for device in self)


def devices() -> Devices:
    """The simulated devices and the JACK servers that run; sim:default and the default JACK server
    ("jack") are the defaults."""
    return Devices(Device(entry["uid"], entry["name"], entry["sample_rate"], entry["inputs"],
                          entry["outputs"], entry["uid"] in ("sim:default", "jack"))
                   for entry in _native.devices())


def _loopback(loopback: Union[None, str, Tuple[int, int]]) -> Optional[Tuple[int, int]]:
    if loopback is None or isinstance(loopback, tuple):
        return loopback
    output, _, input = loopback.partition(":")
    if not output.isdigit() or not input.isdigit():
        raise ValueError(f"loopback {loopback!r} is not an OUTPUT:INPUT channel pair such as '1:1'.")
    return int(output), int(input)


class Measurement:
    """A measurement under way (see start_measure)."""

    __slots__ = ("_handle", "_document")

    def __init__(self, handle: _native.MeasurementHandle, document: Optional[Document]) -> None:
        self._handle = handle
        self._document = document

    @property
    def done(self) -> bool:
        return self._handle.done

    def wait(self, timeout: Optional[float] = None) -> List[Record]:
        """Waits for the records, one for each input channel, stored in the document if one was given.
        Call it from the thread that imported tavolar, which runs the engine's main queue; Ctrl-C
        cancels the measurement. TimeoutError after timeout seconds leaves it running."""
        records = [Record(handle) for handle in self._handle.wait(timeout)]
        return self._document.add(records) if self._document is not None else records

    def cancel(self) -> None:
        """Stops the measurement; wait then raises tavolar.Error."""
        self._handle.cancel()


def start_measure(device: str = "sim:default", channels: abc.Sequence[int] = (0,), output_channel: int = 0,
                  loopback: Union[None, str, Tuple[int, int]] = None, sweep: Sweep = None, averages: int = 1,
                  level_check: bool = True, fast: bool = False, name: Optional[str] = None,
                  progress: Optional[Progress] = None, document: Optional[Document] = None,
                  playback_device: Optional[str] = None, client_name: Optional[str] = None,
                  connect: bool = True) -> Measurement:
    """Starts a swept-sine measurement and answers at once.

    device records (and plays, unless playback_device is given). sweep is a preset ("short", "long")
    or a dict of preset, start and end (Hz), length (ms), level (dBFS), begin_silence and end_silence
    (ms), checked as tavolar measure checks them. loopback is an (output, input) pair whose recording
    is divided out. fast runs a simulated device as fast as the machine allows. A JACK device's client
    is named client_name ("tavolar" by default); connect=False connects none of its ports, and each
    sweep waits until an input and then an output port are connected. progress is called with a dict
    for each sweep that begins and each channel deconvolved. Each input of a document takes the
    calibration and sensitivity the document keeps for it."""
    if document is not None and (document.closed or document._handle.readonly):
        # Refused before measuring, so that no measurement is lost for want of a place to keep it.
        raise DocumentError("The document to keep the records in is closed or was opened read-only.",
                            "Open it with Document.open(path) and measure into it while it is open.")
    handle = _native.MeasurementHandle(device=device, playback_device=playback_device, channels=list(channels),
                                       output_channel=output_channel, loopback=_loopback(loopback), sweep=sweep,
                                       averages=averages, level_check=level_check, client_name=client_name,
                                       connect=connect, fast=fast, name=name, progress=progress,
                                       document=document._handle if document is not None else None)
    return Measurement(handle, document)


def measure(device: str = "sim:default", channels: abc.Sequence[int] = (0,), output_channel: int = 0,
            loopback: Union[None, str, Tuple[int, int]] = None, sweep: Sweep = None, averages: int = 1,
            level_check: bool = True, fast: bool = False, name: Optional[str] = None,
            progress: Optional[Progress] = None, document: Optional[Document] = None,
            playback_device: Optional[str] = None, client_name: Optional[str] = None,
            connect: bool = True) -> List[Record]:
    """Measures and waits for the records (see start_measure and Measurement.wait)."""
    return start_measure(device, channels, output_channel, loopback, sweep, averages, level_check, fast,
                         name, progress, document, playback_device, client_name, connect).wait()
