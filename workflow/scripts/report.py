"""The workflow's closing report: <out>/summary.tsv and <out>/report.html.

It reads whatever the runs left: the per-run tables of the runs that finished
and the failure notes of those that did not, so it is written after a complete
workflow and, just the same, after one in which some runs failed.
"""

import argparse
import html
import json
import subprocess
import sys
from datetime import datetime, timezone
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import plots  # noqa: E402
from wfcommon import read_json  # noqa: E402

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


def fdp_text(side):
    """The side's entrapment estimate over all its accepted PSMs, or NA without entrapment."""
    fdp = (side.get("entrapment_fdp") or {}).get("all")
    return "NA" if fdp is None else f"{fdp:.4f}"


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
    partial = path.with_name(path.name + ".partial")
    partial.write_text("\n".join(lines) + "\n", encoding="utf-8")
    partial.replace(path)


def tool_version(args, marker):
    """The line of a program's own output that names its version."""
    try:
        done = subprocess.run(args, capture_output=True, text=True, errors="replace",
                              timeout=60, check=False)
    except (OSError, subprocess.TimeoutExpired):
        return "not found"
    for line in (done.stdout + done.stderr).splitlines():
        if marker in line:
            return " ".join(line.replace('"', "").split())
    return "unknown"


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


def table(header, rows, numeric_from=1):
    cells = "".join(f"<th>{html.escape(str(h))}</th>" for h in header)
    body = []
    for row in rows:
        tds = "".join(f'<td{" class=n" if i >= numeric_from else ""}>{html.escape(str(v))}</td>'
                      for i, v in enumerate(row))
        body.append(f"<tr>{tds}</tr>")
    return f"<table><thead><tr>{cells}</tr></thead><tbody>{''.join(body)}</tbody></table>"


def figure(kind, prefix, run, svg, values):
    data = html.escape(json.dumps(values, sort_keys=True), quote=True)
    return (f'<figure class="plot" id="{prefix}-{kind}" data-plot="{kind}" '
            f'data-run="{html.escape(run, quote=True)}" data-values="{data}">{svg}</figure>')


def validation_section(counts):
    """What kSieve's precursor validation removed and corrected, by reason; nothing
    when the stage was off."""
    if not counts:
        return ""
    return ("<h3>Precursor validation: removed and corrected, by reason</h3>"
            f"{table(['precursors', 'count'], counts)}")


def headline(numbers):
    declared, ksieve = numbers["declared"], numbers["ksieve"]
    return (f"<p class=headline><b>Identified MS2 scans: {declared['scans']} declared, "
            f"{ksieve['scans']} kSieve. Peptides: {declared['peptides']} declared, "
            f"{ksieve['peptides']} kSieve.</b> Identifications from co-eluted precursors "
            f"(secondary PSMs): {ksieve['psms_secondary']}.</p>")


def peptide_comparison(numbers):
    """Peptides that kSieve's precursors gained, lost and shared against the declared ones."""
    declared = set(numbers["declared"]["peptide_list"])
    ksieve = set(numbers["ksieve"]["peptide_list"])
    rows = [["gained (kSieve only)", len(ksieve - declared)],
            ["lost (declared only)", len(declared - ksieve)],
            ["shared", len(ksieve & declared)]]
    entrapment = [[name, *(f"{s['entrapment_fdp'][g]:.4f}" if s["entrapment_fdp"][g] is not None
                           else "no PSM" for g in ("primary", "secondary"))]
                  for name, s in (("declared", numbers["declared"]), ("kSieve", numbers["ksieve"]))
                  if s["entrapment_fdp"]]
    errors = [[name, *((f"{e['median']:.2f}", f"{e['q1']:.2f} to {e['q3']:.2f}", e["psms"])
                       if e else ("no PSM", "", 0))]
              for name, e in (("declared", numbers["declared"]["mass_error_ppm"]),
                              ("kSieve", numbers["ksieve"]["mass_error_ppm"]))]
    return (f"<h3>Peptides, kSieve against declared</h3>{table(['peptides', 'count'], rows)}"
            f"<h3>Precursor mass error of the accepted PSMs (ppm, after whole isotope steps)</h3>"
            f"{table(['side', 'median', 'quartiles', 'PSMs'], errors)}"
            f"{rescoring_section(numbers)}"
            + (f"<h3>Entrapment FDP estimate by group</h3>"
               f"{table(['side', 'primary', 'secondary'], entrapment)}" if entrapment else ""))


def rescoring_section(numbers):
    """Which features carried weight in each side's model, and the folds that kept the e-value."""
    parts = ["<h3>Rescoring</h3>"]
    for name, side in (("declared", numbers["declared"]), ("kSieve", numbers["ksieve"])):
        account = side["rescoring"]
        notes = "".join(f"<li>{html.escape(n)}</li>" for n in account["notes"])
        parts.append(f"<p>{name}:</p>" + (f"<ul>{notes}</ul>" if notes else ""))
        if account["weights"]:
            ranked = sorted(zip(account["features"], account["weights"]), key=lambda fw: -abs(fw[1]))
            parts.append(table(["feature", "weight (standardised)"],
                               [[f, f"{w:+.3f}"] for f, w in ranked]))
    return "".join(parts)


def run_section(index, numbers, threshold):
    run, prefix = numbers["run"], f"run{index}"
    sides = [("declared precursors", numbers["declared"]), ("kSieve precursors", numbers["ksieve"])]
    counts = table(["precursors searched", "identified MS2 scans", "peptides", "PSMs",
                    "of them secondary (co-eluted)", "entrapment FDP estimate"],
                   [[name, s["scans"], s["peptides"], s["psms"], s["psms_secondary"],
                     fdp_text(s)] for name, s in sides])
    account = numbers["info"]["scan_account"]
    validation = numbers["info"].get("validation")
    figures = [
        figure("precursors", prefix, run,
               plots.precursors_per_scan(prefix, numbers["precursors_per_scan"]),
               numbers["precursors_per_scan"]),
        figure("charges", prefix, run, plots.charge_states(prefix, numbers["charges"]),
               numbers["charges"]),
        figure("shifts", prefix, run, plots.mass_shifts(prefix, numbers["mass_shifts"]),
               numbers["mass_shifts"]),
        figure("qvalue", prefix, run,
               plots.psms_against_q(prefix, numbers, threshold),
               {s: numbers[s]["q_curve"] for s in ("declared", "ksieve")}),
    ]
    return (f'<section class="run" id="{prefix}" data-run="{html.escape(run, quote=True)}">'
            f"<h2>{html.escape(run)}</h2>"
            f"{headline(numbers)}"
            f"<p>{numbers['ms2_scans']} MS2 scans written by kSieve, with "
            f"{numbers['precursors']} precursors.</p>{counts}{peptide_comparison(numbers)}"
            f"<h3>The companion's account of the scans</h3>"
            f"{table(['count', 'value'], account) if account else '<p>none recorded</p>'}"
            f"{validation_section(validation)}"
            f'<div class="plots">{"".join(figures)}</div></section>')


STYLE = """
body{font-family:sans-serif;margin:1.5em auto;max-width:70em;color:#222}
table{border-collapse:collapse;margin:.6em 0}td,th{border:1px solid #ccc;padding:.2em .6em}
td.n{text-align:right}th{background:#f2f2f2}.plots{display:flex;flex-wrap:wrap;gap:.5em}
figure.plot{margin:0}.failed{color:#a00}pre{background:#f6f6f6;padding:.6em;overflow-x:auto}
"""


def page(args, settings, results):
    finished = [numbers for _, numbers, _ in results if numbers]
    threshold = settings["fdr"]
    summary = table(SUMMARY_COLUMNS, [summary_row(r, n, s) for r, n, s in results])
    failed = [f"<li><b>{html.escape(r)}</b>: {html.escape(s)}</li>"
              for r, n, s in results if n is None]
    echo = finished[0]["info"]["parameters"] if finished else []
    parts = [
        "<!DOCTYPE html><html lang=en><head><meta charset=utf-8>",
        "<title>kSieve workflow report</title>", f"<style>{STYLE}</style></head><body>",
        "<h1>kSieve workflow report</h1>",
        f"<p>Written {datetime.now(timezone.utc):%Y-%m-%d %H:%M} UTC for {len(results)} runs "
        f"in {html.escape(str(args.out))}.</p>",
        f"<p>Every run is searched twice with the same settings, once with the precursors "
        f"kSieve determined and once with those the instrument declared, on the same MS2 scans. "
        f"PSMs are accepted at {threshold:.0%} FDR, target-decoy competition once per MS2 "
        f"scan: each scan's best block is its primary PSM, the scan's other blocks with another "
        f"peptide are secondary PSMs with a competition of their own. <b>Peptides are the "
        f"distinct amino-acid sequences among the accepted PSMs</b>, modifications ignored; "
        f"identified MS2 scans are the distinct scans among them.</p>",
        "<h2>Summary</h2>", summary,
        f'<h2 class="failed">Failed runs</h2><ul>{"".join(failed)}</ul>' if failed else "",
    ]
    parts += [run_section(i, n, threshold) for i, n in enumerate(finished)]
    parts += [
        "<h2>Versions</h2>", table(["program", "version"], versions(finished), numeric_from=9),
        "<h2>Parameters</h2><h3>Workflow</h3>",
        f"<pre>{html.escape(json.dumps(settings, indent=1, sort_keys=True))}</pre>",
        "<h3>kSieve</h3>", f"<pre>{html.escape(chr(10).join(echo))}</pre>",
        "</body></html>\n",
    ]
    return "".join(parts)


def main():
    args = parse_args()
    out = Path(args.out)
    settings = read_json(args.settings)
    results = [(run, *run_status(out, run)) for run in args.runs]
    write_summary(out / "summary.tsv", [summary_row(*r) for r in results])
    report = out / "report.html"
    partial = report.with_name(report.name + ".partial")
    partial.write_text(page(args, settings, results), encoding="utf-8")
    partial.replace(report)
    failed = [(run, status) for run, numbers, status in results if numbers is None]
    for run, status in failed:
        print(f"run {run}: {status}", file=sys.stderr)
    print(f"kSieve workflow: {len(results) - len(failed)} of {len(results)} runs finished; "
          f"report in {report}", file=sys.stderr)


if __name__ == "__main__":
    main()
