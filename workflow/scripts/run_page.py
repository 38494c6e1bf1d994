"""One run's own page of the report: <out>/runs/<run>/report.html.

What the lab reads about a run: the headline, the identification rate of both
sides, kSieve's own account of the precursors, peptides gained, lost and shared,
the precursor mass error, what rescoring did and the scores it gave targets
and decoys, the companion's account of the scans, the plots, and every kSieve
key that was in force.
"""

import html

import plots
from html_parts import figure, page, ratio, table


def fdp_text(side):
    """The side's entrapment estimate over all its accepted PSMs, or NA without entrapment."""
    fdp = (side.get("entrapment_fdp") or {}).get("all")
    return "NA" if fdp is None else f"{fdp:.4f}"


def headline(numbers):
    declared, ksieve = numbers["declared"], numbers["ksieve"]
    return (f"<p class=headline><b>Identified MS2 scans: {declared['scans']} declared, "
            f"{ksieve['scans']} kSieve. Peptides: {declared['peptides']} declared, "
            f"{ksieve['peptides']} kSieve.</b> Identifications from co-eluted precursors "
            f"(secondary PSMs): {ksieve['psms_secondary']}.</p>")


def validation_section(counts):
    """What kSieve's precursor validation removed and corrected, by reason; nothing
    when the stage was off."""
    if not counts:
        return ""
    return ("<h3>Precursor validation: removed and corrected, by reason</h3>"
            f"{table(['precursors', 'count'], counts)}")


def account_section(account):
    """kSieve's account of the declared precursors, scan by scan, and the co-eluted ones."""
    if account is None:
        return ("<h3>kSieve's account of the precursors</h3><p class=account-missing>Not "
                "written for this run: kSieve writes it with <code>precursor_table = 1</code> "
                "(<code>ksieve_parameters</code> in the workflow's configuration).</p>")
    rows = [[label, "NA" if count is None else count] for label, count in account["scans"]]
    rows.append(["co-eluted precursors (precursors, not scans)",
                 "NA" if account["coeluted_precursors"] is None
                 else account["coeluted_precursors"]])
    return (f"<h3>kSieve's account of the precursors</h3><p>{account['scans_written']} MS2 "
            f"scans written with {account['precursors']} precursors; each scan counted once, "
            f"by what became of its declared precursor.</p>"
            f'<div id="account">{table(["MS2 scans", "count"], rows)}</div>')


def rate_table(numbers):
    """Identified MS2 scans over MS2 scans, both sides."""
    scans = numbers["ms2_scans"]
    return table(["side", "identified", "MS2 scans", "rate"],
                 [[name, numbers[side]["scans"], scans, ratio(numbers[side]["scans"], scans)]
                  for name, side in (("declared", "declared"), ("kSieve", "ksieve"))])


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
            f"{calibration_section(numbers.get('calibration'))}"
            f"{rescoring_section(numbers)}"
            + (f"<h3>Entrapment FDP estimate by group</h3>"
               f"{table(['side', 'primary', 'secondary'], entrapment)}" if entrapment else ""))


def calibration_section(calibration):
    """The offset each side's precursors were moved by before the search; nothing when
    the run was not calibrated."""
    if not calibration:
        return ""
    rows = [[name, f"{c['offset_ppm']:.2f}" if c["offset_ppm"] is not None
             else "none: too few PSMs", c["psms"], c["first_search_tolerance_ppm"]]
            for name, c in (("declared", calibration.get("declared")),
                            ("kSieve", calibration.get("ksieve"))) if c]
    return ("<h3>Precursor calibration (offset taken off before the search, ppm)</h3>"
            f"{table(['side', 'offset', 'PSMs it came from', 'first search (ppm)'], rows)}")


def rescoring_section(numbers):
    """Which features carried weight in each side's model, and the folds that kept the e-value."""
    parts = ["<h3>Rescoring</h3>"]
    for name, side in (("declared", numbers["declared"]), ("kSieve", numbers["ksieve"])):
        account = side["rescoring"]
        notes = "".join(f"<li>{html.escape(n)}</li>" for n in account["notes"])
        parts.append(f"<p>{name}:</p>" + (f"<ul>{notes}</ul>" if notes else ""))
        if account["weights"]:
            ranked = sorted(zip(account["features"], account["weights"]),
                            key=lambda fw: -abs(fw[1]))
            parts.append(table(["feature", "weight (standardised)"],
                               [[f, f"{w:+.3f}"] for f, w in ranked]))
    return "".join(parts)


def keys_section(keys):
    return ("<h3>kSieve keys in force</h3>"
            f'<div id="keys">{table(["key", "value", "read from"], keys, numeric_from=9)}</div>')


def run_figures(prefix, numbers, threshold):
    run = numbers["run"]
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
    for side, label, _ in plots.SIDES:
        scores = (numbers.get("scores") or {}).get(side)
        if scores:
            figures.append(figure(f"scores-{side}", prefix, run,
                                  plots.score_distribution(f"{prefix}-scores-{side}", label,
                                                           scores), scores))
    return figures


def run_page(numbers, threshold, overview_link):
    """The page of one finished run."""
    run, prefix = numbers["run"], "run"
    sides = [("declared precursors", numbers["declared"]), ("kSieve precursors", numbers["ksieve"])]
    counts = table(["precursors searched", "identified MS2 scans", "peptides", "PSMs",
                    "of them secondary (co-eluted)", "entrapment FDP estimate"],
                   [[name, s["scans"], s["peptides"], s["psms"], s["psms_secondary"],
                     fdp_text(s)] for name, s in sides])
    account = numbers["info"]["scan_account"]
    scores_note = ("" if numbers.get("scores") else
                   "<p>Score distributions not recorded for this run.</p>")
    body = (f'<p><a id="overview-link" href="{overview_link}">All runs</a></p>'
            f'<section class="run" id="{prefix}" data-run="{html.escape(run, quote=True)}">'
            f"<h1>{html.escape(run)}</h1>{headline(numbers)}"
            f"<p>{numbers['ms2_scans']} MS2 scans written by kSieve, with "
            f"{numbers['precursors']} precursors.</p>{counts}"
            f"<h3>Identification rate (identified MS2 scans / MS2 scans)</h3>"
            f'<div id="rate">{rate_table(numbers)}</div>'
            f"{account_section(numbers.get('account'))}{peptide_comparison(numbers)}"
            f"<h3>The companion's account of the scans</h3>"
            f"{table(['count', 'value'], account) if account else '<p>none recorded</p>'}"
            f"{validation_section(numbers['info'].get('validation'))}"
            f"<h3>Plots</h3>{scores_note}"
            f'<div class="plots">{"".join(run_figures(prefix, numbers, threshold))}</div>'
            f"{keys_section(numbers.get('keys') or [])}</section>")
    return page(f"kSieve workflow: {run}", body)
