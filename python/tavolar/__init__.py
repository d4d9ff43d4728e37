"""Acoustic measurement: documents of measurement records, their curves, measuring with audio
devices, and graphs, on the TavolarKit engine."""

from ._curves import BandLevels, FrequencyCurve, FrequencyResponse, HarmonicDistortion, Surface, TimeCurve
from ._errors import CalibrationError, DeviceError, DocumentError, Error
from ._measure import Device, Devices, Measurement, devices, measure, start_measure
from ._plots import GRAPHS, Plot, plot
from ._records import Document, Record, Records, Window, frequency_responses
from ._signals import deconvolve, sweep_stimulus

__all__ = [
    "GRAPHS",
    "BandLevels",
    "CalibrationError",
    "Device",
    "DeviceError",
    "Devices",
    "Document",
    "DocumentError",
    "Error",
    "FrequencyCurve",
    "FrequencyResponse",
    "HarmonicDistortion",
    "Measurement",
    "Plot",
    "Record",
    "Records",
    "Surface",
    "TimeCurve",
    "Window",
    "deconvolve",
    "devices",
    "frequency_responses",
    "measure",
    "plot",
    "start_measure",
    "sweep_stimulus",
]
