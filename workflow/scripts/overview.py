"""The project page's overview: one table row and one sparkline per run.

The table stays readable at hundreds of runs: it shows a page of PAGE_ROWS rows
at a time, any column sorts by a click on its header, and each row is a few
hundred bytes (the sparkline is hand-written SVG), so the page grows linearly
with the runs and nothing on it compares runs pairwise. Each run's name links to
its own page. Without scripts every row shows, unsorted.
"""

import html
from urllib.parse import quote

import plots
from html_parts import ratio

PAGE_ROWS = 50
COLUMNS = ("run", "status", "MS2 scans", "identified scans, declared",
           "identified scans, kSieve", "identification rate, declared",
           "identification rate, kSieve", "peptides, declared", "peptides, kSieve",
           "co-eluted PSMs", "PSMs against q (declared grey, kSieve blue)")
SCRIPT = """
(function(){
const table=document.getElementById('overview'),body=table.tBodies[0],size=%d;
const info=document.getElementById('overview-page');let rows=Array.from(body.rows);
let page=0,column=-1,rising=true;
function show(){const pages=Math.max(1,Math.ceil(rows.length/size));
page=Math.min(Math.max(page,0),pages-1);
rows.forEach((r,i)=>{r.hidden=Math.floor(i/size)!==page;body.appendChild(r);});
info.textContent='page '+(page+1)+' of '+pages+', '+rows.length+' runs';}
function key(row,i,numeric){const v=row.cells[i].dataset.sort;return numeric?parseFloat(v):v;}
table.tHead.querySelectorAll('th.sort').forEach((th,i)=>th.addEventListener('click',()=>{
rising=column===i?!rising:true;column=i;const numeric=th.dataset.numeric==='1';
rows.sort((a,b)=>{const x=key(a,i,numeric),y=key(b,i,numeric);
const c=numeric?x-y:x.localeCompare(y);return rising?c:-c;});page=0;show();}));
document.getElementById('overview-previous').addEventListener('click',()=>{page--;show();});
document.getElementById('overview-next').addEventListener('click',()=>{page++;show();});
show();})();
""" % PAGE_ROWS


def detail_link(run):
    """The run's own page, relative to the project page; the name is quoted as a URL path."""
    return f"runs/{quote(run, safe='')}/report.html"


def cell(value, sort=None):
    """A table cell whose sort key (a number, or -1 for none) rides in data-sort."""
    key = -1 if sort is None else sort
    return f'<td class=n data-sort="{key}">{html.escape(str(value))}</td>'


def row(index, run, numbers, status, threshold):
    name = (f'<td data-sort="{html.escape(run, quote=True)}"><a href="'
            f'{html.escape(detail_link(run), quote=True)}">{html.escape(run)}</a></td>')
    state = f'<td data-sort="{html.escape(status, quote=True)}">{html.escape(status)}</td>'
    if numbers is None:
        return (f'<tr data-run="{html.escape(run, quote=True)}">'
                f'<td data-sort="{html.escape(run, quote=True)}">{html.escape(run)}</td>{state}'
                + cell("NA") * (len(COLUMNS) - 3) + '<td class=spark data-sort="-1"></td></tr>')
    declared, ksieve, scans = numbers["declared"], numbers["ksieve"], numbers["ms2_scans"]
    rates = [d["scans"] / scans if scans else None for d in (declared, ksieve)]
    cells = [cell(scans, scans), cell(declared["scans"], declared["scans"]),
             cell(ksieve["scans"], ksieve["scans"]),
             cell(ratio(declared["scans"], scans), rates[0]),
             cell(ratio(ksieve["scans"], scans), rates[1]),
             cell(declared["peptides"], declared["peptides"]),
             cell(ksieve["peptides"], ksieve["peptides"]),
             cell(ksieve["psms_secondary"], ksieve["psms_secondary"])]
    spark = plots.sparkline(f"spark{index}", numbers, threshold)
    return (f'<tr data-run="{html.escape(run, quote=True)}">{name}{state}{"".join(cells)}'
            f'<td class=spark data-sort="{ksieve["scans"]}">{spark}</td></tr>')


def overview(results, threshold):
    """The overview table of every run, finished or not, in the workflow's order."""
    header = "".join(f'<th class=sort data-numeric="{0 if i < 2 else 1}">{html.escape(c)}</th>'
                     for i, c in enumerate(COLUMNS))
    rows = "".join(row(i, run, numbers, status, threshold)
                   for i, (run, numbers, status) in enumerate(results))
    return (f"<h2>Runs</h2><p>Click a column's header to sort by it, a run's name for its "
            f"page.</p><p><button id=overview-previous type=button>previous</button> "
            f"<span id=overview-page>{len(results)} runs</span> "
            f"<button id=overview-next type=button>next</button></p>"
            f'<table id=overview><thead><tr>{header}</tr></thead><tbody>{rows}</tbody></table>')
