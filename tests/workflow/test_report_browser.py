"""Opens the workflow's report.html in headless Chromium, as a person would.

usage: test_report_browser.py <workflow output folder> [unittest arguments]

ReportInBrowser: the project page opens on the overview; each finished run's
name leads to its own page, whose plots must hold that run's data points,
counted in the rendered page and compared with numbers worked out here from the
run's own files (kSieve's precursor table, the PSM tables). Overview: on a
project of many runs the overview shows one page of rows at a time, sorts by a
column, links each run to its page and stays small. The browser must log no
error, which also means no page loaded anything from outside.
"""

import csv
import json
import shutil
import sys
import tempfile
import unittest
from collections import Counter
from pathlib import Path

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

OUT = Path(sys.argv[1]).resolve() if len(sys.argv) > 1 else None
FLAGS = ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
         "--disable-component-update", "--disable-sync", "--no-first-run"]


def precursor_table(path):
    """(declared charge, [charges of kSieve's precursors]) per row."""
    rows = []
    for line in path.read_text(encoding="utf-8").splitlines()[1:]:
        fields = [f.strip() for f in line.rstrip(", ").split(",")]
        rows.append((int(fields[4]), [int(z) for z in fields[8::3]]))
    return rows


def q_values(path):
    with open(path, encoding="utf-8") as table:
        return [float(row["q_value"]) for row in csv.DictReader(table, delimiter="\t")]


def summary_rows():
    with open(OUT / "summary.tsv", encoding="utf-8") as table:
        return list(csv.DictReader(table, delimiter="\t"))


class Browser(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.profile = tempfile.mkdtemp(prefix="ksieve-chromium-")
        options = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for flag in FLAGS + [f"--user-data-dir={cls.profile}"]:
            options.add_argument(flag)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        cls.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        cls.driver.get((OUT / "report.html").as_uri())
        cls.log = cls.driver.get_log("browser")

    @classmethod
    def tearDownClass(cls):
        cls.driver.quit()
        shutil.rmtree(cls.profile, ignore_errors=True)

    def open_run_page(self, run):
        """Follows the run's link in the overview; back on the overview afterwards is the
        caller's business."""
        self.driver.get((OUT / "report.html").as_uri())
        self.driver.execute_script("document.querySelectorAll('#overview tbody tr')"
                                   ".forEach(r => r.hidden = false)")
        row = self.driver.find_element(By.CSS_SELECTOR, f"#overview tr[data-run='{run}']")
        row.find_element(By.TAG_NAME, "a").click()
        self.assertEqual(self.driver.find_element(By.TAG_NAME, "h1").text, run)
        self.assertEqual([e for e in self.driver.get_log("browser") if e["level"] == "SEVERE"],
                         [])


class ReportInBrowser(Browser):
    def marks(self, element_id, tag):
        return len(self.driver.find_elements(By.CSS_SELECTOR, f"[id='{element_id}'] {tag}"))

    def bars(self, prefix):
        return len(self.driver.find_elements(By.CSS_SELECTOR, f"[id^='{prefix}-']"))

    def runs(self):
        return [row["run"] for row in summary_rows() if row["status"] == "ok"]

    def test_no_error_in_the_browser_log(self):
        self.assertEqual([entry for entry in self.log if entry["level"] == "SEVERE"], [])

    def test_each_plot_holds_the_runs_data_points(self):
        runs = self.runs()
        self.assertTrue(runs, "no finished run to look at")
        for run in runs:
            with self.subTest(run):
                self.open_run_page(run)
                section = self.driver.find_element(By.CSS_SELECTOR, "section.run")
                self.assertEqual(section.get_attribute("data-run"), run)
                self.check_run(section.get_attribute("id"), run)
                self.check_scores(section.get_attribute("id"), run)
                self.check_keys(run)
                self.check_account(run)

    def check_run(self, prefix, run):
        run_dir = OUT / "runs" / run
        rows = precursor_table(run_dir / "ksieve" / f"{run}.csv")
        per_scan = Counter(str(len(charges)) for _, charges in rows)
        declared = Counter(str(z) for z, _ in rows)
        ksieve = Counter(str(z) for _, charges in rows for z in charges)
        for kind in ("precursors", "charges", "shifts", "qvalue"):
            figure = self.driver.find_element(By.ID, f"{prefix}-{kind}")
            self.assertTrue(figure.find_element(By.TAG_NAME, "svg").is_displayed(), kind)
        self.assertEqual(self.values(f"{prefix}-precursors"), dict(per_scan))
        self.assertEqual(self.bars(f"{prefix}-precursors-bar"), len(per_scan))
        self.assertEqual(self.bars(f"{prefix}-charges-declared-bar"), len(declared))
        self.assertEqual(self.bars(f"{prefix}-charges-ksieve-bar"), len(ksieve))
        with_charge = sum(1 for z, charges in rows if z > 0 and any(c > 0 for c in charges))
        shifts = self.values(f"{prefix}-shifts")
        self.assertEqual(sum(shifts["bins"].values()) + shifts["off_scale"], with_charge)
        self.assertEqual(self.bars(f"{prefix}-shifts-bar"), len(shifts["bins"]))
        curves = self.values(f"{prefix}-qvalue")
        for side in ("declared", "ksieve"):
            psms = q_values(run_dir / "fdr" / f"{side}_all.tsv")
            expected = [[q, sum(1 for v in psms if v <= q)] for q, _ in curves[side]]
            self.assertEqual(curves[side], expected, side)
            self.assertEqual(curves[side][-1][0], 0.1)
            self.assertEqual(self.marks(f"{prefix}-qvalue-{side}-points", "use"),
                             len(curves[side]), side)

    def check_scores(self, prefix, run):
        """Each side's score plot counts every PSM that the FDR kept, targets and decoys,
        and at least the targets that the PSM table holds, in each group."""
        for side in ("declared", "ksieve"):
            scores = self.values(f"{prefix}-scores-{side}")
            with open(OUT / "runs" / run / "fdr" / f"{side}_all.tsv", encoding="utf-8") as table:
                targets = Counter(row["group"] for row in csv.DictReader(table, delimiter="\t"))
            for group in ("primary", "secondary"):
                self.assertEqual(sum(scores[group]["target"]), targets[group], (side, group))
            self.assertGreater(sum(scores["primary"]["decoy"]), 0, side)
            self.assertEqual(len(scores["edges"]), len(scores["primary"]["target"]) + 1)

    def check_account(self, run):
        """kSieve's account shows its run summary's counts, or says it was not written."""
        summary = OUT / "runs" / run / "ksieve" / f"{run}.summary.json"
        if not summary.is_file():
            self.assertIn("precursor_table = 1", self.driver.find_element(
                By.CSS_SELECTOR, "p.account-missing").text)
            return
        counts = json.loads(summary.read_text(encoding="utf-8"))["precursors"]
        shown = [row.find_elements(By.TAG_NAME, "td")[1].text
                 for row in self.driver.find_elements(By.CSS_SELECTOR, "#account tbody tr")]
        self.assertEqual(shown[:5], [str(counts[k]) for k in (
            "declared_confirmed", "declared_corrected", "declared_replaced", "declared_kept",
            "scans_with_coeluted")])

    def check_keys(self, run):
        """The keys in force give the input format the run really had, not the echo's word."""
        keys = {row.find_elements(By.TAG_NAME, "td")[0].text:
                row.find_elements(By.TAG_NAME, "td")[1].text
                for row in self.driver.find_elements(By.CSS_SELECTOR, "#keys tbody tr")}
        info = json.loads((OUT / "runs" / run / "ksieve_info.json").read_text(encoding="utf-8"))
        echoed = dict(line.split(" = ", 1) for line in info["parameters"])
        self.assertLessEqual(set(echoed), set(keys))
        self.assertEqual(keys["input_format"], "mzml")

    def values(self, figure_id):
        return json.loads(self.driver.find_element(By.ID, figure_id).get_attribute("data-values"))


class Overview(Browser):
    """A project of many runs: one page of rows at a time, sortable, a link per run."""

    def visible_runs(self):
        return [r.get_attribute("data-run")
                for r in self.driver.find_elements(By.CSS_SELECTOR, "#overview tbody tr")
                if r.is_displayed()]

    def test_no_error_in_the_browser_log(self):
        self.assertEqual([entry for entry in self.log if entry["level"] == "SEVERE"], [])

    def test_rows_page_by_page_and_every_run_has_its_sparkline(self):
        rows = summary_rows()
        every = self.driver.find_elements(By.CSS_SELECTOR, "#overview tbody tr")
        self.assertEqual([r.get_attribute("data-run") for r in every], [r["run"] for r in rows])
        first = self.visible_runs()
        self.assertEqual(first, [r["run"] for r in rows[:50]])
        self.driver.find_element(By.ID, "overview-next").click()
        self.assertEqual(self.visible_runs(), [r["run"] for r in rows[50:100]])
        pages = -(-len(rows) // 50)
        self.assertEqual(self.driver.find_element(By.ID, "overview-page").text,
                         f"page 2 of {pages}, {len(rows)} runs")
        # Every row's sparkline in one call: [points of each line] per run.
        sparklines = self.driver.execute_script(
            "const s={};document.querySelectorAll('#overview tbody tr').forEach(r=>"
            "{s[r.dataset.run]=Array.from(r.querySelectorAll('td.spark polyline'),"
            "l=>l.getAttribute('points').split(' ').length);});return s;")
        for row in rows:
            expected = [21, 21] if row["status"] == "ok" else []
            self.assertEqual(sparklines[row["run"]], expected, row["run"])

    def test_a_click_on_a_header_sorts_the_runs_by_that_column(self):
        # A failed run has no count and sorts below every finished one.
        by_run = {r["run"]: int(r["scans_identified_ksieve"]) if r["status"] == "ok" else -1
                  for r in summary_rows()}
        header = self.driver.find_elements(By.CSS_SELECTOR, "#overview th")[4]
        self.assertEqual(header.text, "identified scans, kSieve")
        header.click()
        counts = [by_run[run] for run in self.visible_runs()]
        self.assertEqual(counts, sorted(by_run.values())[:len(counts)])
        header.click()
        counts = [by_run[run] for run in self.visible_runs()]
        self.assertEqual(counts[0], max(by_run.values()))
        self.assertEqual(counts, sorted(counts, reverse=True))

    def test_each_run_is_one_click_from_the_overview(self):
        rows = [r for r in summary_rows() if r["status"] == "ok"]
        for row in (rows[0], rows[len(rows) // 2], rows[-1]):
            with self.subTest(row["run"]):
                self.open_run_page(row["run"])
                headline = self.driver.find_element(By.CSS_SELECTOR, "p.headline").text
                self.assertIn(f"Identified MS2 scans: {row['scans_identified_declared']} "
                              f"declared, {row['scans_identified_ksieve']} kSieve", headline)
                self.driver.find_element(By.ID, "overview-link").click()
                self.assertTrue(self.driver.find_element(By.ID, "overview").is_displayed())

    def test_the_page_grows_by_a_bounded_size_per_run(self):
        runs = len(summary_rows())
        size = (OUT / "report.html").stat().st_size
        print(f"overview of {runs} runs: {size} bytes, {size / runs:.0f} per run", file=sys.stderr)
        self.assertLess(size, 20000 + 2500 * runs)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:])
