"""Target-decoy FDR of one run's PSMs, with OpenMS's tools only.

FalseDiscoveryRate gives every PSM its q-value (PSM level, one hit per spectrum),
IDFilter keeps the target PSMs at or below the threshold, and TextExporter writes
both sets as text. This script only turns that text into two plain tables:
`all` (every target PSM with its q-value, for the q-value plot) and `accepted`
(the PSMs that pass). It computes no q-value itself.
"""

import argparse
import csv
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from wfcommon import read_json, run_stage, run_tool, scan_of  # noqa: E402

COLUMNS = ["spectrum", "scan", "charge", "mz", "sequence", "q_value", "accessions"]


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--run", required=True)
    parser.add_argument("--run-dir", required=True)
    parser.add_argument("--side", required=True)
    parser.add_argument("--hits", required=True, help="indexed hits, idXML")
    parser.add_argument("--settings", required=True)
    parser.add_argument("--all", required=True, help="every target PSM with its q-value, TSV")
    parser.add_argument("--accepted", required=True, help="PSMs at the FDR threshold, TSV")
    parser.add_argument("--log", required=True)
    return parser.parse_args()


def exported_psms(path):
    """Rows of TextExporter's PEPTIDE lines, keyed by the names of its #PEPTIDE header."""
    header, rows = None, []
    with open(path, encoding="utf-8", errors="replace") as lines:
        for line in lines:
            fields = line.rstrip("\n").split("\t")
            if fields[0] == "#PEPTIDE":
                header = fields[1:]
            elif fields[0] == "PEPTIDE" and header:
                rows.append(dict(zip(header, fields[1:])))
    return rows


def write_table(psms, path):
    with open(path, "w", encoding="utf-8", newline="") as out:
        writer = csv.writer(out, delimiter="\t", lineterminator="\n")
        writer.writerow(COLUMNS)
        for psm in psms:
            if psm.get("target_decoy", "target") == "decoy":
                continue
            reference = psm.get("spectrum_reference", "")
            writer.writerow([reference, scan_of(reference), psm["charge"], psm["mz"],
                             psm["sequence"], psm["score"], psm.get("accessions", "")])


def export(idxml, tsv, log):
    raw = Path(str(tsv) + ".export")
    run_tool(["TextExporter", "-in", idxml, "-out", raw, "-id:add_metavalues", "0",
              "-id:add_hit_metavalues", "0"], log)
    psms = exported_psms(raw)
    raw.unlink()
    return psms


def fdr(args, log):
    settings = read_json(args.settings)
    hits = Path(args.hits)
    if "<PeptideHit" not in hits.read_text(encoding="utf-8", errors="replace"):
        write_table([], args.all)
        write_table([], args.accepted)
        return
    work = Path(args.all).parent
    scored = work / f"{args.side}.fdr.idXML"
    accepted = work / f"{args.side}.accepted.idXML"
    run_tool(["FalseDiscoveryRate", "-in", hits, "-out", scored, "-PSM", "true",
              "-protein", "false"], log)
    run_tool(["IDFilter", "-in", scored, "-out", accepted, "-score:pep",
              str(settings["fdr"]), "-remove_decoys"], log)
    write_table(export(scored, args.all, log), args.all)
    write_table(export(accepted, args.accepted, log), args.accepted)
    scored.unlink()
    accepted.unlink()


def main():
    args = parse_args()
    run_stage(args.run, args.run_dir, f"fdr_{args.side}", args.log, lambda log: fdr(args, log))


if __name__ == "__main__":
    main()
