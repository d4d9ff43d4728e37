#!/usr/bin/env python3
"""The peer of bench/plot.cpp, which writes a graph's CSV file and runs this script: the same curves
drawn with matplotlib's Agg backend into a PNG file of the same size, with a title, axis titles, a
grid, a legend and the same axis ranges.

Arguments: the CSV file (an X and a Y column per curve, headed "NAME AXIS"), the PNG file to write,
"log" or "linear" for the X axis, the X and Y ranges (xmin xmax ymin ymax) and the width and height in
pixels. Reading the file is not timed; drawing and writing the PNG is, and the best of a few runs (at
least three, and at least two seconds of them) is printed as "render seconds X".
"""

import csv
import sys
import time

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402
import numpy as np  # noqa: E402


def read_curves(path):
    with open(path, newline="") as file:
        header = next(csv.reader(file))
    try:
        table = np.loadtxt(path, delimiter=",", skiprows=1, ndmin=2, dtype=np.float64)
    except ValueError:  # columns of different lengths leave empty fields
        table = np.genfromtxt(path, delimiter=",", skip_header=1, dtype=np.float64, ndmin=2)
    curves = []
    for column in range(0, len(header) - 1, 2):
        x_title, y_title = header[column].split(" "), header[column + 1].split(" ")
        common = 0
        while common < min(len(x_title), len(y_title)) and x_title[common] == y_title[common]:
            common += 1
        x, y = table[:, column], table[:, column + 1]
        shown = np.isfinite(x) & np.isfinite(y)
        curves.append((" ".join(x_title[:common]), " ".join(x_title[common:]), " ".join(y_title[common:]),
                       x[shown], y[shown]))
    return curves


def draw(curves, output, log_x, limits, width, height):
    dpi = 100
    figure = plt.figure(figsize=(width / dpi, height / dpi), dpi=dpi)
    axes = figure.add_subplot()
    for name, _, _, x, y in curves:
        axes.plot(x, y, linewidth=1.25, label=name)
    if log_x:
        axes.set_xscale("log")
    axes.set_xlim(limits[0], limits[1])
    axes.set_ylim(limits[2], limits[3])
    axes.set_xlabel(curves[0][1])
    axes.set_ylabel(curves[0][2])
    axes.set_title("Graph")
    axes.grid(True, which="major", color="#bfbfbf")
    axes.grid(True, which="minor", color="#e5e5e5")
    if len(curves) > 1 or curves[0][0]:
        axes.legend(loc="upper right")
    figure.savefig(output, dpi=dpi)
    plt.close(figure)


def main():
    path, output, scale = sys.argv[1], sys.argv[2], sys.argv[3]
    limits = [float(value) for value in sys.argv[4:8]]
    width, height = int(sys.argv[8]), int(sys.argv[9])
    curves = read_curves(path)
    times = []
    while len(times) < 3 or sum(times) < 2.0:
        start = time.perf_counter()
        draw(curves, output, scale == "log", limits, width, height)
        times.append(time.perf_counter() - start)
    print(f"render seconds {min(times):.6f}")


if __name__ == "__main__":
    main()
