#!/usr/bin/python3
"""Precursor mass errors of both sides on the MS2 scans they identify alike.

    precursor_errors.py <workflow OUT> <run> [--scans]

For every scan whose primary PSM both sides accept with the same peptide, the
error in ppm of the m/z each side searched (OpenMS's reported m/z less its
one-electron shift, after whole isotope steps) against the peptide's; then the
median, the spread (standard deviation and median absolute deviation about the
median) and the largest error of each side, and of kSieve's error less the
declared one. `--scans` lists the scans too. Run the workflow at a wide
tolerance (comet={common: {peptide_mass_tolerance: 50}}) to see every scan.
"""

import csv
import statistics
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "workflow" / "scripts"))
import rescore  # noqa: E402
from calibration import REPORTED_SHIFT  # noqa: E402
from qvalues import PRIMARY, peptide  # noqa: E402


def primaries(path):
    with open(path, encoding="utf-8", newline="") as table:
        return {int(row["scan"]): row for row in csv.DictReader(table, delimiter="\t")
                if row["group"] == PRIMARY and row["entrapment"] != "1"}


def error(row):
    return rescore.ppm_error(row["sequence"], float(row["mz"]) - REPORTED_SHIFT,
                             int(row["charge"]))


def summary(name, errors):
    median = statistics.median(errors)
    mad = statistics.median(abs(e - median) for e in errors)
    return (f"{name}\t{len(errors)}\t{median:.2f}\t{statistics.pstdev(errors):.2f}\t{mad:.2f}\t"
            f"{max(errors, key=abs):.2f}")


def main(out, run, list_scans=False):
    fdr = Path(out) / "runs" / run / "fdr"
    declared = primaries(fdr / "declared_accepted.tsv")
    ksieve = primaries(fdr / "ksieve_accepted.tsv")
    shared = [s for s in sorted(declared) if s in ksieve
              and peptide(declared[s]["sequence"]) == peptide(ksieve[s]["sequence"])]
    if not shared:
        print("no scan identified alike by both sides")
        return
    if list_scans:
        print("scan\tpeptide\tdeclared_ppm\tksieve_ppm")
        for s in shared:
            print(f"{s}\t{ksieve[s]['sequence']}\t{error(declared[s]):.2f}\t{error(ksieve[s]):.2f}")
    pairs = [(error(declared[s]), error(ksieve[s])) for s in shared]
    print("side\tscans\tmedian_ppm\tsd_ppm\tmad_ppm\tlargest_ppm")
    print(summary("declared", [d for d, _ in pairs]))
    print(summary("ksieve", [k for _, k in pairs]))
    print(summary("ksieve-declared", [k - d for d, k in pairs]))


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2], "--scans" in sys.argv[3:])
