"""Target and decoy score distributions of one side, in the score its FDR used.

The PSM tables keep targets only, so the distributions are worked out again from
the search's hits by the FDR stage's own code: the same export, the same seeded
rescoring (a run rescored twice gets the same scores), the same grouping into
primary and secondary PSMs. The scores are pooled in a fixed number of bins
spanning the side's scores, so a plot keeps its size however many PSMs a run has.
"""

import tempfile
from pathlib import Path

import fdr
from qvalues import grouped_q_values

BINS = 40
GROUPS = ("primary", "secondary")


def rescored_psms(hits, precursors, settings):
    """Every PSM of the side (targets and decoys) with its FDR score and group."""
    psms = []
    if "<PeptideHit" in Path(hits).read_text(encoding="utf-8", errors="replace"):
        with tempfile.TemporaryDirectory(prefix="ksieve-scores-") as work, \
                open(Path(work) / "export.log", "w", encoding="utf-8") as log:
            psms = fdr.exported_hits(hits, Path(work), log)
    fdr.rescored(psms, fdr.precursor_rows(precursors), settings)
    return grouped_q_values(psms)


def histogram(psms):
    """{"edges": [...], group: {"target": [...], "decoy": [...]}} over BINS equal bins from the
    lowest to the highest score; None for no PSM."""
    if not psms:
        return None
    low = min(p.score for p in psms)
    high = max(p.score for p in psms)
    width = (high - low) / BINS or 1.0
    result = {"edges": [round(low + i * width, 6) for i in range(BINS + 1)]}
    for group in GROUPS:
        counts = {"target": [0] * BINS, "decoy": [0] * BINS}
        for psm in psms:
            if psm.group == group:
                index = min(BINS - 1, int((psm.score - low) / width))
                counts["decoy" if psm.decoy else "target"][index] += 1
        result[group] = counts
    return result


def distribution(hits, precursors, settings):
    return histogram(rescored_psms(hits, precursors, settings))
