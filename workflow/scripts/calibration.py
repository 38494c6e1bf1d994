"""Precursor mass calibration from a first search, one rule for both sides.

An Orbitrap's survey scans drift by a few ppm between calibrations, so a run's
precursors may all sit a few ppm off their peptides, and a search at a fixed
tolerance then loses the ones near its edge. Labs measure the offset from the
run itself: a first search at a wide tolerance (`calibration_tolerance` ppm)
finds the confident PSMs (q <= `fdr`, once per MS2 scan, by Comet's e-value,
as the FDR stage counts them), the median of their precursor mass errors is the
side's offset, and the real search reads copies of the spectra with every
precursor moved by it. Each side measures its own offset from its own
precursors, since the instrument and kSieve estimate m/z from different peaks.
With fewer than MINIMUM_PSMS confident PSMs the median is too loose to trust,
and the side is searched as it is.
"""

import re
import statistics

import rescore
from qvalues import PRIMARY, grouped_q_values
from wfcommon import HYDROGEN, PROTON

MINIMUM_PSMS = 20
# OpenMS turns the neutral mass Comet reports back into an m/z with the hydrogen
# atom's mass, not the proton's, so its m/z are one electron's mass above the
# precursor m/z that was searched.
REPORTED_SHIFT = HYDROGEN - PROTON
NUMBER = re.compile(r"[0-9]+(?:\.([0-9]*))?")


def offset_ppm(psms, fdr):
    """(median precursor error in ppm of the confident primary PSMs, or None when fewer
    than MINIMUM_PSMS; their count). `psms` as fdr.exported_hits gives them."""
    errors = [rescore.ppm_error(p.sequence, float(p.fields["mz"]) - REPORTED_SHIFT,
                                int(p.fields["charge"]))
              for p in grouped_q_values(psms)
              if p.group == PRIMARY and not p.decoy and p.q_value <= fdr
              and rescore.peptide_mass(p.sequence) is not None]
    if len(errors) < MINIMUM_PSMS:
        return None, len(errors)
    return statistics.median(errors), len(errors)


def corrected(mass_text, offset):
    """An m/z or a singly protonated mass as text, with the offset in ppm taken off its
    neutral mass (m/z less the proton is the neutral mass over the charge, whatever the
    charge); written with as many decimals as it had."""
    match = NUMBER.fullmatch(mass_text)
    if not match:
        return mass_text
    decimals = len(match.group(1) or "")
    per_charge = float(mass_text) - PROTON
    return f"{PROTON + per_charge / (1 + offset * 1e-6):.{decimals}f}"


def calibrate_mgf(source, target, offset):
    """Copies an MGF with each PEPMASS m/z corrected (the intensity after it kept)."""
    with open(source, encoding="utf-8", errors="replace") as lines, \
            open(target, "w", encoding="utf-8") as out:
        for line in lines:
            if line.startswith("PEPMASS="):
                mz, _, rest = line[len("PEPMASS="):].partition(" ")
                line = f"PEPMASS={corrected(mz.strip(), offset)}" + (" " + rest if rest else "\n")
            out.write(line)


def calibrate_ms2(source, target, offset):
    """Copies an .ms2 file with each scan's precursor m/z (S line) and each charge
    state's singly protonated mass (Z lines, which Comet searches) corrected."""
    with open(source, encoding="utf-8", errors="replace") as lines, \
            open(target, "w", encoding="utf-8") as out:
        for line in lines:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "S" and len(fields) > 3:
                fields[3] = corrected(fields[3], offset)
                line = "\t".join(fields) + "\n"
            elif fields[0] == "Z" and len(fields) > 2:
                fields[2] = corrected(fields[2], offset)
                line = "\t".join(fields) + "\n"
            out.write(line)


def calibrate(spectra, target, offset):
    """Copies one search input, MGF or .ms2 by its name, with its precursors corrected."""
    (calibrate_mgf if str(spectra).endswith(".mgf") else calibrate_ms2)(spectra, target, offset)
