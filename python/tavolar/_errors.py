"""The errors the engine reports: what went wrong, and what to do about it."""

from __future__ import annotations


class Error(Exception):
    """A failure of the engine, carrying its message and a recovery suggestion."""

    def __init__(self, message: str, suggestion: str = "", domain: str = "TavolarErrorDomain",
                 code: int = -1) -> None:
        super().__init__(message, suggestion, domain, code)
        self.message = message
        self.suggestion = suggestion
        self.domain = domain
        self.code = code

    def __str__(self) -> str:
        return f"{self.message}\n{self.suggestion}" if self.suggestion else self.message


class DeviceError(Error):
    """An audio device is missing, refuses its settings or stopped during a measurement."""


class DocumentError(Error):
    """A measurement document cannot be opened, read or written."""


class CalibrationError(Error):
    """A calibration cannot be read or applied."""
