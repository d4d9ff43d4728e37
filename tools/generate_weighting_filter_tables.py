#!/usr/bin/python3
"""Writes the coefficient tables of the A and C frequency weightings:

    src/dsp/WeightingFilterTables.cpp   A (7 coefficients) and C (5) for 44100, 48000, 88200, 96000,
                                        176400 and 192000 samples per second

Run it from anywhere: tools/generate_weighting_filter_tables.py [--check]. The output depends only on
this script and on Python's double-precision arithmetic, so a rerun reproduces the committed file
byte for byte; --check compares instead of writing and exits with 1 on a difference.

Construction (the one that gives the 48000 rows the system has always had):

- The analogue weightings of IEC 61672-1 (Annex E):
      C(s) = G_C w4^2 s^2 / ((s + w1)^2 (s + w4)^2)
      A(s) = G_A w4^2 s^4 / ((s + w1)^2 (s + w2) (s + w3) (s + w4)^2),   w = 2 pi f,
  with the pole frequencies of the standard's formulas (from f_r = 1000, f_L = 10^1.5, f_H = 10^3.9,
  D = sqrt(1/2) and f_A = 10^2.45 Hz) rounded to 8 significant digits: 20.598997, 107.65265,
  737.86223 and 12194.217 Hz.
- Normalised to 0 dB at 1000 Hz by the curve's own loss there rounded to 4 decimals: G_A =
  10^(1.9997/20), G_C = 10^(0.0619/20). (The standard rounds these to 2.000 and 0.062 dB; the
  difference is 0.0003 dB.)
- Mapped by the bilinear transform s = 2 fs (z - 1) / (z + 1) without prewarping: the digital
  response at f is the analogue one at (fs / pi) tan(pi f / fs), so the curve is compressed towards
  the Nyquist frequency, where A and C fall to zero. The numerators are therefore
  g (1, -2, -1, 4, -1, -2, 1) for A and g (1, 0, -2, 0, 1) for C.

Each table is expanded exactly (rational arithmetic) from the double-precision values of 2 pi f,
G and 2 fs and rounded once. This reproduces the 48000 rows to within 6e-16 (numerators) and
1.3e-14 (denominators), the rounding of the double-precision expansion they were made with; those
two rows are written as the system has always had them, digit for digit, after that check.
"""

import argparse
import math
import sys
from fractions import Fraction
from pathlib import Path

RATES = [44100, 48000, 88200, 96000, 176400, 192000]
OUTPUT = Path(__file__).resolve().parent.parent / "src" / "dsp" / "WeightingFilterTables.cpp"

# The 48000 rows as the system has always had them (numerator, then denominator).
KEPT_48000 = {
    "A": (["0.23430179229951353", "-0.46860358459902707", "-0.23430179229951353", "0.9372071691980541",
           "-0.23430179229951353", "-0.46860358459902707", "0.23430179229951353"],
          ["1.0", "-4.113043408775873", "6.553121752655054", "-4.990849294163391", "1.7857373029375805",
           "-0.2461905953194898", "0.011224250033231612"]),
    "C": (["0.19788712002639317", "0.0", "-0.39577424005278633", "0.0", "0.19788712002639317"],
          ["1.0", "-2.219172914052802", "1.4551358789471711", "-0.2484960738877827",
           "0.012538823147272456"]),
}


def pole_frequencies():
    """f1 .. f4 of Annex E from its defining constants, rounded to 8 significant digits."""
    fr, fl, fh, d, fa = 1000.0, 10 ** 1.5, 10 ** 3.9, math.sqrt(0.5), 10 ** 2.45
    b = (fr ** 2 + fl ** 2 * fh ** 2 / fr ** 2 - d * (fl ** 2 + fh ** 2)) / (1 - d)
    c = fl ** 2 * fh ** 2
    f1 = math.sqrt((-b - math.sqrt(b * b - 4 * c)) / 2)
    f4 = math.sqrt((-b + math.sqrt(b * b - 4 * c)) / 2)
    f2 = (3 - math.sqrt(5)) / 2 * fa
    f3 = (3 + math.sqrt(5)) / 2 * fa
    rounded = [float(f"{f:.8g}") for f in (f1, f2, f3, f4)]
    assert rounded == [20.598997, 107.65265, 737.86223, 12194.217], rounded
    return rounded


def analogue_loss_at_1000(zeros, poles):
    """-20 log10 |H(j 2 pi 1000)| of s^zeros * w4^2 / prod(s + w), in dB, rounded to 4 decimals."""
    w = 2 * math.pi * 1000
    gain = w ** zeros * poles[-1] ** 2
    for p in poles:
        gain /= math.hypot(w, p)
    return round(-20 * math.log10(gain), 4)


def multiply(p, q):
    out = [Fraction(0)] * (len(p) + len(q) - 1)
    for i, x in enumerate(p):
        for j, y in enumerate(q):
            out[i + j] += x * y
    return out


def bilinear(zeros, poles, gain, rate):
    """Numerator and denominator in z^-1 of gain * s^zeros / prod(s + w) under s = 2 fs (1 - z^-1) /
    (1 + z^-1), expanded exactly and normalised to a[0] = 1."""
    k = Fraction(2 * rate)
    order = len(poles)
    numerator = [Fraction(gain)]
    for _ in range(zeros):
        numerator = multiply(numerator, [k, -k])  # 2 fs (1 - z^-1)
    for _ in range(order - zeros):
        numerator = multiply(numerator, [Fraction(1), Fraction(1)])  # (1 + z^-1)
    denominator = [Fraction(1)]
    for w in poles:
        w = Fraction(w)
        denominator = multiply(denominator, [k + w, w - k])  # 2 fs (1 - z^-1) + w (1 + z^-1)
    lead = denominator[0]
    return [float(x / lead) for x in numerator], [float(x / lead) for x in denominator]


def designs():
    f1, f2, f3, f4 = pole_frequencies()
    w1, w2, w3, w4 = (2 * math.pi * f for f in (f1, f2, f3, f4))
    weightings = {
        "A": (4, [w1, w1, w2, w3, w4, w4]),
        "C": (2, [w1, w1, w4, w4]),
    }
    tables = {}
    for name, (zeros, poles) in weightings.items():
        loss = analogue_loss_at_1000(zeros, poles)
        gain = w4 ** 2 * 10 ** (loss / 20)
        rows = []
        for rate in RATES:
            b, a = bilinear(zeros, poles, gain, rate)
            if rate == 48000:
                kept_b, kept_a = KEPT_48000[name]
                assert max(abs(x - float(y)) for x, y in zip(b, kept_b)) < 1e-15, (name, b)
                assert max(abs(x - float(y)) for x, y in zip(a, kept_a)) < 1e-13, (name, a)
                rows.append((rate, kept_b, kept_a))
            else:
                rows.append((rate, [repr(x) for x in b], [repr(x) for x in a]))
        tables[name] = rows
    return tables


def array(name, values):
    lines = [f"constexpr double {name}[] = {{"]
    line = "   "
    for value in values:
        item = f" {value},"
        if len(line) + len(item) > 110:
            lines.append(line)
            line = "   "
        line += item
    lines.append(line)
    lines.append("};")
    return lines


def source(tables):
    out = ["// Generated by tools/generate_weighting_filter_tables.py; do not edit.", "// clang-format off", "",
           '#include "dsp/WeightingFilterTables.h"', "", "namespace tavolar::weighting_filter_tables {", "",
           "namespace {", ""]
    for name, rows in tables.items():
        for rate, b, a in rows:
            out += array(f"k{name}{rate}Numerator", b)
            out += array(f"k{name}{rate}Denominator", a)
            out.append("")
    out += ["} // namespace", ""]
    for name, rows in tables.items():
        out.append(f"const std::array<WeightingRow, {len(rows)}> k{name}Weighting = {{{{")
        for rate, _, _ in rows:
            out.append(f"    {{{rate}, k{name}{rate}Numerator, k{name}{rate}Denominator}},")
        out += ["}};", ""]
    out += ["} // namespace tavolar::weighting_filter_tables", ""]
    return "\n".join(out)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--check", action="store_true", help="compare with the committed file instead of writing")
    arguments = parser.parse_args()
    text = source(designs())
    if arguments.check:
        if OUTPUT.read_text() != text:
            print(f"{OUTPUT} differs from what the generator writes", file=sys.stderr)
            return 1
        return 0
    OUTPUT.write_text(text)
    return 0


if __name__ == "__main__":
    sys.exit(main())
