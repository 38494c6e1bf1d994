"""One run's numbers and plot data, from kSieve's precursor table and the two PSM tables.

Counts: MS2 scans (rows of the precursor table: the scans kSieve wrote, which are
the scans both searches cover), precursors, and for each side the PSMs, the
identified MS2 scans and the peptides at the FDR threshold. Peptides are the
distinct amino-acid sequences among the accepted PSMs, modifications ignored.
"""

import argparse
import bisect
import csv
import re
import sys
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import ksieve_account  # noqa: E402
import mzqc  # noqa: E402
from wfcommon import PROTON, read_json, tool_version, write_json  # noqa: E402

SHIFT_BIN = 0.02  # daltons: fine enough to part isotope steps (1.003 Da) from 1 Da, coarse enough to pool ppm noise
Q_GRID = [i / 1000 for i in range(101)]  # 0 to 0.1 in steps of 0.001
SHIFT_VIEW = 4.5  # daltons either side of the declared mass; shifts beyond are counted apart


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--run", required=True)
    parser.add_argument("--table", required=True, help="kSieve's precursor table")
    parser.add_argument("--info", required=True)
    parser.add_argument("--psms", nargs=4, required=True,
                        metavar=("DECLARED_ALL", "DECLARED_ACCEPTED", "KSIEVE_ALL", "KSIEVE_ACCEPTED"))
    parser.add_argument("--rescoring", nargs=2, required=True,
                        metavar=("DECLARED", "KSIEVE"), help="what rescoring did, JSON")
    parser.add_argument("--input", required=True, help="the run's instrument file")
    parser.add_argument("--parameter-file", default="",
                        help="the workflow's kSieve parameter file, read when kSieve ran on it")
    parser.add_argument("--ksieve-job-log", default="",
                        help="the workflow's log of the kSieve job, which names what kSieve ran on")
    parser.add_argument("--hits", nargs=2, metavar=("DECLARED", "KSIEVE"),
                        help="each side's search hits (idXML), for the score distributions")
    parser.add_argument("--settings", help="the workflow's settings, with --hits")
    parser.add_argument("--out", required=True)
    parser.add_argument("--mzqc", required=True, help="the run's mzQC file")
    parser.add_argument("--entrapment", action="store_true",
                        help="the search had an entrapment database")
    return parser.parse_args()


def precursor_rows(table):
    """(scan, declared m/z, declared charge, [(m/z, charge), ...]) per row of the table."""
    rows = []
    with open(table, encoding="utf-8", errors="replace") as lines:
        next(lines, None)
        for line in lines:
            fields = [f.strip() for f in line.rstrip("\r\n").rstrip(", ").split(",")]
            if len(fields) < 6:
                continue
            precursors = [(float(fields[i + 1]), int(fields[i + 2]))
                          for i in range(6, len(fields) - 2, 3)]
            rows.append((int(fields[2]), float(fields[3]), int(fields[4]), precursors))
    return rows


def neutral_mass(mz, charge):
    return (mz - PROTON) * charge


def mass_shifts(rows):
    """Per scan with a declared charge: kSieve's precursor nearest in mass to the declared one."""
    shifts = []
    for scan, mz, charge, precursors in rows:
        if charge <= 0 or not precursors:
            continue
        declared = neutral_mass(mz, charge)
        nearest = min((neutral_mass(m, z) - declared for m, z in precursors if z > 0),
                      key=abs, default=None)
        if nearest is not None:
            shifts.append([scan, round(nearest, 5)])
    return shifts


def shift_histogram(shifts):
    """Mass shifts pooled in bins of SHIFT_BIN: {bin centre: scans}, and how many lie off scale.

    A project's report holds every run, so each plot keeps a bounded number of marks
    however many scans the run has.
    """
    bins = Counter()
    for _, shift in shifts:
        if abs(shift) <= SHIFT_VIEW:
            bins[f"{round(shift / SHIFT_BIN) * SHIFT_BIN:.2f}"] += 1
    return {"bins": dict(sorted(bins.items(), key=lambda item: float(item[0]))),
            "off_scale": sum(1 for _, shift in shifts if abs(shift) > SHIFT_VIEW)}


def q_curve(q_values):
    """[q, target PSMs with a q-value at or below q] on a fixed grid of q from 0 to 0.1.

    The grid keeps the plot the same size for a run of 100 PSMs or 100,000, and
    covers the range in which an FDR threshold is chosen.
    """
    ordered = sorted(q_values)
    return [[q, bisect.bisect_right(ordered, q)] for q in Q_GRID]


def read_psms(path):
    with open(path, encoding="utf-8") as table:
        return list(csv.DictReader(table, delimiter="\t"))


def peptide(sequence):
    return re.sub(r"\(.*?\)|\.", "", sequence)


def entrapment_fdp(accepted):
    """The combined entrapment estimate of the false-discovery proportion of the PSMs,
    N_e (1 + 1/r) / (N_t + N_e) with r = 1 (entrapment as large as the targets); None
    for no PSM."""
    entrapment = sum(p["entrapment"] == "1" for p in accepted)
    return 2 * entrapment / len(accepted) if accepted else None


def mass_error(accepted):
    """Median and quartiles of the accepted target PSMs' precursor errors in ppm; None for none."""
    errors = sorted(float(p["ppm_error"]) for p in accepted if p["entrapment"] != "1")
    if not errors:
        return None
    at = lambda share: errors[min(len(errors) - 1, int(share * len(errors)))]  # noqa: E731
    return {"median": at(0.5), "q1": at(0.25), "q3": at(0.75), "psms": len(errors)}


def side_numbers(all_path, accepted_path, entrapment, rescoring):
    """Counts of one side. Scans and peptides count targets only, entrapment hits
    being false by construction; the entrapment estimate is given per group."""
    accepted = read_psms(accepted_path)
    targets = [p for p in accepted if p["entrapment"] != "1"]
    groups = {g: [p for p in accepted if p["group"] == g] for g in ("primary", "secondary")}
    return {
        "psms": len(accepted),
        "psms_secondary": len(groups["secondary"]),
        "scans": len({p["scan"] for p in targets}),
        "peptides": len({peptide(p["sequence"]) for p in targets}),
        "peptide_list": sorted({peptide(p["sequence"]) for p in targets}),
        "q_curve": q_curve([float(p["q_value"]) for p in read_psms(all_path)]),
        "mass_error_ppm": mass_error(accepted),
        "rescoring": read_json(rescoring),
        "entrapment_fdp": ({"all": entrapment_fdp(accepted),
                            **{g: entrapment_fdp(psms) for g, psms in groups.items()}}
                           if entrapment else None),
    }


def score_distributions(args, precursors):
    """Each side's target and decoy scores after rescoring; None without the hits."""
    if not args.hits:
        return None
    import score_distribution  # scikit-learn loads slowly: only when there are hits to rescore

    settings = read_json(args.settings)
    return {side: score_distribution.distribution(hits, table, settings)
            for side, hits, table in (("declared", args.hits[0], ""),
                                      ("ksieve", args.hits[1], precursors))}


def calibrations(args):
    """Each side's precursor calibration (search.py writes it beside the side's hits with
    `calibration: true`); None when the run was not calibrated."""
    found = {}
    for side, hits in zip(("declared", "ksieve"), args.hits or ()):
        path = Path(hits).parent / f"{side}_calibration.json"
        if path.is_file():
            found[side] = read_json(path)
    return found or None


def ksieve_numbers(args):
    """kSieve's account, the keys in force and the time span, from the files beside its MGF."""
    folder = Path(args.table).parent
    log = folder / "kSievePlusLog.txt"
    log_text = log.read_text(encoding="utf-8", errors="replace") if log.is_file() else ""
    precursors = folder / f"{args.run}.precursors.tsv"
    summary = folder / f"{args.run}.summary.json"
    job_log = Path(args.ksieve_job_log) if args.ksieve_job_log else None
    job_text = job_log.read_text(encoding="utf-8", errors="replace") if job_log and \
        job_log.is_file() else ""
    used = ksieve_account.parameter_file_used(job_text, args.parameter_file)
    return {
        "account": ksieve_account.account(summary, precursors),
        "keys": ksieve_account.keys_in_force(log_text, args.parameter_file if used else "",
                                             args.input, summary),
        "retention_span": ksieve_account.retention_span(precursors),
        "scores": score_distributions(args, precursors),
    }


def main():
    args = parse_args()
    rows = precursor_rows(args.table)
    declared_charges = Counter(str(charge) for _, _, charge, _ in rows)
    ksieve_charges = Counter(str(z) for *_, precursors in rows for _, z in precursors)
    numbers = {
        "run": args.run,
        "ms2_scans": len(rows),
        "precursors": sum(len(p) for *_, p in rows),
        "precursors_per_scan": Counter(str(len(p)) for *_, p in rows),
        "charges": {"declared": declared_charges, "ksieve": ksieve_charges},
        "mass_shifts": shift_histogram(mass_shifts(rows)),
        "declared": side_numbers(*args.psms[0:2], args.entrapment, args.rescoring[0]),
        "ksieve": side_numbers(*args.psms[2:4], args.entrapment, args.rescoring[1]),
        "info": read_json(args.info),
        "calibration": calibrations(args),
        **ksieve_numbers(args),
    }
    versions = {"kSieve": numbers["info"].get("ksieve_version", "unknown"),
                "Comet": tool_version(["comet-ms"], "version")}
    write_json(args.mzqc, mzqc.document(numbers, args.input, versions))
    write_json(args.out, numbers)


if __name__ == "__main__":
    main()
