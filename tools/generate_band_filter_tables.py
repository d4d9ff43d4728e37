#!/usr/bin/python3
"""Writes the coefficient tables of the octave and third-octave band filters and of the FIR low-pass
filters of decimation and interpolation:

    src/dsp/OctaveBandTables.cpp   band-pass filters for 44100, 48000, 88200, 96000, 176400, 192000
    src/dsp/ResamplingTables.cpp   linear-phase low-pass filters for the factors 2, 4, ... 512

Run it from anywhere: tools/generate_band_filter_tables.py [--check]. The output depends only on
this script and on the double-precision arithmetic of Python and numpy, so a rerun reproduces the
committed files byte for byte; --check compares instead of writing and exits with 1 on a difference.

Band filters. Band k has the exact centre 1000 * 2^(k/3) Hz. Each filter is a Butterworth band-pass
(a third-order prototype for third octaves, giving 7 coefficients per polynomial, and a third- or
eighth-order one for octaves, 7 or 17 coefficients) with edges at the centre times 2^(-1/6) and
2^(1/6), or 2^(-1/2) and 2^(1/2), mapped by the bilinear transform with both edges prewarped and
scaled to unit gain at the exact centre. The poles are computed in double precision, and the
polynomials are expanded exactly from them (rational arithmetic) and rounded once, so that each
coefficient is the nearest double to the polynomial of those poles.

The bilinear transform compresses the response towards the Nyquist frequency. Where that makes a
band near the top of a bank fail the class 1 acceptance limits of relative attenuation of
IEC 61260-1:2014 (at every breakpoint below 0.95 times the Nyquist frequency), the design changes
as little as it must: the design edges move, on a grid of 1/100 of their exponents, to the pair
that meets the limits by 0.1 dB with the least loss of level for pink noise; an octave band that no
such pair brings within the limits takes the eighth-order prototype instead.
An octave band whose upper edge would lie above 0.98 times the Nyquist frequency is designed with
its upper edge there. Bands far below the top are left as designed even where the 64-bit
polynomials cannot hold the design (their poles crowd the unit circle); the band analysis reaches
those bands by decimation instead of by these rows.

The row of band -16 at 44100 is kept as the system has always had it.

Low-pass filters. For a factor q: a Kaiser-window design (stop-band attenuation 100 dB), pass band
up to 0.28 / q and stop band from 0.5 / q of the input rate, so that nothing the decimation folds
back lands below the output Nyquist frequency unattenuated; odd length, symmetric taps, unit gain at
0 Hz, rounded to float. Only the first half of the taps (centre included) is stored.
"""

import argparse
import cmath
import math
import sys
from fractions import Fraction
from pathlib import Path

import numpy as np

RATES = [44100, 48000, 88200, 96000, 176400, 192000]

# Nominal mid-band frequencies (IEC 61260-1 Annex E) by band index.
NOMINAL = {-16: 25, -15: 31.5, -14: 40, -13: 50, -12: 63, -11: 80, -10: 100, -9: 125, -8: 160,
           -7: 200, -6: 250, -5: 315, -4: 400, -3: 500, -2: 630, -1: 800, 0: 1000, 1: 1250,
           2: 1600, 3: 2000, 4: 2500, 5: 3150, 6: 4000, 7: 5000, 8: 6300, 9: 8000, 10: 10000,
           11: 12500, 12: 16000, 13: 20000}

# The row of band -16 at 44100 (third octave), kept exactly.
KEPT_ROW = {
    "b": [1.6942885740009727e-9, -4.1359031e-25, -5.082865722002919e-9, 0.0, 5.082865722002919e-9,
          4.1359031e-25, -1.694288574e-9],
    "a": [1.0, -5.9951901940350565, 14.975999905110239, -19.95209754640584, 14.95219514951714,
          -5.976146310081674, 0.995238995895197],
}

# Class 1 acceptance limits on relative attenuation (dB) of octave-band filters, IEC 61260-1:2014,
# at the normalized frequencies G^x (G = 2 for these base-2 filters): (x, minimum, maximum). At the
# band edge the limits of both sides apply.
OCTAVE_LIMITS = [(0, -0.4, 0.4), (1 / 8, -0.4, 0.5), (1 / 4, -0.4, 0.7), (3 / 8, -0.4, 1.4),
                 (1 / 2, 1.2, 5.3), (1, 16.6, math.inf), (2, 40.5, math.inf), (3, 60.0, math.inf),
                 (4, 70.0, math.inf)]

DESIGN_MARGIN_DB = 0.1


def breakpoints(fraction):
    """(normalized frequency, minimum, maximum) for bands of 1/fraction octave; fractional-octave
    breakpoints follow from the octave ones by 1 + (G^(1/2b) - 1) / (G^(1/2) - 1) (G^x - 1)."""
    points = []
    for x, low, high in OCTAVE_LIMITS:
        omega = 1 + (2 ** (1 / (2 * fraction)) - 1) / (2 ** 0.5 - 1) * (2 ** x - 1)
        points.append((omega, low, high))
        if x:
            points.append((1 / omega, low, high))
    return sorted(points)


def multiply(p, q):
    out = [Fraction(0)] * (len(p) + len(q) - 1)
    for i, x in enumerate(p):
        for j, y in enumerate(q):
            out[i + j] += x * y
    return out


class BandPass:
    """A Butterworth band-pass of the given prototype order, bilinear with prewarped edges."""

    def __init__(self, order, low, high, rate, centre):
        w1 = math.tan(math.pi * low / rate)
        w2 = math.tan(math.pi * high / rate)
        bandwidth, centre_squared = w2 - w1, w1 * w2
        analog = []  # (is a conjugate pair, pole) with one pole of each pair
        for i in range(order):
            angle = math.pi * (2 * i + order + 1) / (2 * order)
            if 2 * i + 1 == order:  # the real prototype pole -1
                d = bandwidth * bandwidth - 4 * centre_squared
                if d < 0:
                    analog.append((True, complex(-bandwidth / 2, math.sqrt(-d) / 2)))
                else:
                    analog += [(False, (-bandwidth + math.sqrt(d)) / 2),
                               (False, (-bandwidth - math.sqrt(d)) / 2)]
            elif 2 * i + 1 < order:  # one of each conjugate pair of the prototype
                p = cmath.exp(1j * angle)
                root = cmath.sqrt((p * bandwidth) ** 2 - 4 * centre_squared)
                analog += [(True, (p * bandwidth + root) / 2), (True, (p * bandwidth - root) / 2)]
        self.order = order
        self.poles = []
        denominator = [Fraction(1)]
        for pair, s in analog:
            z = (1 + s) / (1 - s)
            if pair:
                self.poles += [z, z.conjugate()]
                re, im = Fraction(z.real), Fraction(z.imag)
                denominator = multiply(denominator, [Fraction(1), -2 * re, re * re + im * im])
            else:
                z = z.real
                self.poles.append(z)
                denominator = multiply(denominator, [Fraction(1), -Fraction(z)])
        self.gain = 1.0
        self.gain = 1.0 / self.magnitude(centre, rate)
        numerator = [Fraction(0)] * (2 * order + 1)
        for i in range(order + 1):
            numerator[2 * i] = Fraction(self.gain) * math.comb(order, i) * (-1) ** i
        self.b = [float(x) for x in numerator]
        self.a = [float(x) for x in denominator]

    def magnitude(self, f, rate):
        """|H| from the poles and zeros (well conditioned, for the design)."""
        z = cmath.exp(2j * math.pi * f / rate)
        value = self.gain * abs(1 - z ** -2) ** self.order
        for p in self.poles:
            value /= abs(1 - p / z)
        return value


def polynomial_power(coefficients, f, rate):
    """|sum c_n e^(-j w n)|^2, evaluated exactly at the double nearest to e^(-j w)."""
    w = 2 * math.pi * f / rate
    c, s = Fraction(math.cos(w)), Fraction(math.sin(w))
    re = im = Fraction(0)
    power_re, power_im = Fraction(1), Fraction(0)
    for x in coefficients:
        re += Fraction(x) * power_re
        im += Fraction(x) * power_im
        power_re, power_im = power_re * c + power_im * s, power_im * c - power_re * s
    return float(re * re + im * im)


def attenuation_db(b, a, f, rate):
    return -10 * math.log10(polynomial_power(b, f, rate) / polynomial_power(a, f, rate))


def is_stable(a):
    """Schur-Cohn test on the exact values of the rounded coefficients."""
    a = [Fraction(x) for x in a]
    while len(a) > 1:
        k = a[-1] / a[0]
        if abs(k) >= 1:
            return False
        a = [a[i] - k * a[-1 - i] for i in range(len(a) - 1)]
    return True


def class1_margin(response_db, centre, rate, fraction):
    """The least distance (dB) to the class 1 limits over the breakpoints below 0.95 Nyquist;
    response_db(f) is the attenuation at f. Negative when a limit is broken."""
    reference = response_db(centre)
    margin = math.inf
    for omega, low, high in breakpoints(fraction):
        f = centre * omega
        if f >= 0.95 * rate / 2 or omega == 1:
            continue
        relative = response_db(f) - reference
        margin = min(margin, relative - low, high - relative)
    return margin


def exact_margin(design, centre, rate, fraction):
    if not is_stable(design.a):
        return -math.inf
    return class1_margin(lambda f: attenuation_db(design.b, design.a, f, rate), centre, rate, fraction)


def pink_level_db(design, centre, rate):
    """Band level for pink noise (equal power per octave) relative to an ideal band of the same
    nominal width, up to a constant (dB)."""
    f = np.geomspace(centre / 30, rate / 2 * 0.99999, 20001)
    power = np.array([design.magnitude(x, rate) ** 2 for x in f])
    return 10 * math.log10(np.trapz(power, np.log(f)))


def moved_edges_design(order, half_width, centre, rate, fraction):
    """Among designs with edges at centre * 2^(-a w) and centre * 2^(b w) (w the half width in
    octaves, a from 0.80 to 1.00 and b from 0.90 to 1.20 in steps of 0.01), the one with the most
    level for pink noise that meets the class 1 limits by DESIGN_MARGIN_DB, or None."""
    best = None
    for low_step in range(80, 101):
        for high_step in range(90, 121):
            high = min(centre * 2 ** (high_step / 100 * half_width), 0.98 * rate / 2)
            design = BandPass(order, centre * 2 ** (-low_step / 100 * half_width), high, rate, centre)
            margin = class1_margin(lambda f: -20 * math.log10(design.magnitude(f, rate)), centre, rate, fraction)
            if margin < DESIGN_MARGIN_DB:
                continue
            level = pink_level_db(design, centre, rate)
            if best is None or level > best[0]:
                best = (level, design)
    if best is None or exact_margin(best[1], centre, rate, fraction) < DESIGN_MARGIN_DB:
        return None
    return best[1]


def third_octave_filter(k, rate):
    centre = 1000 * 2 ** (k / 3)
    plain = BandPass(3, centre * 2 ** (-1 / 6), centre * 2 ** (1 / 6), rate, centre)
    if centre <= rate / 8 or exact_margin(plain, centre, rate, 3) >= 0:
        return plain
    design = moved_edges_design(3, 1 / 6, centre, rate, 3)
    if design is None:
        sys.exit(f"no third-octave design for band {k} at {rate} meets class 1")
    return design


def octave_filter(k, rate):
    centre = 1000 * 2 ** (k / 3)
    high = min(centre * 2 ** 0.5, 0.98 * rate / 2)
    plain = BandPass(3, centre * 2 ** -0.5, high, rate, centre)
    if centre <= rate / 8 or exact_margin(plain, centre, rate, 1) >= 0:
        return plain
    design = moved_edges_design(3, 1 / 2, centre, rate, 1)
    if design is None:
        design = BandPass(8, centre * 2 ** -0.5, high, rate, centre)
        if exact_margin(design, centre, rate, 1) < DESIGN_MARGIN_DB:
            sys.exit(f"no octave design for band {k} at {rate} meets class 1")
    return design


def bessel_i0(x):
    total = term = 1.0
    k = 1
    while term > 1e-17 * total:
        term *= (x / (2 * k)) ** 2
        total += term
        k += 1
    return total


def lowpass_taps(factor):
    attenuation = 100.0
    passband, stopband = 0.28 / factor, 0.5 / factor
    cutoff = (passband + stopband) / 2
    beta = 0.1102 * (attenuation - 8.7)
    order = math.ceil((attenuation - 7.95) / (14.36 * (stopband - passband)))
    order += order % 2
    taps = []
    for n in range(order + 1):
        x = n - order / 2
        ideal = 2 * cutoff if x == 0 else math.sin(2 * math.pi * cutoff * x) / (math.pi * x)
        window = bessel_i0(beta * math.sqrt(max(0.0, 1 - (2 * n / order - 1) ** 2))) / bessel_i0(beta)
        taps.append(ideal * window)
    total = math.fsum(taps)
    return [t / total for t in taps]


def float_literal(value):
    text = np.format_float_positional(np.float32(value), unique=True, trim="0")
    if len(text) > 12:
        text = np.format_float_scientific(np.float32(value), unique=True, trim="0")
    if "." not in text and "e" not in text:
        text += ".0"
    return text.replace(".e", ".0e") + "f"


def double_literal(value):
    return repr(float(value))


def wrap(items, indent, width=110):
    lines, line = [], indent
    for item in items:
        piece = item + ","
        if len(line) + len(piece) + 1 > width and line.strip():
            lines.append(line.rstrip())
            line = indent
        line += piece + " "
    if line.strip():
        lines.append(line.rstrip())
    return lines


HEADER = "// Generated by tools/generate_band_filter_tables.py; do not edit.\n"


def band_tables_source():
    out = [HEADER, '#include "dsp/OctaveBandTables.h"', "", "namespace tavolar::octave_band_tables {",
           "", "namespace {", ""]
    tables = {"third": [], "octave": []}
    for rate in RATES:
        third = range(-16, 12 if rate < 88200 else 14)
        for bank, indexes in (("third", third), ("octave", range(-15, 13, 3))):
            rows = []
            for k in indexes:
                if bank == "third" and rate == 44100 and k == -16:
                    b, a = KEPT_ROW["b"], KEPT_ROW["a"]
                else:
                    design = (third_octave_filter if bank == "third" else octave_filter)(k, rate)
                    b, a = design.b, design.a
                name = f"{bank}{rate}_{'m' if k < 0 else 'p'}{abs(k)}"
                out.append(f"constexpr double {name}_b[] = {{")
                out += wrap([double_literal(x) for x in b], "    ")
                out.append("};")
                out.append(f"constexpr double {name}_a[] = {{")
                out += wrap([double_literal(x) for x in a], "    ")
                out.append("};")
                rows.append(f"    {{{k}, {float_literal(1000 * 2 ** (k / 3))}, {float_literal(NOMINAL[k])}, "
                            f"{name}_b, {name}_a}},")
            out.append(f"constexpr FilterRow {bank}{rate}[] = {{")
            out += rows
            out.append("};")
            out.append("")
            tables[bank].append(f"    FilterTable{{{rate}, {bank}{rate}}},")
    out.append("} // namespace")
    out.append("")
    out.append("const std::array<FilterTable, 6> kThirdOctaveFilters = {")
    out += tables["third"]
    out.append("};")
    out.append("")
    out.append("const std::array<FilterTable, 6> kOctaveFilters = {")
    out += tables["octave"]
    out.append("};")
    out.append("")
    out.append("} // namespace tavolar::octave_band_tables")
    return "\n".join(out) + "\n"


def resampling_tables_source():
    out = [HEADER, '#include "dsp/ResamplingTables.h"', "", "namespace tavolar::resampling_tables {", "",
           "namespace {", ""]
    entries = []
    for exponent in range(1, 10):
        factor = 2 ** exponent
        taps = lowpass_taps(factor)
        half = taps[: len(taps) // 2 + 1]
        out.append(f"constexpr float lowpass{factor}[] = {{")
        out += wrap([float_literal(x) for x in half], "    ")
        out.append("};")
        out.append("")
        entries.append(f"    LowpassPrototype{{{factor}, {len(taps)}, lowpass{factor}}},")
    out.append("} // namespace")
    out.append("")
    out.append("const std::array<LowpassPrototype, 9> kLowpassPrototypes = {")
    out += entries
    out.append("};")
    out.append("")
    out.append("} // namespace tavolar::resampling_tables")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--check", action="store_true", help="compare with the committed files")
    arguments = parser.parse_args()
    root = Path(__file__).resolve().parent.parent
    outputs = {root / "src/dsp/OctaveBandTables.cpp": band_tables_source(),
               root / "src/dsp/ResamplingTables.cpp": resampling_tables_source()}
    differing = []
    for path, text in outputs.items():
        if arguments.check:
            if not path.exists() or path.read_text() != text:
                differing.append(path.name)
        else:
            path.write_text(text)
    if differing:
        print("differs: " + ", ".join(differing))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
