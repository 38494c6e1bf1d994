"""The workflow's closing report: <out>/summary.tsv and <out>/report.html.

It reads whatever the runs left: the per-run tables of the runs that finished
and the failure notes of those that did not, so it is written after a complete
workflow and, just the same, after one in which some runs failed.
"""

import argparse
import html
import json
import sys
from datetime import datetime, timezone
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import overview  # noqa: E402
import run_page  # noqa: E402
from html_parts import page, table  # noqa: E402
from run_page import fdp_text  # noqa: E402
from wfcommon import read_json, tool_version  # noqa: E402

SUMMARY_COLUMNS = ["run", "ms2_scans", "precursors", "psms_declared", "psms_ksieve",
                   "peptides_declared", "peptides_ksieve", "status", "scans_identified_declared",
                   "scans_identified_ksieve", "psms_coeluted", "entrapment_fdp_declared",
                   "entrapment_fdp_ksieve"]


def parse_args():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--out", required=True, help="the workflow's output folder")
    parser.add_argument("--settings", required=True)
    parser.add_argument("--run", action="append", dest="runs", default=[],
                        help="one run of the workflow; repeated, in order")
    return parser.parse_args()


def run_status(out, run):
    """(numbers or None, status text) of one run."""
    run_dir = out / "runs" / run
    table = run_dir / "summary.json"
    if table.is_file():
        return read_json(table), "ok"
    notes = sorted((run_dir / "failed").glob("*.txt")) if (run_dir / "failed").is_dir() else []
    reasons = [" ".join(n.read_text(encoding="utf-8").split()) for n in notes]
    if reasons:
        return None, "failed: " + "; ".join(reasons)
    return None, f"failed: not finished, an earlier step failed (see {out / 'logs'})"


def summary_row(run, numbers, status):
    if numbers is None:
        return [run] + ["NA"] * 6 + [status] + ["NA"] * 5
    declared, ksieve = numbers["declared"], numbers["ksieve"]
    return [run, numbers["ms2_scans"], numbers["precursors"], declared["psms"], ksieve["psms"],
            declared["peptides"], ksieve["peptides"], status, declared["scans"], ksieve["scans"],
            ksieve["psms_secondary"], fdp_text(declared), fdp_text(ksieve)]


def write_summary(path, rows):
    lines = ["\t".join(SUMMARY_COLUMNS)]
    lines += ["\t".join(str(v).replace("\t", " ") for v in row) for row in rows]
    write_page(path, "\n".join(lines) + "\n")


def versions(finished):
    info = finished[0]["info"] if finished else {"companion": {}}
    companion = info["companion"]
    return [
        ("kSieve", info.get("ksieve_version", "no run finished")),
        ("companion", f"{companion.get('Extractor', '?')} {companion.get('ExtractorVersion', '?')}"
                      f" ({companion.get('Library', '?')})"),
        ("Comet", tool_version(["comet-ms"], "version")),
        ("OpenMS", tool_version(["FileInfo", "--help"], "Version:")),
        ("Snakemake", tool_version(["snakemake", "--version"], ".")),
    ]


def project_page(args, settings, results):
    finished = [numbers for _, numbers, _ in results if numbers]
    threshold = settings["fdr"]
    failed = [f"<li><b>{html.escape(r)}</b>: {html.escape(s)}</li>"
              for r, n, s in results if n is None]
    body = "".join([
        "<h1>kSieve workflow report</h1>",
        f"<p>Written {datetime.now(timezone.utc):%Y-%m-%d %H:%M} UTC for {len(results)} runs "
        f"in {html.escape(str(args.out))}; the same numbers, one row per run, are in "
        f'<a href="summary.tsv">summary.tsv</a>, and each run has a PSI mzQC file '
        f"(runs/&lt;run&gt;/&lt;run&gt;.mzQC).</p>",
        f"<p>Every run is searched twice with the same settings, once with the precursors "
        f"kSieve determined and once with those the instrument declared, on the same MS2 scans. "
        f"PSMs are accepted at {threshold:.0%} FDR, target-decoy competition once per MS2 "
        f"scan: each scan's best block is its primary PSM (the primaries of scans searched with "
        f"one block and with several compete apart), the scan's other blocks with another "
        f"peptide are secondary PSMs with a competition of their own. <b>Peptides are the "
        f"distinct amino-acid sequences among the accepted PSMs</b>, modifications ignored; "
        f"identified MS2 scans are the distinct scans among them, and the identification rate "
        f"is identified MS2 scans over MS2 scans.</p>",
        overview.overview(results, threshold),
        f'<h2 class="failed">Failed runs</h2><ul>{"".join(failed)}</ul>' if failed else "",
        "<h2>Versions</h2>", table(["program", "version"], versions(finished), numeric_from=9),
        "<h2>Workflow parameters</h2>",
        f"<pre>{html.escape(json.dumps(settings, indent=1, sort_keys=True))}</pre>",
        "<p>The kSieve keys in force are on each run's page.</p>",
    ])
    return page("kSieve workflow report", body, overview.SCRIPT)


def write_page(path, text):
    """Writes through a temporary name so that a half-written file never looks finished."""
    partial = path.with_name(path.name + ".partial")
    partial.write_text(text, encoding="utf-8")
    partial.replace(path)


def main():
    args = parse_args()
    out = Path(args.out)
    settings = read_json(args.settings)
    results = [(run, *run_status(out, run)) for run in args.runs]
    write_summary(out / "summary.tsv", [summary_row(*r) for r in results])
    for run, numbers, _ in results:
        if numbers:
            write_page(out / "runs" / run / "report.html",
                       run_page.run_page(numbers, settings["fdr"], "../../report.html"))
    report = out / "report.html"
    write_page(report, project_page(args, settings, results))
    failed = [(run, status) for run, numbers, status in results if numbers is None]
    for run, status in failed:
        print(f"run {run}: {status}", file=sys.stderr)
    print(f"kSieve workflow: {len(results) - len(failed)} of {len(results)} runs finished; "
          f"report in {report}", file=sys.stderr)


if __name__ == "__main__":
    main()
