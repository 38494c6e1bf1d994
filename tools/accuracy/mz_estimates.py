#!/usr/bin/python3
"""Where kSieve's precursor m/z comes from, and how other readings of the same MS1 peaks do.

    mz_estimates.py <run.ms1> <run.ms2> <workflow OUT> <run>

The .ms1/.ms2 pair is the companion's (kSieve keeps it beside the input unless
delete_msn is set). For the MS2 scans both sides identify alike
(precursor_errors.py), the m/z of kSieve's precursor is read again from the
ten survey scans kSieve reads for the scan (the parent, four before, five
after), as intensity-weighted means of the peaks within 7 ppm
(recalibrate_window) of:
  mono     the mono-isotopic peak, as kSieve's final recalibration does;
  envelope the isotope peaks 0 to 2, each moved back by its isotope spacing;
  parent   the mono-isotopic peak in the parent survey scan only;
and each is set against the peptide like the searched m/z of both sides. First
it tells how the survey scans were centroided: the smallest step between
distinct peak m/z values from m/z 480 to 500 of all survey scans together. In
a run whose peaks are single profile points (the apex of each peak, no
interpolation) it is the Orbitrap's sampling step, several ppm; with real
centroids it is the last decimal of the .ms1 text.
"""

import bisect
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
sys.path.insert(0, str(HERE.parents[1] / "bench" / "companion"))
sys.path.insert(0, str(HERE.parents[1] / "workflow" / "scripts"))
import precursor_errors  # noqa: E402
import rescore  # noqa: E402
from calibration import REPORTED_SHIFT  # noqa: E402
from ms_pair_to_mzml import scans  # noqa: E402
from qvalues import peptide  # noqa: E402

WINDOW_PPM = 7.0
SPACING = 1.00286  # mean spacing of a peptide's neighbouring isotope peaks
READINGS = {"mono": ((0,), False), "envelope": ((0, 1, 2), False), "parent": ((0,), True)}


def weighted_mz(survey, numbers, mz, charge, isotopes):
    weighted = total = 0.0
    for number in numbers:
        peaks, mzs = survey[number]
        for k in isotopes:
            centre = mz + k * SPACING / charge
            tolerance = centre * WINDOW_PPM / 1e6
            i = bisect.bisect_right(mzs, centre - tolerance)
            while i < len(mzs) and mzs[i] < centre + tolerance:
                weighted += (mzs[i] - k * SPACING / charge) * peaks[i][1]
                total += peaks[i][1]
                i += 1
    return weighted / total if total > 1e-6 else mz


def main(ms1, ms2, out, run):
    survey = {}
    for number, _, _, _, peaks in scans(ms1):
        peaks.sort()
        survey[number] = (peaks, [p[0] for p in peaks])
    order = sorted(survey)
    parents = {number: int(info["PrecursorScan"]) for number, _, info, _, _ in scans(ms2)
               if "PrecursorScan" in info}
    values = sorted({mz for _, mzs in survey.values() for mz in mzs if 480.0 <= mz < 500.0})
    steps = [b - a for a, b in zip(values, values[1:])]
    if steps:
        print(f"smallest step between survey peak m/z, 480-500: {min(steps):.5f} "
              f"({min(steps) / 490.0 * 1e6:.2f} ppm)")
    fdr = Path(out) / "runs" / run / "fdr"
    declared = precursor_errors.primaries(fdr / "declared_accepted.tsv")
    ksieve = precursor_errors.primaries(fdr / "ksieve_accepted.tsv")
    errors = {"declared": [], "ksieve": [], **{name: [] for name in READINGS}}
    for scan in sorted(set(declared) & set(ksieve)):
        row = ksieve[scan]
        if (peptide(row["sequence"]) != peptide(declared[scan]["sequence"])
                or parents.get(scan) not in survey):
            continue
        at = order.index(parents[scan])
        charge = int(row["charge"])
        mz = float(row["mz"]) - REPORTED_SHIFT
        errors["declared"].append(precursor_errors.error(declared[scan]))
        errors["ksieve"].append(precursor_errors.error(row))
        for name, (isotopes, parent_only) in READINGS.items():
            numbers = [parents[scan]] if parent_only else order[max(at - 4, 0):at + 6]
            estimate = weighted_mz(survey, numbers, mz, charge, isotopes)
            errors[name].append(rescore.ppm_error(row["sequence"], estimate, charge))
    if not errors["ksieve"]:
        print("no scan identified alike by both sides")
        return
    print("reading\tscans\tmedian_ppm\tsd_ppm\tmad_ppm\tlargest_ppm")
    for name, values in errors.items():
        print(precursor_errors.summary(name, values))


if __name__ == "__main__":
    main(*sys.argv[1:5])
