#!/usr/bin/python3
"""Identified MS2 scans and peptides of one workflow run, with rescoring and without.

    workflow_counts.py <workflow OUT> <run>

For each side the indexed hits the workflow's search wrote are scored again
through the workflow's own FDR code twice, rescoring on and off, so the two
counts differ only by rescoring. Scans and peptides count target hits
(entrapment hits left out); `primary` and `secondary` are the accepted PSMs of
each group. `rescoring` says whether models were learnt or why Comet's
e-value ranked the PSMs.
"""

import json
import os
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "workflow" / "scripts"))
import fdr  # noqa: E402
from qvalues import PRIMARY, SECONDARY, grouped_q_values, peptide  # noqa: E402


def side_counts(out, run, side, settings, rescoring):
    hits = out / "runs" / run / "search" / f"{side}.idXML"
    precursors = out / "runs" / run / "ksieve" / f"{run}.precursors.tsv"
    psms = []
    if "<PeptideHit" in hits.read_text(encoding="utf-8", errors="replace"):
        with tempfile.TemporaryDirectory() as work, open(os.devnull, "w") as log:
            psms = fdr.exported_hits(hits, Path(work), log)
    rows = fdr.precursor_rows(precursors if side == "ksieve" else "")
    account = fdr.rescored(psms, rows, dict(settings, rescoring=rescoring))
    accepted = [p for p in grouped_q_values(psms)
                if not p.decoy and p.q_value <= settings["fdr"]]
    targets = [p for p in accepted
               if not fdr.entrapment_hit(p.fields.get("accessions", ""), settings)]
    return {"scans": len({p.scan for p in targets}),
            "peptides": len({peptide(p.sequence) for p in targets}),
            PRIMARY: sum(p.group == PRIMARY for p in accepted),
            SECONDARY: sum(p.group == SECONDARY for p in accepted),
            "rescoring": ("trained" if account["notes"] == [] else "fallback")
            if rescoring else "off"}


def main(out, run):
    out = Path(out)
    settings = json.loads((out / "work" / "settings.json").read_text(encoding="utf-8"))
    print("side\trescoring\tscans\tpeptides\tprimary\tsecondary")
    for side in ("declared", "ksieve"):
        for rescoring in (True, False):
            counts = side_counts(out, run, side, settings, rescoring)
            print(f"{side}\t{counts['rescoring']}\t{counts['scans']}\t{counts['peptides']}\t"
                  f"{counts[PRIMARY]}\t{counts[SECONDARY]}")


if __name__ == "__main__":
    main(*sys.argv[1:3])
