"""The pieces every page of the report is made of: tables, plot figures, the page frame.

Each page is self-contained: its style is inline and it loads nothing from
outside, so it opens from a file anywhere the results are copied to.
"""

import html
import json

STYLE = """
body{font-family:sans-serif;margin:1.5em auto;max-width:70em;color:#222}
table{border-collapse:collapse;margin:.6em 0}td,th{border:1px solid #ccc;padding:.2em .6em}
td.n{text-align:right}th{background:#f2f2f2}.plots{display:flex;flex-wrap:wrap;gap:.5em}
figure.plot{margin:0}.failed{color:#a00}pre{background:#f6f6f6;padding:.6em;overflow-x:auto}
th.sort{cursor:pointer}td.spark{padding:0 .3em}
"""


def table(header, rows, numeric_from=1):
    cells = "".join(f"<th>{html.escape(str(h))}</th>" for h in header)
    body = []
    for row in rows:
        tds = "".join(f'<td{" class=n" if i >= numeric_from else ""}>{html.escape(str(v))}</td>'
                      for i, v in enumerate(row))
        body.append(f"<tr>{tds}</tr>")
    return f"<table><thead><tr>{cells}</tr></thead><tbody>{''.join(body)}</tbody></table>"


def figure(kind, prefix, run, svg, values):
    """A plot with its data: the values it draws ride along in data-values, for a reader or
    a test."""
    data = html.escape(json.dumps(values, sort_keys=True), quote=True)
    return (f'<figure class="plot" id="{prefix}-{kind}" data-plot="{kind}" '
            f'data-run="{html.escape(run, quote=True)}" data-values="{data}">{svg}</figure>')


def page(title, body, script=""):
    return (f"<!DOCTYPE html><html lang=en><head><meta charset=utf-8>"
            f"<title>{html.escape(title)}</title><style>{STYLE}</style></head><body>{body}"
            + (f"<script>{script}</script>" if script else "") + "</body></html>\n")


def ratio(part, whole):
    """A share as a percentage with one decimal, or NA for an empty whole."""
    return f"{100 * part / whole:.1f} %" if whole else "NA"
