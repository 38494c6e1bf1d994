"""Target-decoy FDR of one run's PSMs, once per MS2 scan, after rescoring.

TextExporter (OpenMS) turns the indexed hits into text; rescore.py gives each
PSM a new score from its features (when `rescoring` is on; kSieve's evidence
for each block comes from <run>.precursors.tsv beside the MGF files when kSieve
wrote one); qvalues.py groups each
scan's blocks into a primary PSM and secondary ones and gives every PSM its
q-value within its group (OpenMS's FalseDiscoveryRate counts every block as a
spectrum of its own and cannot group by scan). Two tables come out: `all`
(every target PSM with its group and q-value, for the q-value plot) and
`accepted` (the target PSMs at or below the configured FDR).
"""

import argparse
import csv
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import numpy as np  # noqa: E402
import rescore  # noqa: E402
from qvalues import Psm, blocks_per_scan, grouped_q_values  # noqa: E402
from wfcommon import read_json, run_stage, run_tool, scan_of, write_json  # noqa: E402

COLUMNS = ["spectrum", "scan", "charge", "mz", "sequence", "q_value", "accessions", "group",
           "e_value", "entrapment", "score", "ppm_error", "rt_seconds", "native_id"]


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--run", required=True)
    parser.add_argument("--run-dir", required=True)
    parser.add_argument("--side", required=True)
    parser.add_argument("--hits", required=True, help="indexed hits, idXML")
    parser.add_argument("--settings", required=True)
    parser.add_argument("--all", required=True, help="every target PSM with its q-value, TSV")
    parser.add_argument("--accepted", required=True, help="PSMs at the FDR threshold, TSV")
    parser.add_argument("--rescoring", required=True, help="what rescoring did, JSON")
    parser.add_argument("--precursors", default="",
                        help="kSieve's precursor table of the run, read when it exists")
    parser.add_argument("--scans", required=True,
                        help="each MS2 scan's retention time and native id, TSV")
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


def entrapment_hit(accessions, settings):
    """1 when every protein of the hit is an entrapment protein, else 0."""
    names = [a for a in accessions.split(";") if a]
    prefix = settings["entrapment_prefix"]
    return int(bool(settings["entrapment"] and names and all(a.startswith(prefix) for a in names)))


def scan_table(path):
    """scan -> (retention time in seconds, native id), from the run's scan table."""
    with open(path, encoding="utf-8", errors="replace", newline="") as table:
        return {int(row["scan"]): (row["rt_seconds"], row["native_id"])
                for row in csv.DictReader(table, delimiter="\t")}


def write_table(psms, path, settings, scans):
    with open(path, "w", encoding="utf-8", newline="") as out:
        writer = csv.writer(out, delimiter="\t", lineterminator="\n")
        writer.writerow(COLUMNS)
        for psm in psms:
            if not psm.decoy:
                writer.writerow([psm.spectrum, psm.scan, psm.fields["charge"], psm.fields["mz"],
                                 psm.sequence, f"{psm.q_value:.6g}",
                                 psm.fields.get("accessions", ""), psm.group,
                                 psm.fields["score"],
                                 entrapment_hit(psm.fields.get("accessions", ""), settings),
                                 f"{psm.score:.6g}", f"{psm.fields['ppm_error']:.3f}",
                                 *scans.get(psm.scan, ("", ""))])


def exported_hits(idxml, work, log):
    """Each spectrum's top hit as a Psm, higher scores better (psms_of)."""
    raw = work / (Path(idxml).name + ".export")
    run_tool(["TextExporter", "-in", idxml, "-out", raw, "-id:add_metavalues", "0",
              "-id:add_hit_metavalues", "0"], log)
    rows = exported_psms(raw)
    raw.unlink()
    return psms_of(rows)


def psms_of(rows):
    """Each exported hit of a spectrum with a scan number as a Psm, scored by its e-value
    with the scan's blocks counted (rescore.log_e_value): a scan's primary is the best of
    its blocks, and the best of n draws is as likely to score by chance as one draw
    against n times the candidates, so it pays for them, target or decoy alike."""
    psms = [Psm(spectrum=row.get("spectrum_reference", ""), scan=scan, score=0.0,
                decoy=row.get("target_decoy", "target") == "decoy", sequence=row["sequence"],
                fields=row)
            for row in rows if (scan := scan_of(row.get("spectrum_reference", ""))) is not None]
    blocks = blocks_per_scan(psms)
    for psm in psms:
        psm.fields["scan_blocks"] = blocks[psm.scan]
        psm.score = rescore.log_e_value(psm.fields)
    return psms


def precursor_rows(path):
    """kSieve's precursor table by MGF title; empty when there is none."""
    if not path or not Path(path).is_file():
        return {}
    with open(path, encoding="utf-8", errors="replace", newline="") as table:
        return {row["title"]: row for row in csv.DictReader(table, delimiter="\t")
                if row.get("title")}


def rescored(psms, rows, settings):
    """Gives each PSM its rescored value; returns the account for the report."""
    names = list(rescore.COMET_FEATURES) + (list(rescore.KSIEVE_FEATURES) if rows else [])
    features = np.array([rescore.comet_features(p.fields)
                         + (rescore.ksieve_features(rows.get(p.spectrum)) if rows else [])
                         for p in psms], dtype=float)
    for psm in psms:
        psm.fields["ppm_error"] = rescore.ppm_error(psm.sequence, float(psm.fields["mz"]),
                                                    int(psm.fields["charge"]))
    if not settings["rescoring"] or not psms:
        return {"features": names, "weights": None,
                "notes": ["rescoring off: Comet's e-value ranks the PSMs"]}
    decoys = np.array([p.decoy for p in psms])
    start = np.array([p.score for p in psms])
    scans = [p.scan for p in psms]
    scores, notes = rescore.rescore(features, decoys, scans, start)
    for psm, score in zip(psms, scores):
        psm.score = float(score)
    return {"features": names, "weights": rescore.weights(features, decoys, scans, start),
            "notes": notes}


def fdr(args, log):
    settings = read_json(args.settings)
    hits = Path(args.hits)
    psms = []
    if "<PeptideHit" in hits.read_text(encoding="utf-8", errors="replace"):
        psms = exported_hits(hits, Path(args.all).parent, log)
    account = rescored(psms, precursor_rows(args.precursors), settings)
    write_json(args.rescoring, account)
    psms = grouped_q_values(psms)
    scans = scan_table(args.scans)
    write_table(psms, args.all, settings, scans)
    write_table([p for p in psms if p.q_value <= settings["fdr"]], args.accepted, settings,
                scans)


def main():
    args = parse_args()
    run_stage(args.run, args.run_dir, f"fdr_{args.side}", args.log, lambda log: fdr(args, log))


if __name__ == "__main__":
    main()
