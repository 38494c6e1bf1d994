"""Target-decoy q-values once per MS2 scan, for scans that hold several precursors.

kSieve may write several MGF blocks for one MS2 scan, one per precursor it
found. Counted as spectra of their own, every extra block of a scan is one more
chance to score a decoy above the threshold, and a scan's co-eluted blocks,
mostly unidentifiable, crowd the list that sets the cut-off. OpenMS's
FalseDiscoveryRate knows spectra, not scans, and has no way to rank a scan's
blocks against each other, so the grouping is done here:

- primary PSMs: each scan's best-scoring block (its top hit, target or decoy),
  so that target-decoy competition runs once per scan;
- secondary PSMs: the scan's other blocks whose peptide differs from the
  primary's (a block that found the primary's peptide again adds nothing), a
  group with its own target-decoy competition.

Within a group the PSMs are ranked best first; at each score the FDR is D / T,
D and T the decoys and targets scoring at least as well (target-decoy
competition on a concatenated database, the estimate OpenMS's
FalseDiscoveryRate gives for one hit per spectrum, so a side with one block per
scan gets OpenMS's q-values), and a PSM's q-value is the lowest FDR at its score
or any worse one, so q-values never fall as scores get worse. Tied scores share
one q-value.
"""

import re
from dataclasses import dataclass

from wfcommon import block_of

PRIMARY = "primary"
SECONDARY = "secondary"
MODIFICATION = re.compile(r"\(.*?\)|\[.*?\]|\.")


@dataclass
class Psm:
    """One block's top hit. `score`: higher is better. `scan`: the MS2 scan of the block."""

    spectrum: str
    scan: int
    score: float
    decoy: bool
    sequence: str
    fields: dict
    group: str = ""
    q_value: float = 1.0


def peptide(sequence):
    """The amino-acid sequence without modifications or flanking marks."""
    return MODIFICATION.sub("", sequence)


def assign_groups(psms):
    """Marks each PSM primary or secondary; returns the PSMs that take part, primaries first.

    A secondary whose peptide is its scan's primary peptide is left out. Within a
    scan, ties in score go to the block of lowest index in its title (kSieve's
    best rank), then to the block listed first: a search on several threads
    writes a scan's blocks in no fixed order.
    """
    by_scan = {}
    for psm in psms:
        by_scan.setdefault(psm.scan, []).append(psm)
    primaries, secondaries = [], []
    for blocks in by_scan.values():
        best = max(sorted(blocks, key=lambda p: block_of(p.spectrum)), key=lambda p: p.score)
        best.group = PRIMARY
        primaries.append(best)
        for other in blocks:
            if other is not best and peptide(other.sequence) != peptide(best.sequence):
                other.group = SECONDARY
                secondaries.append(other)
    return primaries + secondaries


def set_q_values(group):
    """Target-decoy competition within one group: sets each PSM's q-value."""
    ranked = sorted(group, key=lambda p: -p.score)
    fdrs, decoys, targets = [], 0, 0
    start = 0
    while start < len(ranked):
        end = start
        while end < len(ranked) and ranked[end].score == ranked[start].score:
            decoys += ranked[end].decoy
            targets += not ranked[end].decoy
            end += 1
        fdrs.append((start, end, decoys / targets if targets else 1.0))
        start = end
    lowest = 1.0
    for start, end, fdr in reversed(fdrs):
        lowest = min(lowest, fdr)
        for psm in ranked[start:end]:
            psm.q_value = lowest


def grouped_q_values(psms):
    """Groups the PSMs and gives each its q-value within its group; returns the PSMs kept."""
    kept = assign_groups(psms)
    for name in (PRIMARY, SECONDARY):
        set_q_values([p for p in kept if p.group == name])
    return kept
