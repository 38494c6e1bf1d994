#!/usr/bin/python3
"""True false-discovery proportion of the workflow's accepted PSMs on a simulated run.

    fdr_truth.py <simulator truth CSV> <workflow OUT> <run>

The simulator's truth names, for every MS2 scan, each peptide its isolation
window really held. An accepted PSM is false when its peptide (modifications
left out, I and L equal, as a mass spectrum cannot tell them apart) is none of
its scan's peptides; an entrapment hit is false by construction and so is false
here too. For each side and group the table gives the accepted PSMs, the false
ones, the true proportion and the entrapment estimate, N_e (1 + 1/r) / (N_t +
N_e) with r = 1, as the workflow's report computes it.
"""

import csv
import re
import sys
from collections import defaultdict
from pathlib import Path

MODIFICATION = re.compile(r"\(.*?\)|\[.*?\]|\.")


def plain(sequence):
    """The residues of a peptide, modifications left out, I read as L."""
    return MODIFICATION.sub("", sequence).replace("I", "L")


def truth_peptides(path):
    """MS2 scan -> the peptides its isolation window held."""
    held = defaultdict(set)
    with open(path, encoding="utf-8", newline="") as table:
        for row in csv.DictReader(table):
            held[int(row["ms2_scan"])].add(plain(row["sequence"]))
    return held


def group_figures(psms, held):
    """(accepted, false, true FDP, entrapment estimate) of a list of accepted PSM rows."""
    false = sum(plain(p["sequence"]) not in held.get(int(p["scan"]), ()) for p in psms)
    trapped = sum(p["entrapment"] == "1" for p in psms)
    if not psms:
        return 0, 0, None, None
    return len(psms), false, false / len(psms), 2 * trapped / len(psms)


def rows(truth, out, run):
    held = truth_peptides(truth)
    result = []
    for side in ("declared", "ksieve"):
        path = Path(out) / "runs" / run / "fdr" / f"{side}_accepted.tsv"
        with open(path, encoding="utf-8", newline="") as table:
            accepted = list(csv.DictReader(table, delimiter="\t"))
        for group in ("all", "primary", "secondary"):
            chosen = [p for p in accepted if group == "all" or p["group"] == group]
            result.append((side, group, *group_figures(chosen, held)))
    return result


def shown(value):
    return "NA" if value is None else f"{100 * value:.2f} %"


def main(truth, out, run):
    print("side\tgroup\taccepted\tfalse\ttrue_fdp\tentrapment_estimate")
    for side, group, accepted, false, fdp, estimate in rows(truth, out, run):
        print(f"{side}\t{group}\t{accepted}\t{false}\t{shown(fdp)}\t{shown(estimate)}")


if __name__ == "__main__":
    main(*sys.argv[1:4])
