"""Graphs of records, drawn by the same code as ``tavolar plot``."""

from __future__ import annotations

import os
import tempfile
from collections import abc
from typing import Any, Optional, Union

from . import _native
from ._records import PathLike, Record

#: The graphs there are: magnitude, spl, phase, minimum-phase, excess-phase, group-delay, impulse,
#: etc, distortion, octave-bands, third-octave-bands, waterfall and spectrogram.
GRAPHS = tuple(_native.graph_names)

# Pictures shown inline are drawn at screen resolution.
_SCREEN_DPI = 96.0


class Plot:
    """A computed graph: saved as PNG, SVG, PDF or TIFF (by the file's extension) or as CSV data, and
    shown inline by notebooks."""

    __slots__ = ("_handle", "width", "height", "dpi")

    def __init__(self, handle: _native.PictureHandle, width: float, height: float, dpi: float) -> None:
        self._handle = handle
        self.width = width
        self.height = height
        self.dpi = dpi

    @property
    def graph(self) -> str:
        return self._handle.graph

    @property
    def curve_count(self) -> int:
        return self._handle.curve_count

    def save(self, path: PathLike, width: Optional[float] = None, height: Optional[float] = None,
             dpi: Optional[float] = None) -> None:
        """Writes the picture (width and height in mm) or, for a .csv file, its data."""
        self._handle.write(os.fspath(path), width or self.width, height or self.height, dpi or self.dpi)

    def to_csv(self) -> str:
        """The graph's data: an X and a Y column for each curve."""
        return self._handle.csv()

    def _rendered(self, suffix: str, dpi: float) -> bytes:
        with tempfile.TemporaryDirectory(prefix="tavolar-") as folder:
            path = os.path.join(folder, "graph" + suffix)
            self._handle.write(path, self.width, self.height, dpi)
            with open(path, "rb") as file:
                return file.read()

    def _repr_png_(self) -> bytes:
        return self._rendered(".png", min(self.dpi, _SCREEN_DPI))

    def _repr_svg_(self) -> str:
        return self._rendered(".svg", self.dpi).decode("utf-8")

    def __repr__(self) -> str:
        return f"<tavolar.Plot {self.graph}, {self.curve_count} curves>"


def plot(records: Union[Record, abc.Sequence[Record]], graph: str = "magnitude",
         path: Optional[PathLike] = None, width: float = 160.0, height: float = 100.0, dpi: float = 300.0,
         **options: Any) -> Plot:
    """The graph of records (see GRAPHS), written to path when one is given. The options are those of
    tavolar plot: smoothing, normalize, combine, x_range, y_range, linear_frequency, theme, title,
    db_per_decade, phase_reference, unwrapped, decibels, orders, percent, weighting, slices, duration,
    fft_length, floor and color_map."""
    given = [records] if isinstance(records, Record) else list(records)
    handle = _native.PictureHandle.make([record._handle for record in given], graph, options)
    picture = Plot(handle, width, height, dpi)
    if path is not None:
        picture.save(path)
    return picture
