"""Graphs drawn from Python are the pictures tavolar plot draws."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any, Callable, Dict, List, Tuple, Type

import pytest

import tavolar


@pytest.mark.parametrize(
    "graph, options, arguments",
    [
        ("magnitude", {"smoothing": 12, "title": "Left", "y_range": (-40.0, 0.0)},
         ["--smoothing", "12", "--title", "Left", "--y-range=-40:0"]),
        ("group-delay", {"phase_reference": "peak", "theme": "dark"}, ["--phase-reference", "peak", "--theme", "dark"]),
        ("distortion", {"orders": [2, 3, 5], "percent": True}, ["--orders", "2,3,5", "--percent"]),
        ("octave-bands", {"weighting": "a"}, ["--weighting", "a"]),
        ("spectrogram", {"duration": 200.0, "color_map": "magma"}, ["--duration", "200", "--colormap", "magma"]),
    ],
)
def test_pictures_equal_plot(cli: Callable[..., Any], measured: Path, tmp_path: Path, graph: str,
                             options: Dict[str, Any], arguments: List[str]) -> None:
    for suffix in (".png", ".svg"):
        cli("plot", str(measured), "1", "--graph", graph, "-o", str(tmp_path / ("cli" + suffix)), "--width", "120",
            *arguments)
        with tavolar.Document.open(measured, readonly=True) as document:
            tavolar.plot(document.records, graph, tmp_path / ("python" + suffix), width=120, **options)
        # Cairo numbers the surfaces and images of a process, so SVG files differ in those names alone.
        drawn = [re.sub(rb"(surface|image)\d+", rb"\1", (tmp_path / (name + suffix)).read_bytes())
                 for name in ("cli", "python")]
        assert drawn[0] == drawn[1], suffix


def test_pictures_show_inline_and_refuse_bad_options(measured: Path) -> None:
    with tavolar.Document.open(measured, readonly=True) as document:
        record = document.records[0]
        assert record._repr_png_().startswith(b"\x89PNG") and "<svg" in record._repr_svg_()
        picture = record.plot("etc")
        assert (picture.graph, picture.curve_count) == ("etc", 1)
        assert picture.to_csv().startswith("Left speaker Time (ms),Left speaker ")
        bad: List[Tuple[Dict[str, Any], Type[Exception], str]] = [
            ({"graph": "pie"}, ValueError, "pie"),
            ({"colour": "red"}, TypeError, "no option \"colour\""),
            ({"slices": 10}, ValueError, "waterfall and spectrogram"),
            ({"x_range": (100.0, 10.0)}, ValueError, "lower first"),
        ]
        for options, error, message in bad:
            with pytest.raises(error, match=message):
                record.plot(**options)
        with pytest.raises(ValueError, match="resolution"):
            picture.save("x.png", dpi=1.0)
