"""Write the chi-square ratios the variance threshold table is checked against.

For a block of ``2**e`` pixels of pure noise, the unbiased sample variance
times ``2**e - 1`` and divided by the noise variance follows the chi-square
distribution with ``2**e - 1`` degrees of freedom. The threshold table holds,
for each probability ``p`` (row 1: 0.50, row 2: 0.75, row 3: 0.90) and each
``e``, the ratio ``chi2.ppf(p, 2**e - 1) / (2**e - 1)``. This script computes
those ratios in double precision, independently of the library, and writes
them to ``chi_square_thresholds.txt`` next to it, which the unit tests read.

Run it with the interpreter that has SciPy (``scripts/setup.sh data``
installs the Debian package python3-scipy)::

    /usr/bin/python3 tests/data/chi_square_thresholds.py

Output format: lines starting with ``#`` are comments; every other line
holds, separated by single spaces, ``e`` (decimal), the row (1, 2 or 3), the
ratio with 17 significant digits (enough to give back the double exactly)
and the bit pattern of the single-precision number nearest to the ratio, as
8 hexadecimal digits.
"""

from __future__ import annotations

import argparse
from pathlib import Path

import numpy as np
import scipy
from scipy.stats import chi2

#: Probability of each row of the table, row 1 first.
ROW_PROBABILITIES: tuple[float, ...] = (0.50, 0.75, 0.90)

#: The exponents covered: blocks of 4 to 2**27 pixels.
FIRST_EXPONENT: int = 2
LAST_EXPONENT: int = 27


def chi_square_ratio(p: float, e: int) -> float:
    """Return the p-quantile of chi-square with n degrees, divided by n.

    Parameters
    ----------
    p : float
        Probability of the quantile, between 0 and 1.
    e : int
        Base-2 logarithm of the number of pixels of the block, at least 1;
        the degrees of freedom are ``n = 2**e - 1``.

    Returns
    -------
    float
        ``chi2.ppf(p, n) / n`` in double precision.
    """
    degrees = float(2**e - 1)
    return float(chi2.ppf(p, degrees)) / degrees


def nearest_float32_bits(value: float) -> int:
    """Return the bits of the single-precision number nearest to ``value``.

    Parameters
    ----------
    value : float
        A finite double-precision number.

    Returns
    -------
    int
        The IEEE 754 binary32 encoding of ``value`` rounded to nearest, ties
        to even, as an unsigned integer.
    """
    single = np.array([value], dtype=np.float64).astype(np.float32)
    return int(single.view(np.uint32)[0])


def table_lines(first: int = FIRST_EXPONENT,
                last: int = LAST_EXPONENT) -> list[str]:
    """Return the lines of the text file, comments included.

    Parameters
    ----------
    first, last : int
        The range of exponents ``e`` to cover, both included.

    Returns
    -------
    list of str
        The lines, without line ends.
    """
    lines = [
        "# Chi-square quantile ratios chi2.ppf(p, 2^e - 1) / (2^e - 1),",
        "# computed in double precision by chi_square_thresholds.py"
        f" (SciPy {scipy.__version__}); do not edit.",
        "# Rows: 1 is p = 0.50, 2 is p = 0.75, 3 is p = 0.90.",
        "# Fields: e, row, ratio (17 significant digits),"
        " nearest float32 bits (hex).",
    ]
    for e in range(first, last + 1):
        for row, p in enumerate(ROW_PROBABILITIES, start=1):
            ratio = chi_square_ratio(p, e)
            bits = nearest_float32_bits(ratio)
            lines.append(f"{e} {row} {ratio:.16e} {bits:08x}")
    return lines


def main() -> None:
    """Write the ratios to the file given, by default the one next to us."""
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument(
        "output",
        nargs="?",
        type=Path,
        default=Path(__file__).with_suffix(".txt"),
        help="file to write (default: %(default)s)",
    )
    args = parser.parse_args()
    text = "\n".join(table_lines()) + "\n"
    args.output.write_text(text, encoding="ascii")


if __name__ == "__main__":
    main()
