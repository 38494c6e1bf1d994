"""Opens the workflow's report.html in headless Chromium, as a person would.

usage: test_report_browser.py <workflow output folder> [unittest arguments]

For every finished run the four plots must be on the page and hold that run's
data points, counted in the rendered page and compared with numbers worked out
here from the run's own files (kSieve's precursor table, the PSM tables); the
browser must log no error, which also means the page loaded nothing from outside.
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


class ReportInBrowser(unittest.TestCase):
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

    def marks(self, element_id, tag):
        return len(self.driver.find_elements(By.CSS_SELECTOR, f"[id='{element_id}'] {tag}"))

    def bars(self, prefix):
        return len(self.driver.find_elements(By.CSS_SELECTOR, f"[id^='{prefix}-']"))

    def runs(self):
        with open(OUT / "summary.tsv", encoding="utf-8") as table:
            rows = list(csv.DictReader(table, delimiter="\t"))
        return [row["run"] for row in rows if row["status"] == "ok"]

    def test_no_error_in_the_browser_log(self):
        self.assertEqual([entry for entry in self.log if entry["level"] == "SEVERE"], [])

    def test_each_plot_holds_the_runs_data_points(self):
        runs = self.runs()
        self.assertTrue(runs, "no finished run to look at")
        sections = self.driver.find_elements(By.CSS_SELECTOR, "section.run")
        self.assertEqual([s.get_attribute("data-run") for s in sections], runs)
        for section, run in zip(sections, runs):
            with self.subTest(run):
                self.check_run(section.get_attribute("id"), run)

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

    def values(self, figure_id):
        return json.loads(self.driver.find_element(By.ID, figure_id).get_attribute("data-values"))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[2:])
