"""The workflow run for real: Snakemake, kSieve, Comet and OpenMS on the bundled sample.

usage: test_workflow.py <kSieve run directory> <scratch directory> [unittest arguments]

DemoRun runs the workflow once into <scratch>/demo (removed first); the table,
report and identity cases read what it wrote. BadInput runs it on inputs a user
gets wrong, HostileNames on names that hide commands. Every run uses the real programs; nothing is stubbed.
"""

import csv
import gzip
import json
import os
import re
import shutil
import subprocess
import sys
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
DEMO_MZML = ROOT / "data" / "demo" / "bsa_demo.mzML"
DEMO_FASTA = ROOT / "data" / "demo" / "bsa_demo.fasta"
SCRIPTS = ROOT / "workflow" / "scripts"
KSIEVE_BIN = Path(sys.argv[1]).resolve() if len(sys.argv) > 2 else None
SCRATCH = Path(sys.argv[2]).resolve() if len(sys.argv) > 2 else None
DEMO_OUT = SCRATCH / "demo" if SCRATCH else None
sys.path.insert(0, str(SCRIPTS))
from wfcommon import refused_path, shown  # noqa: E402


def run_workflow(input_dir, fasta, out, *extra, path=None, settings=()):
    """Snakemake as `make workflow` runs it, in the output folder; `settings` are more
    `key=value` configuration items."""
    out.mkdir(parents=True, exist_ok=True)
    env = dict(os.environ, PATH=f"{path}:{os.environ['PATH']}") if path else None
    command = ["snakemake", "-s", ROOT / "workflow" / "Snakefile", "--directory", out,
               "--cores", "2", "--keep-going", *extra, "--config", f"input={input_dir}",
               f"fasta={fasta}", f"out={out}", f"ksieve_bin={KSIEVE_BIN}", *settings]
    return subprocess.run([str(c) for c in command], capture_output=True, text=True, check=False,
                          env=env)


def read_tsv(path):
    with open(path, encoding="utf-8") as table:
        return list(csv.DictReader(table, delimiter="\t"))


def fresh(path):
    shutil.rmtree(path, ignore_errors=True)
    path.mkdir(parents=True)
    return path


class DemoRun(unittest.TestCase):
    """Runs first (ctest fixture): the workflow on the bundled sample, from nothing, with
    kSieve's mzML on (it leaves kSieve's other outputs as they are)."""

    def test_demo_workflow_completes_and_a_rerun_does_nothing(self):
        inputs = fresh(SCRATCH / "demo_input")
        shutil.copy(DEMO_MZML, inputs)
        shutil.rmtree(DEMO_OUT, ignore_errors=True)
        done = run_workflow(inputs, DEMO_FASTA, DEMO_OUT, settings=["ksieve_mzml=true"])
        self.assertEqual(done.returncode, 0, done.stderr[-3000:])
        again = run_workflow(inputs, DEMO_FASTA, DEMO_OUT, "--dry-run",
                             settings=["ksieve_mzml=true"])
        self.assertEqual(again.returncode, 0, again.stderr[-3000:])
        self.assertIn("Nothing to be done", again.stdout + again.stderr)
        # The companion's pair is temporary; kSieve's own outputs stay.
        ksieve_dir = DEMO_OUT / "runs" / "bsa_demo" / "ksieve"
        self.assertFalse((ksieve_dir / "bsa_demo.ms1").exists())
        self.assertFalse((ksieve_dir / "bsa_demo.ms2").exists())
        self.assertTrue((ksieve_dir / "bsa_demo_CIDIT.mgf").is_file())
        log = (DEMO_OUT / "logs" / "bsa_demo" / "ksieve.log").read_text(encoding="utf-8")
        self.assertIn("KSIEVE_THREADS=2\n", log)
        self.check_preset_and_mzml(ksieve_dir)

    def check_preset_and_mzml(self, ksieve_dir):
        """The preset's outputs are there, and OpenMS reads the mzML without complaint, every
        MS1 scan of the sample and every MS2 scan kSieve wrote."""
        self.assertTrue((ksieve_dir / "bsa_demo.precursors.tsv").is_file())
        mgf = (ksieve_dir / "bsa_demo_CIDIT.mgf").read_text(encoding="utf-8")
        self.assertIn("\nSCANS=", mgf)
        mzml = ksieve_dir / "bsa_demo.ksieve.mzML"
        self.assertTrue(mzml.is_file())
        said = {}
        for mode in ("-v", "-m"):  # schema and semantic validation; the spectra read back
            done = subprocess.run(["FileInfo", "-in", str(mzml), mode], capture_output=True,
                                  text=True, check=False)
            said[mode] = done.stdout + done.stderr
            self.assertEqual(done.returncode, 0, said[mode][-3000:])
            self.assertNotRegex(said[mode], r"(?i)error|invalid")
        self.assertIn("the file is semantically valid", said["-v"])
        sample = DEMO_MZML.read_text(encoding="utf-8")
        ms1 = sample.count('name="ms level" value="1"')
        ms2 = len(set(re.findall(r"^TITLE=bsa_demo\.(\d+)\.", mgf, re.M)))
        self.assertRegex(said["-m"], rf"level 1: {ms1}\n\s*level 2: {ms2}\n")


class DemoTable(unittest.TestCase):
    def test_summary_matches_the_committed_expectation(self):
        expected = (HERE / "expected" / "bsa_demo_summary.tsv").read_text(encoding="utf-8")
        self.assertEqual((DEMO_OUT / "summary.tsv").read_text(encoding="utf-8"), expected)

    def test_every_accepted_psm_is_a_target_within_the_fdr(self):
        for side in ("ksieve", "declared"):
            accepted = read_tsv(DEMO_OUT / "runs" / "bsa_demo" / "fdr" / f"{side}_accepted.tsv")
            self.assertTrue(accepted, side)
            for psm in accepted:
                self.assertLessEqual(float(psm["q_value"]), 0.01, psm)
                self.assertNotIn("DECOY_", psm["accessions"], psm)

    def test_psm_tables_name_each_scan_by_native_id_and_seconds(self):
        sample = DEMO_MZML.read_text(encoding="utf-8")
        seconds = {native: float(rt) for native, rt in re.findall(
            r'<spectrum id="([^"]+)".*?name="scan start time" value="([^"]+)"', sample, re.S)}
        for side in ("declared", "ksieve"):
            rows = read_tsv(DEMO_OUT / "runs" / "bsa_demo" / "fdr" / f"{side}_accepted.tsv")
            self.assertTrue(rows)
            for row in rows:
                with self.subTest(side=side, spectrum=row["spectrum"]):
                    self.assertIn(row["native_id"], seconds)
                    self.assertAlmostEqual(float(row["rt_seconds"]), seconds[row["native_id"]],
                                           delta=1e-3)

    def test_declared_search_covers_exactly_the_scans_ksieve_wrote(self):
        table = DEMO_OUT / "runs" / "bsa_demo" / "ksieve" / "bsa_demo.csv"
        written = {int(line.split(",")[2]) for line in table.read_text().splitlines()[1:]}
        declared = read_tsv(DEMO_OUT / "runs" / "bsa_demo" / "fdr" / "declared_all.tsv")
        self.assertTrue(declared)
        self.assertLessEqual({int(p["scan"]) for p in declared}, written)


class SearchStage(unittest.TestCase):
    """The search and FDR stages on MGF files made from the sample's, run as the rules run them."""

    def search_and_fdr(self, work, mgfs):
        """Writes the MGF files (name -> text), searches them; returns the PSM table and log."""
        ksieve_dir = fresh(work / "ksieve")
        for name, text in mgfs.items():
            (ksieve_dir / name).write_text(text, encoding="utf-8")
        info = work / "info.json"
        info.write_text(json.dumps({"mgf": sorted(mgfs)}), encoding="utf-8")
        common = ["--run", "bsa_demo", "--run-dir", work, "--side", "ksieve",
                  "--settings", DEMO_OUT / "work" / "settings.json"]
        self.run_script("search.py", *common, "--ksieve-dir", ksieve_dir, "--info", info,
                        "--database", DEMO_OUT / "work" / "target_decoy.fasta",
                        "--template", ROOT / "workflow" / "resources" / "comet.params.template",
                        "--out", work / "hits.idXML", "--log", work / "search.log")
        self.run_script("fdr.py", *common, "--hits", work / "hits.idXML",
                        "--all", work / "all.tsv", "--accepted", work / "accepted.tsv",
                        "--rescoring", work / "rescoring.json",
                        "--scans", DEMO_OUT / "runs" / "bsa_demo" / "scans.tsv",
                        "--log", work / "fdr.log")
        return read_tsv(work / "all.tsv"), (work / "search.log").read_text(encoding="utf-8")

    def run_script(self, name, *args):
        done = subprocess.run(["/usr/bin/python3", str(SCRIPTS / name), *map(str, args)],
                              capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)

    def demo_mgf(self):
        return (DEMO_OUT / "runs" / "bsa_demo" / "ksieve" / "bsa_demo_CIDIT.mgf").read_text()

    def test_two_blocks_of_one_scan_and_charge_stay_two_psms_grouped_by_scan(self):
        """Scan 63's block, written again as a second block of scan 41 (both charge 2): its
        peptide is the better match, so it becomes scan 41's primary and the first block,
        another peptide, a secondary."""
        text = self.demo_mgf()
        block = text[text.index("BEGIN IONS\nTITLE=bsa_demo.63.63.2.0.dta"):]
        block = block[:block.index("END IONS\n") + len("END IONS\n")]
        twin = block.replace("bsa_demo.63.63.2.0.dta", "bsa_demo.41.41.2.1.dta")
        psms, _ = self.search_and_fdr(fresh(SCRATCH / "identity"),
                                      {"bsa_demo_CIDIT.mgf": text + twin})
        rows = {p["spectrum"]: p for p in psms if p["scan"] == "41" and p["charge"] == "2"}
        self.assertEqual({name: (row["group"], row["sequence"]) for name, row in rows.items()}, {
            "bsa_demo.41.41.2.0.dta": ("secondary", "DLGEEHFK"),
            "bsa_demo.41.41.2.1.dta": ("primary", "YIC(Carbamidomethyl)DNQDTISSK")})

    def test_each_analyzer_gets_its_settings_and_one_fdr_covers_both(self):
        blocks = ["BEGIN IONS\n" + b for b in self.demo_mgf().split("BEGIN IONS\n")[1:]]
        half = len(blocks) // 2
        psms, log = self.search_and_fdr(fresh(SCRATCH / "analyzers"), {
            "bsa_demo_CIDIT.mgf": "".join(blocks[:half]),
            "bsa_demo_HCDFT.mgf": "".join(blocks[half:])})
        for key, analyzer in (("CIDIT", "IT"), ("HCDFT", "FT")):
            self.assertRegex(log, rf"comet-ms -P\S*comet_{analyzer}\.params -N{key} {key}\.mgf")
        first_of_second = int(blocks[half].split("\n")[1].split(".")[1])
        scans = {int(p["scan"]) for p in psms}
        self.assertTrue(min(scans) < first_of_second <= max(scans), scans)


class BadInput(unittest.TestCase):
    """What a user gets wrong: a clear message naming the cause, and the good runs finish."""

    def test_refusals_before_anything_runs(self):
        empty = fresh(SCRATCH / "bad_empty")
        (empty / "notes.txt").write_text("not a run\n")
        runs = fresh(SCRATCH / "bad_runs")
        shutil.copy(DEMO_MZML, runs)
        not_fasta = SCRATCH / "bad_not_fasta.fasta"
        not_fasta.write_text("<html><body>404 Not Found</body></html>\n")
        sequence_junk = SCRATCH / "bad_junk.fasta"
        sequence_junk.write_text(">sp|X|Y a protein\nMKWV 1234 ;;\n")
        late_junk = SCRATCH / "bad_late_junk.fasta"
        late_junk.write_text(">sp|X|Y a protein\n" + "MKWVTFISLL\n" * 8000 + "<html>\n")
        cases = [
            ("no runs", empty, DEMO_FASTA, f"no runs in {empty}"),
            ("missing folder", SCRATCH / "absent", DEMO_FASTA, "does not exist"),
            ("html as FASTA", runs, not_fasta, f"{not_fasta} is not a FASTA file"),
            ("junk sequence", runs, sequence_junk,
             f"{sequence_junk} is not a FASTA file: line 2 is not a protein sequence: "
             "'MKWV 1234 ;;'"),
            ("junk after 64 kB", runs, late_junk,
             f"{late_junk} is not a FASTA file: line 8002 is not a protein sequence: '<html>'"),
            ("missing FASTA", runs, SCRATCH / "absent.fasta", "does not exist"),
        ]
        for name, folder, fasta, message in cases:
            with self.subTest(name):
                out = fresh(SCRATCH / "bad_out")
                done = run_workflow(folder, fasta, out)
                self.assertNotEqual(done.returncode, 0)
                self.assertIn(message, done.stderr)
                self.assertFalse((out / "runs").exists(), "nothing may run")

    def test_a_fasta_opening_with_a_byte_order_mark_is_accepted(self):
        runs = fresh(SCRATCH / "bom_runs")
        shutil.copy(DEMO_MZML, runs)
        marked = SCRATCH / "bom.fasta"
        marked.write_bytes(b"\xef\xbb\xbf" + DEMO_FASTA.read_bytes())
        done = run_workflow(runs, marked, fresh(SCRATCH / "bom_out"), "--dry-run")
        self.assertEqual(done.returncode, 0, done.stderr[-3000:])

    def test_failing_runs_are_named_and_the_others_finish(self):
        runs = fresh(SCRATCH / "bad_mixed")
        with open(DEMO_MZML, "rb") as plain, gzip.open(runs / "good.mzML.gz", "wb") as packed:
            shutil.copyfileobj(plain, packed)
        (runs / "broken.mzML").write_bytes(b"<?xml version='1.0'?><mzML><run>\x00\x01")
        (runs / "thermo.raw").write_bytes(b"\x01\xa1F\x00i\x00n\x00n\x00i\x00g\x00a\x00n")
        shutil.copy(DEMO_MZML, runs / "cometfail.mzML")
        out = fresh(SCRATCH / "bad_mixed_out")
        done = run_workflow(runs, DEMO_FASTA, out, path=self.failing_comet())
        self.assertNotEqual(done.returncode, 0)
        summary = {row["run"]: row for row in read_tsv(out / "summary.tsv")}
        self.assertEqual(summary["good"]["status"], "ok")
        self.assertGreater(int(summary["good"]["psms_ksieve"]), 0)
        self.assertFalse(list((out / "runs" / "good" / "ksieve").glob("*.mzML")),
                         "kSieve writes mzML only when asked")
        report = (out / "report.html").read_text(encoding="utf-8")
        self.assertIn("Failed runs", report)
        cases = [("broken", "kSieve failed", "broken.mzML"),
                 ("thermo", "kSieve failed", "convert the file to mzML first"),
                 ("cometfail", "search_ksieve failed", "cannot read the spectra")]
        for run, stage, cause in cases:
            with self.subTest(run):
                self.assertIn(f"run {run}: {stage}", done.stderr)
                self.assertIn(stage, summary[run]["status"])
                self.assertIn(cause, summary[run]["status"])
                self.assertEqual(summary[run]["psms_ksieve"], "NA")
                self.assertIn(f"<b>{run}</b>", report)
        again = run_workflow(runs, DEMO_FASTA, out, "--dry-run", path=self.failing_comet())
        planned = again.stdout + again.stderr
        for run in ("broken", "thermo", "cometfail"):
            self.assertIn(f"run={run}", planned)
        self.assertNotIn("run=good", planned)

    def failing_comet(self):
        """A stand-in for comet-ms that fails on one run's spectra, as Comet does on a bad file."""
        shim = fresh(SCRATCH / "comet_shim")
        script = shim / "comet-ms"
        script.write_text("#!/bin/sh\n"
                          'case "$*" in *cometfail*) echo "Error - cannot read the spectra" >&2;'
                          " exit 1;; esac\n"
                          'exec /usr/bin/comet-ms "$@"\n')
        script.chmod(0o755)
        return shim


class HostileNames(unittest.TestCase):
    """File and folder names that hide commands: each is a name only, processed or refused by name.

    Every command writes a file named PWNED...; none may appear anywhere.
    """

    COMMANDS = "$(touch PWNED_a) `touch PWNED_b`"

    def launch(self, cwd, settings=(), **paths):
        """The workflow as `make workflow` starts it: paths in the environment."""
        env = dict(os.environ, KSIEVE_BIN=str(KSIEVE_BIN), PROFILE="",
                   **{key.upper(): str(value) for key, value in paths.items()})
        return subprocess.run(["/usr/bin/python3", str(SCRIPTS / "launch.py"), *settings],
                              cwd=cwd, env=env, capture_output=True, check=False)

    def assert_nothing_ran(self, *places):
        for place in places:
            self.assertEqual([p for p in Path(place).rglob("PWNED*")], [], place)

    def test_hostile_input_fasta_out_and_run_names(self):
        home = fresh(SCRATCH / "hostile")
        hostile = f"{self.COMMANDS} \"d\" x"
        inputs = home / f"in {hostile}"
        inputs.mkdir()
        processed = f"r {hostile}"
        shutil.copy(DEMO_MZML, inputs / f"{processed}.mzML")
        refused = [f"q'{self.COMMANDS}'", "two\nlines", "odd" + os.fsdecode(b"\xff"),
                   "back\\slash", "-dash"]
        for name in refused:
            (inputs / f"{name}.mzML").write_bytes(b"never read")
        fasta = home / f"db {hostile}.fasta"
        shutil.copy(DEMO_FASTA, fasta)
        out = home / f"out {hostile}"
        done = self.launch(home, input=inputs, fasta=fasta, out=out)
        stderr = done.stderr.decode("utf-8", "replace")
        self.assertEqual(done.returncode, 0, stderr[-3000:])
        self.assert_nothing_ran(home, ROOT)
        summary = read_tsv(out / "summary.tsv")
        self.assertEqual([(row["run"], row["status"]) for row in summary], [(processed, "ok")])
        for name in refused:
            with self.subTest(name):
                self.assertIn(f"run file {shown(name + '.mzML')} refused", stderr)

    def test_paths_the_workflow_cannot_carry_are_refused_in_one_line(self):
        home = fresh(SCRATCH / "hostile_paths")
        for name in (f"q'{self.COMMANDS}'", "two\nlines", "odd" + os.fsdecode(b"\xff"),
                     "{run}"):
            for key, what in (("out", "output folder"), ("input", "input folder"),
                              ("fasta", "FASTA file")):
                with self.subTest(name=name, key=key):
                    paths = {"input": DEMO_MZML.parent, "fasta": DEMO_FASTA,
                             "out": home / "out", key: home / name}
                    done = self.launch(home, **paths)
                    self.assertNotEqual(done.returncode, 0)
                    self.assertEqual(done.stderr.decode("utf-8", "replace"),
                                     f"kSieve workflow: {refused_path(what, home / name)}\n")
                    self.assertFalse((home / "out" / "runs").exists())
        self.assert_nothing_ran(home, ROOT)

    def test_make_passes_paths_with_blanks_and_quotes_whole(self):
        home = fresh(SCRATCH / "hostile_make")
        missing = home / "a b `touch PWNED_c` \"q\""
        out = home / "out with blanks"
        done = subprocess.run(["make", "-s", "-C", str(ROOT), "-o", "build", "workflow",
                               f"INPUT={missing}", f"FASTA={DEMO_FASTA}", f"OUT={out}",
                               f"KSIEVE_BIN={KSIEVE_BIN}"],
                              capture_output=True, text=True, check=False)
        self.assertNotEqual(done.returncode, 0)
        self.assertIn(f"input folder {shown(missing)} does not exist", done.stderr)
        self.assertEqual(sorted(p.name for p in home.iterdir()), ["out with blanks"])
        self.assert_nothing_ran(home, ROOT)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]] + sys.argv[3:])
