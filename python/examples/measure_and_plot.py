"""Measures the simulated device through a loop-back reference, keeps the record in a document, draws
its frequency response to SVG and PNG and prints its octave band levels.

    python3 measure_and_plot.py [FOLDER]
"""

from __future__ import annotations

import sys
from pathlib import Path
from typing import Any, Dict

import tavolar


def show_progress(event: Dict[str, Any]) -> None:
    if event["stage"] == "sweep":
        print(f"sweep {event['sweep']} of {event['sweeps']}", file=sys.stderr)


def main(folder: Path) -> None:
    folder.mkdir(parents=True, exist_ok=True)
    document_path = folder / "example.tavolar"
    document_path.unlink(missing_ok=True)
    with tavolar.Document.create(document_path) as document:
        (record,) = tavolar.measure(device="sim:default", channels=[0], loopback=(1, 1), averages=2,
                                    fast=True, name="Simulated speaker", progress=show_progress,
                                    document=document)
        record.set_window(end=50.0, type="half-hanning")
        print(f"{record.name}: delay {record.info()['delayMilliseconds']:.3f} ms, window {record.window}")

        response = record.frequency_response(smoothing=6, points_per_octave=12)
        audible = (response.frequencies >= 20) & (response.frequencies <= 20000)
        print(f"magnitude from 20 Hz to 20 kHz: {response.magnitude[audible].min():.1f} to "
              f"{response.magnitude[audible].max():.1f} {response.meta['units']['magnitude']}")

        for suffix in (".svg", ".png"):
            path = folder / ("response" + suffix)
            record.plot("magnitude", path, smoothing=6, title="Simulated speaker")
            print(f"wrote {path}")

        bands = record.octave_bands()
        for centre, level in zip(bands.nominal, bands.levels):
            print(f"{centre:>8g} Hz {level:7.1f} dBFS")


if __name__ == "__main__":
    main(Path(sys.argv[1] if len(sys.argv) > 1 else "."))
