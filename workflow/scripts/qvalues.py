"""Target-decoy q-values once per MS2 scan, for scans that hold several precursors.

kSieve may write several MGF blocks for one MS2 scan, one per precursor it
found. Counted as spectra of their own, every extra block of a scan is one more
chance to score a decoy above the threshold, and a scan's co-eluted blocks,
mostly unidentifiable, crowd the list that sets the cut-off. OpenMS's
FalseDiscoveryRate knows spectra, not scans, and has no way to rank a scan's
blocks against each other, so the grouping is done here:

- primary PSMs: each scan's best-scoring block (its top hit, target or decoy),
  so that target-decoy competition runs once per scan; the primaries of scans
  searched with one block and of scans searched with several compete apart
  (below);
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

Why the primaries compete in two strata. A scan whose window held several
precursors is a chimeric spectrum: its best block is the best of several
searches, and its fragments are shared out between ions, so its null
distribution and its share of correct identifications differ from a scan
searched with one precursor. Pooled, one decoy that wins a chimeric scan sits
among the clean scans' targets and, with a few dozen targets above it, takes
all below it past 1 %, though the clean scans drew no such decoy. Separate
target-decoy competition per class of spectra set by the precursors, not by
the scores (group-wise FDR, as for secondaries above, or for modified peptides)
keeps each class's FDR at the threshold, and so the FDR of the two together.
The strata count the blocks that found any hit (a block whose mass windows hold
no candidate is no search), the same count a scan's best block pays for
(fdr.psms_of). A side with one block per scan has one stratum, as before.
"""

import re
from collections import Counter
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


def blocks_per_scan(psms):
    """How many blocks of each scan found a hit: scan -> count."""
    return Counter(psm.scan for psm in psms)


def grouped_q_values(psms):
    """Groups the PSMs and gives each its q-value within its group, the primaries of scans
    of one block and of several blocks apart; returns the PSMs kept."""
    kept = assign_groups(psms)
    blocks = blocks_per_scan(psms)
    primaries = [p for p in kept if p.group == PRIMARY]
    set_q_values([p for p in primaries if blocks[p.scan] == 1])
    set_q_values([p for p in primaries if blocks[p.scan] > 1])
    set_q_values([p for p in kept if p.group == SECONDARY])
    return kept
