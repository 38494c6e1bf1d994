"""The workflow scripts' own rules, case by case, without running the programs."""

import json
import math
import random
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "workflow" / "scripts"))
sys.path.insert(0, str(ROOT / "tools" / "accuracy"))

import entrapment  # noqa: E402
import fdr  # noqa: E402
import fdr_truth  # noqa: E402
import jsonschema  # noqa: E402
import ksieve_account  # noqa: E402
import mzqc  # noqa: E402
import numpy as np  # noqa: E402
import overview  # noqa: E402
import qvalues  # noqa: E402
import rescore  # noqa: E402
import run_ksieve  # noqa: E402
import run_table  # noqa: E402
import score_distribution  # noqa: E402
import search  # noqa: E402
from wfcommon import StageError, scan_of  # noqa: E402

TEMPLATE = ROOT / "workflow" / "resources" / "comet.params.template"
SETTINGS = {"decoy_prefix": "DECOY_", "comet": {
    "common": {"peptide_mass_tolerance": 10.0, "isotope_error": 0},
    "IT": {"fragment_bin_tol": 1.0005, "fragment_bin_offset": 0.4},
    "FT": {"fragment_bin_tol": 0.02, "fragment_bin_offset": 0.0}}}


def params_of(text):
    values = {}
    for line in text.splitlines():
        if "=" in line and not line.startswith("#"):
            key, value = line.split("=", 1)
            values[key.strip()] = value.split("#", 1)[0].strip()
    return values


class SpectrumIdentity(unittest.TestCase):
    def test_scan_numbers_from_titles_and_comet_names(self):
        cases = [
            ("bsa_demo.4021.4021.2.0.dta", 4021),     # kSieve MGF title
            ("my.run.v2.17.17.3.12.dta", 17),          # dots in the stem
            ("neg.5.5.-2.1.dta", 5),                   # negative charge
            ("out_d.00037.00037.3", 37),               # Comet's name for an .ms2 spectrum
            ("controllerType=0 scan=12", None),
        ]
        for reference, scan in cases:
            with self.subTest(reference):
                self.assertEqual(scan_of(reference), scan)


class FragmentSettings(unittest.TestCase):
    def test_analyzer_comes_from_the_end_of_the_mgf_key(self):
        cases = [("run", "run_CIDIT.mgf", "CIDIT"), ("run", "run_HCDFT.mgf", "HCDFT"),
                 ("a_b", "a_b_ETHCDFT.mgf", "ETHCDFT"), ("x_IT", "x_IT_ETCIDIT.mgf", "ETCIDIT")]
        for run, name, key in cases:
            with self.subTest(name):
                self.assertEqual(search.key_of(name, run), key)
        for name in ("run_UVPDXX.mgf", "run_a b/FT.mgf"):
            with self.assertRaisesRegex(StageError, "cannot tell the MS2 analyzer"):
                search.key_of(name, "run")

    def test_parameter_file_gets_the_analyzers_values(self):
        for analyzer, tolerance, offset in (("IT", "1.0005", "0.4"), ("FT", "0.02", "0.0")):
            with self.subTest(analyzer):
                values = params_of(search.comet_parameters(TEMPLATE, SETTINGS, analyzer,
                                                           "/db/td.fasta", 3))
                self.assertEqual(values["fragment_bin_tol"], tolerance)
                self.assertEqual(values["fragment_bin_offset"], offset)
                self.assertEqual(values["database_name"], "/db/td.fasta")
                self.assertEqual(values["num_threads"], "3")
                self.assertEqual(values["num_output_lines"], "1")
                self.assertEqual(values["decoy_search"], "0")

    def test_an_unknown_parameter_is_refused(self):
        settings = {**SETTINGS, "comet": {**SETTINGS["comet"], "common": {"fragment_tol": 1}}}
        with self.assertRaisesRegex(StageError, "no parameter named fragment_tol"):
            search.comet_parameters(TEMPLATE, settings, "IT", "/db", 1)


class DeclaredScans(unittest.TestCase):
    def test_ms2_cut_keeps_header_and_listed_scans_only(self):
        ms2 = ("H\tExtractor\tspexor_xml.exe\n"
               "S\t5\t5\t400.0\nZ\t2\t799.0\n100.0 1.0\n"
               "S\t6\t6\t500.0\nZ\t2\t999.0\nZ\t3\t1498.0\n200.0 2.0\n"
               "S\t7\t7\t600.0\nZ\t2\t1199.0\n300.0 3.0\n")
        with tempfile.TemporaryDirectory() as folder:
            source, target = Path(folder) / "in.ms2", Path(folder) / "out.ms2"
            source.write_text(ms2)
            self.assertEqual(search.cut_ms2(source, {6, 7, 99}, target), 2)
            self.assertEqual(target.read_text(), "H\tExtractor\tspexor_xml.exe\n"
                             + ms2[ms2.index("S\t6"):])


class CompanionAccount(unittest.TestCase):
    def test_marker_lines_of_either_form_are_kept_in_order(self):
        cases = [
            ("MS1 scans written: 31\nMS2 scans written: 120\n",
             [["MS1 scans written", "31"], ["MS2 scans written", "120"]]),
            ("ms2_read\t186\nms2_written_ETHCD\t62\nfaims_cv_values\t0\n",
             [["ms2_read", "186"], ["ms2_written_ETHCD", "62"], ["faims_cv_values", "0"]]),
            ("no separator here\n\nms1_read\t3\n", [["ms1_read", "3"]]),
        ]
        for text, expected in cases:
            with self.subTest(text):
                with tempfile.TemporaryDirectory() as folder:
                    marker = Path(folder) / "run.spexor"
                    marker.write_text(text)
                    self.assertEqual(run_ksieve.marker_counts(marker), expected)


class KsieveParameters(unittest.TestCase):
    LINE = ("[kSieve] <INFO> - Precursor validation in /r/a.ms1: 90 detected, 70 kept; removed "
            "charge alias 8, isotope alias 7, duplicate 3, not co-eluting 1, poor envelope 1; "
            "corrected isotope 4, charge 2; scans left with the best detected only 5\n")

    def args(self, run_dir, options=(), parameters=()):
        return type("Args", (), {"run_dir": run_dir, "option": list(options),
                                 "parameter": list(parameters)})()

    def test_parameter_file_holds_input_output_and_keys(self):
        with tempfile.TemporaryDirectory() as folder:
            args = self.args(folder, parameters=[("validate_precursors", "1")])
            path = run_ksieve.write_parameter_file(args, Path("/in/a b.mzML"), Path("/out"))
            self.assertEqual(path.read_text(), "datapath = /in/a b.mzML\noutputpath = /out\n"
                                               "validate_precursors = 1\n")

    def test_what_a_parameter_file_cannot_hold_is_refused(self):
        cases = [
            ([("-W", "3")], [("validate_precursors", "1")], Path("/in/a.mzML")),
            ([], [("validate_precursors", "1 # on")], Path("/in/a.mzML")),
            ([], [("a=b", "1")], Path("/in/a.mzML")),
            ([], [("validate_precursors", "1")], Path("/in/#a.mzML")),
        ]
        for options, parameters, source in cases:
            with self.subTest(parameters=parameters, source=source):
                with tempfile.TemporaryDirectory() as folder:
                    with self.assertRaises(StageError):
                        run_ksieve.write_parameter_file(
                            self.args(folder, options, parameters), source, Path("/out"))

    def test_preset_then_mzml_switch_then_the_users_keys_which_win(self):
        preset = {"keep_declared": 1, "precursor_table": 1, "mgf_conventions": 1}
        self.assertEqual(run_ksieve.ksieve_keys(preset, False, {}), preset)
        self.assertEqual(run_ksieve.ksieve_keys(None, True, None), {"output_mzml": 1})
        keys = run_ksieve.ksieve_keys(preset, True, {"keep_declared": 0, "output_mzml": 0,
                                                     "validate_precursors": 1})
        self.assertEqual(keys, {"keep_declared": 0, "precursor_table": 1, "mgf_conventions": 1,
                                "output_mzml": 0, "validate_precursors": 1})

    def test_scan_table_gives_seconds_and_native_ids_from_the_ms2(self):
        ms2 = ("H\tCreationDate\tnow\nS\t7\t7\t500.25\nI\tNativeID\tcontrollerType=0 "
               "controllerNumber=1 scan=7\nI\tRetTime\t1.500000\nZ\t2\t999.49\n100.1 5\n"
               "S\t12\t12\t600.5\nI\tRetTime\t2.250001\n200.2 7\n")
        with tempfile.TemporaryDirectory() as folder:
            source, table = Path(folder) / "run.ms2", Path(folder) / "scans.tsv"
            source.write_text(ms2)
            run_ksieve.write_scan_table(source, table)
            self.assertEqual(table.read_text(), "scan\trt_seconds\tnative_id\n"
                             "7\t90.0000\tcontrollerType=0 controllerNumber=1 scan=7\n"
                             "12\t135.0001\t\n")
            self.assertEqual(fdr.scan_table(table)[12], ("135.0001", ""))

    def test_validation_counts_from_the_last_line_or_none(self):
        self.assertIsNone(run_ksieve.validation_counts("no such line\n"))
        counts = run_ksieve.validation_counts(self.LINE.replace("90 detected", "1 detected")
                                              + self.LINE)
        self.assertEqual(counts[0], ["detected", 90])
        self.assertEqual([value for _, value in counts], [90, 70, 8, 7, 3, 1, 1, 4, 2, 5])
        self.assertEqual(counts[2], ["removed: charge alias", 8])
        self.assertEqual(counts[8], ["corrected: charge", 2])
        self.assertEqual(counts[9], ["scans left with the best detected only", 5])

    def test_validation_counts_agree_with_the_run_summary(self):
        """kSieve's own log line and summary of one run: every count but the scans,
        in the summary's order."""
        data = ROOT / "tests/golden/cases/precursor_table_evidence/expected/files/data"
        log_text = (data / "kSievePlusLog.txt").read_text()
        summary = json.loads((data / "coeluting.summary.json").read_text())["validation"]
        expected = [value for key, value in summary.items() if key != "scans"]
        self.assertEqual([value for _, value in run_ksieve.validation_counts(log_text)],
                         expected)
        self.assertGreater(sum(expected), 0)


class PrecursorTable(unittest.TestCase):
    HEADER = "ActivationType, InstrumentType, MS2Scan, OrigMZ, OrigCharge, TotleNumOfPrecursor\n"

    def test_rows_and_the_nearest_mass_shift(self):
        text = self.HEADER + (
            "CID, IT, 33, 379.146302, 4, 2, 1, 379.145970, 4, 2, 379.145970, 2, \n"
            "HCD, FT, 40, 500.000000, 2, 1, 1, 500.501682, 2, \n"
            "HCD, FT, 41, 600.000000, 2, 2, 1, 900.000000, 1, 2, 600.000000, 2, \n")
        with tempfile.TemporaryDirectory() as folder:
            table = Path(folder) / "run.csv"
            table.write_text(text)
            rows = run_table.precursor_rows(table)
        self.assertEqual([(r[0], len(r[3])) for r in rows], [(33, 2), (40, 1), (41, 2)])
        shifts = dict(run_table.mass_shifts(rows))
        self.assertAlmostEqual(shifts[33], -0.00133, places=4)
        self.assertAlmostEqual(shifts[40], 1.00336, places=4)   # one isotope peak up
        self.assertEqual(shifts[41], 0.0)                       # the same ion kept

    def test_shift_histogram_pools_bins_and_counts_off_scale(self):
        shifts = [[1, 0.004], [2, -0.009], [3, 1.00335], [4, 0.961], [5, -2.0067], [6, 435.2],
                  [7, -4.6]]
        self.assertEqual(run_table.shift_histogram(shifts),
                         {"bins": {"-2.00": 1, "0.00": 2, "0.96": 1, "1.00": 1}, "off_scale": 2})

    def test_q_curve_counts_psms_at_or_below_each_grid_point(self):
        cases = [([], {0.0: 0, 0.01: 0, 0.1: 0}),
                 ([0.0, 0.0, 0.0], {0.0: 3, 0.05: 3}),
                 ([0.02, 0.0, 0.01, 0.0, 0.0105, 0.5], {0.0: 2, 0.009: 2, 0.01: 3, 0.011: 4,
                                                        0.02: 5, 0.1: 5})]
        for q_values, expected in cases:
            with self.subTest(q_values):
                curve = dict(run_table.q_curve(q_values))
                self.assertEqual(len(curve), 101)
                self.assertEqual({q: curve[q] for q in expected}, expected)


def psm(scan, score, decoy=False, sequence="PEPTIDEK", spectrum=""):
    return qvalues.Psm(spectrum=spectrum or f"r.{scan}.{scan}.2.0.dta", scan=scan, score=score,
                       decoy=decoy, sequence=sequence, fields={})


class KsieveAccount(unittest.TestCase):
    LOG = ("[kSieve] <INFO> - kSieve2.0.8 (abc)\n"
           "[kSieve] <INFO> - --------- BEGIN PARAMETERS -----------\n"
           "[kSieve] <INFO> - 01: co-elute = 1\n"
           "[kSieve] <INFO> - 02: input_format = raw\n"
           "[kSieve] <INFO> - 03: mstol = 20.000000\n"
           "[kSieve] <INFO> - --------- END PARAMETERS -------------\n"
           "[kSieve] <INFO> - validate_precursors = 1\n"
           "[kSieve] <INFO> - Precursor validation in run: 9 detected = many\n"
           "[kSieve] <WARN> - not a key = 3\n")

    def test_keys_in_force_add_the_logged_keys_the_parameter_file_and_the_real_format(self):
        with tempfile.TemporaryDirectory() as folder:
            params = Path(folder) / "ksieve.params"
            params.write_text("datapath = /in/run.mzML.gz\nmstol = 10\n")
            cases = [("/in/run.mzML.gz", "mzml"), ("/in/RUN.MZXML", "mzxml"),
                     ("/in/run.raw", "raw")]
            for path, format_word in cases:
                with self.subTest(path):
                    keys = ksieve_account.keys_in_force(self.LOG, params, path)
                    found = {key: (value, source) for key, value, source in keys}
                    self.assertEqual([k for k, _, _ in keys],
                                     ["co-elute", "input_format", "mstol",
                                      "validate_precursors", "datapath"])
                    self.assertEqual(found["mstol"], ("10", "the workflow's parameter file"))
                    self.assertEqual(found["validate_precursors"][0], "1")
                    self.assertEqual(found["input_format"][0], format_word)
                    self.assertEqual("echo says raw" in found["input_format"][1],
                                     format_word != "raw")
        keys = ksieve_account.keys_in_force("", "", "/in/run.mzML")
        self.assertEqual(keys, [])
        job = "KSIEVE_THREADS=2\n$ ./kSieve /runs/r/ksieve.params\nkSieve2.0.8\n"
        self.assertTrue(ksieve_account.parameter_file_used(job, Path("/runs/r/ksieve.params")))
        self.assertFalse(ksieve_account.parameter_file_used(
            "$ ./kSieve -D /in/r.mzML -O /runs/r/ksieve\n", "/runs/r/ksieve.params"))
        self.assertFalse(ksieve_account.parameter_file_used(job, ""))

    def test_the_run_summary_adds_the_newer_keys_at_their_defaults(self):
        summary = KsieveAccount.GOLDEN / "coeluting.summary.json"
        log = (KsieveAccount.GOLDEN / "kSievePlusLog.txt").read_text()
        keys = {k: (v, s) for k, v, s in ksieve_account.keys_in_force(log, "", "/d/r.ms1",
                                                                        summary)}
        self.assertEqual(keys["output_mzml"], ("0", "kSieve's run summary"))
        self.assertEqual(keys["precursor_table"], ("1", "kSieve's log, after the echo"))
        self.assertEqual(keys["co-elute"], ("1", "kSieve's echo"))

    # kSieve's own run summary and evidence table, as a golden case pins them.
    GOLDEN = (ROOT / "tests" / "golden" / "cases" / "precursor_table_evidence" / "expected"
              / "files" / "data")

    def test_account_from_ksieves_run_summary_or_none_without_it(self):
        summary = self.GOLDEN / "coeluting.summary.json"
        table = self.GOLDEN / "coeluting.precursors.tsv"
        account = ksieve_account.account(summary, table)
        counts = json.loads(summary.read_text())["precursors"]
        self.assertEqual([count for _, count in account["scans"]],
                         [counts[key] for key, _ in ksieve_account.SCAN_ACCOUNT])
        self.assertEqual(account["scans"][0][1], 1)       # declared_confirmed
        self.assertEqual((account["scans_written"], account["precursors"]), (4, 6))
        origins = [line.split("\t")[7] for line in table.read_text().splitlines()[1:]]
        self.assertEqual(account["coeluted_precursors"], origins.count("coeluted"))
        self.assertGreater(account["coeluted_precursors"], 0)
        times = sorted(float(line.split("\t")[2]) for line in table.read_text().splitlines()[1:])
        self.assertEqual(ksieve_account.retention_span(table), [times[0], times[-1]])
        with tempfile.TemporaryDirectory() as folder:
            missing = Path(folder) / "r.summary.json"
            self.assertIsNone(ksieve_account.account(missing, table))
            self.assertIsNone(ksieve_account.retention_span(Path(folder) / "r.precursors.tsv"))
            without_table = ksieve_account.account(summary, Path(folder) / "r.precursors.tsv")
            self.assertIsNone(without_table["coeluted_precursors"])

    def test_logged_keys_of_kSieves_own_log(self):
        log = (self.GOLDEN / "kSievePlusLog.txt").read_text()
        echoed, after = ksieve_account.logged_keys(log)
        self.assertIn(["input_format", "raw"], echoed)
        self.assertEqual(after, [["validate_precursors", "1"], ["keep_declared", "1"],
                                 ["precursor_table", "1"]])


# The required structure of a PSI mzQC 1.0.0 file, as its JSON schema sets it out
# (no copy of the schema is on this machine): what must be there, and the shapes of
# versions, dates, accessions and URIs.
ACCESSION = {"type": "string", "pattern": r"^[A-Z]+:[0-9]{7}$"}
CV_PARAMETER = {"type": "object", "required": ["accession", "name"],
                "properties": {"accession": ACCESSION, "name": {"type": "string"}}}
MZQC_REQUIRED = {
    "type": "object", "required": ["mzQC"], "additionalProperties": False,
    "properties": {"mzQC": {
        "type": "object",
        "required": ["version", "creationDate", "controlledVocabularies", "runQualities"],
        "properties": {
            "version": {"type": "string", "pattern": r"^1\.0\.0$"},
            "creationDate": {"type": "string",
                             "pattern": r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(Z|[+-]\d\d:\d\d)$"},
            "controlledVocabularies": {"type": "array", "minItems": 1, "items": {
                "type": "object", "required": ["name", "uri", "version"],
                "properties": {"uri": {"type": "string", "pattern": "^[a-z]+:"}}}},
            "runQualities": {"type": "array", "minItems": 1, "items": {
                "type": "object", "required": ["metadata", "qualityMetrics"],
                "properties": {
                    "metadata": {
                        "type": "object", "required": ["inputFiles", "analysisSoftware"],
                        "properties": {
                            "inputFiles": {"type": "array", "minItems": 1, "items": {
                                "type": "object", "required": ["location", "name", "fileFormat"],
                                "properties": {"fileFormat": CV_PARAMETER,
                                               "location": {"type": "string",
                                                            "pattern": "^file:///"}}}},
                            "analysisSoftware": {"type": "array", "minItems": 1, "items": {
                                **CV_PARAMETER, "required": ["accession", "name", "version"]}}}},
                    "qualityMetrics": {"type": "array", "minItems": 1,
                                       "items": CV_PARAMETER}}}}}}}}


class MzQC(unittest.TestCase):
    NUMBERS = {"run": "r1", "ms2_scans": 120, "precursors": 147, "retention_span": [60.0, 1860.5],
               "info": {"scan_account": [["ms1_read", "40"], ["ms2_read", "130"]]},
               "declared": {"scans": 16, "peptides": 7, "psms": 16, "psms_secondary": 0},
               "ksieve": {"scans": 18, "peptides": 8, "psms": 21, "psms_secondary": 3}}

    def test_document_has_mzqc_structure_and_the_runs_values(self):
        doc = mzqc.document(self.NUMBERS, "/data/r1.mzXML", {"kSieve": "2.0.8", "Comet": "x"})
        jsonschema.validate(doc, MZQC_REQUIRED)
        metrics = {m["name"]: m for m in doc["mzQC"]["runQualities"][0]["qualityMetrics"]}
        self.assertEqual(metrics["number of MS1 spectra"]["value"], 40)
        self.assertEqual(metrics["number of MS2 spectra"]["value"], 130)
        self.assertEqual(metrics["number of spectra searched"]["value"], 120)
        self.assertEqual(metrics["count of identified spectra"]["value"], 18)
        self.assertEqual(metrics["count of identified spectra, declared precursors"]["value"], 16)
        self.assertEqual(metrics["count of identifications from co-eluted precursors"]["value"], 3)
        self.assertEqual(metrics["chromatography duration"]["value"], 1800.5)
        file_format = doc["mzQC"]["runQualities"][0]["metadata"]["inputFiles"][0]["fileFormat"]
        self.assertEqual(file_format["name"], "ISB mzXML format")
        without = {**self.NUMBERS, "retention_span": None, "info": {"scan_account": []}}
        names = [m["name"] for m in mzqc.document(without, "/d/r.raw", {})["mzQC"]
                 ["runQualities"][0]["qualityMetrics"]]
        self.assertNotIn("chromatography duration", names)
        self.assertNotIn("number of MS1 spectra", names)

    def test_accessions_come_from_the_vocabulary_on_the_machine_or_are_local(self):
        terms, _, path = mzqc.vocabulary()
        if path is None:
            self.skipTest("no psi-ms.obo on this machine")
        doc = mzqc.document(self.NUMBERS, "/data/r1.mzML", {})["mzQC"]
        prefixes = {cv["name"] for cv in doc["controlledVocabularies"]}
        self.assertIn(mzqc.LOCAL_VOCABULARY["name"], prefixes)
        metadata = doc["runQualities"][0]["metadata"]
        for entry in (doc["runQualities"][0]["qualityMetrics"] + metadata["analysisSoftware"]
                      + [metadata["inputFiles"][0]["fileFormat"]]):
            with self.subTest(entry["name"]):
                if entry["accession"].startswith("MS:"):
                    self.assertEqual(terms.get(entry["name"]), entry["accession"])
                else:
                    self.assertTrue(entry["accession"].startswith("KSW:"))
                    self.assertNotIn(entry["name"], terms)
        locals_ = [m[1] for m in mzqc.METRICS]
        self.assertEqual(len(set(locals_)), len(locals_))
        self.assertEqual(terms["mzML format"], "MS:1000584")  # the lookup reads real terms


class ScoreDistribution(unittest.TestCase):
    def test_histogram_counts_every_psm_once_by_group_and_kind(self):
        psms = [psm(1, 0.0), psm(2, 10.0), psm(3, 5.0, decoy=True), psm(4, 9.99, decoy=True),
                psm(5, 2.5)]
        for p, group in zip(psms, ["primary", "primary", "primary", "secondary", "secondary"]):
            p.group = group
        result = score_distribution.histogram(psms)
        self.assertEqual(len(result["edges"]), score_distribution.BINS + 1)
        self.assertEqual((result["edges"][0], result["edges"][-1]), (0.0, 10.0))
        primary, secondary = result["primary"], result["secondary"]
        self.assertEqual(primary["target"][0], 1)
        self.assertEqual(primary["target"][-1], 1)       # the highest score in the last bin
        self.assertEqual(primary["decoy"][20], 1)
        self.assertEqual(secondary["decoy"][-1], 1)
        self.assertEqual(secondary["target"][10], 1)
        self.assertEqual(sum(map(sum, (primary["target"], primary["decoy"], secondary["target"],
                                       secondary["decoy"]))), 5)
        same = [psm(1, 3.0), psm(2, 3.0, decoy=True)]
        for p in same:
            p.group = "primary"
        self.assertEqual(sum(score_distribution.histogram(same)["primary"]["decoy"]), 1)
        self.assertIsNone(score_distribution.histogram([]))


class Overview(unittest.TestCase):
    def test_row_of_a_failed_run_and_of_a_finished_one(self):
        curve = [[q / 1000, q] for q in range(101)]
        numbers = {"ms2_scans": 0, "declared": {"scans": 0, "peptides": 0, "q_curve": curve},
                   "ksieve": {"scans": 0, "peptides": 0, "psms_secondary": 0, "q_curve": curve}}
        finished = overview.row(0, "a b&c", numbers, "ok", 0.01)
        self.assertIn('href="runs/a%20b%26c/report.html"', finished)
        self.assertEqual(finished.count("<polyline"), 2)
        self.assertIn(">NA</td>", finished)                # a rate over no MS2 scan
        failed = overview.row(1, "x", None, "failed: kSieve failed", 0.01)
        self.assertNotIn("<a ", failed)
        self.assertEqual(failed.count("<td"), len(overview.COLUMNS))


class ScanGroups(unittest.TestCase):
    def test_best_block_is_primary_and_other_peptides_are_secondary(self):
        best = psm(7, 9.0, sequence="AAK", spectrum="r.7.7.2.1.dta")
        same_peptide = psm(7, 5.0, sequence="AA(Oxidation)K", spectrum="r.7.7.3.0.dta")
        other = psm(7, 4.0, decoy=True, sequence="CCR", spectrum="r.7.7.2.2.dta")
        alone = psm(8, 1.0, sequence="AAK")
        tie_first, tie_second = psm(9, 2.0, sequence="DDK"), psm(9, 2.0, sequence="EEK")
        kept = qvalues.assign_groups([best, same_peptide, other, alone, tie_first, tie_second])
        self.assertEqual([(p.spectrum, p.group) for p in kept], [
            ("r.7.7.2.1.dta", "primary"), ("r.8.8.2.0.dta", "primary"),
            (tie_first.spectrum, "primary"), ("r.7.7.2.2.dta", "secondary"),
            (tie_second.spectrum, "secondary")])
        self.assertEqual(same_peptide.group, "")


class BlocksPerScan(unittest.TestCase):
    def row(self, spectrum, e_value, decoy=False):
        return {"spectrum_reference": spectrum, "score": str(e_value), "sequence": "PEPTIDEK",
                "target_decoy": "decoy" if decoy else "target", "charge": "2",
                "mz": "464.7328"}

    def test_a_scans_best_block_pays_for_the_blocks_it_was_chosen_from(self):
        """A decoy that wins one of four blocks of a scan with e-value 0.5 ranks below a
        single-block target with e-value 1: the best of four chances is worth four times
        its e-value, as if the scan had been searched against four times the candidates."""
        rows = [self.row(f"r.5.5.2.{i}.dta", e, decoy=(i == 2))
                for i, e in enumerate([30.0, 9.0, 0.5, 12.0])]
        rows += [self.row("r.6.6.2.0.dta", 1.0), self.row("HCDFT.00007.00007.2", 1.5),
                 self.row("not a scan", 1e-9)]
        psms = fdr.psms_of(rows)
        self.assertEqual([p.spectrum for p in psms], [r["spectrum_reference"] for r in rows[:6]])
        self.assertAlmostEqual(psms[2].score, -math.log10(0.5 * 4))
        self.assertAlmostEqual(psms[4].score, 0.0)
        self.assertEqual(rescore.comet_features(psms[2].fields)[2], psms[2].score)
        primaries = sorted((p for p in qvalues.grouped_q_values(psms) if p.group == "primary"),
                           key=lambda p: -p.score)
        self.assertEqual([p.scan for p in primaries], [6, 7, 5])


class TargetDecoyQValues(unittest.TestCase):
    def brute_force(self, psms, one):
        """The definition: the lowest D / T over every cut-off at or below the PSM's score."""
        cuts = [(sum(p.decoy for p in psms if p.score >= c.score),
                 sum(not p.decoy for p in psms if p.score >= c.score), c.score) for c in psms]
        return min([1.0] + [d / t for d, t, score in cuts if score <= one.score and t])

    def test_q_values_follow_the_definition_and_never_fall_as_scores_worsen(self):
        draw = random.Random(19)
        for trial in range(200):
            psms = [psm(i, draw.choice([draw.random(), 0.5]) * 10, decoy=draw.random() < 0.3)
                    for i in range(draw.randint(1, 40))]
            qvalues.set_q_values(psms)
            with self.subTest(trial):
                for one in psms:
                    self.assertAlmostEqual(one.q_value, self.brute_force(psms, one))
                ranked = sorted(psms, key=lambda p: -p.score)
                self.assertEqual([p.q_value for p in ranked], sorted(p.q_value for p in ranked))

    def test_groups_compete_apart(self):
        primaries = [psm(i, 10.0 + i) for i in range(1, 101)]
        secondaries = [psm(i, 50.0 + i, decoy=True, sequence="DECOYK", spectrum=f"r.{i}.{i}.2.1.dta")
                       for i in range(1, 6)]
        for first in primaries[:5]:
            first.score = 100.0 + first.scan  # the decoy is its scan's second best
        kept = qvalues.grouped_q_values(primaries + secondaries)
        self.assertEqual({p.q_value for p in kept if p.group == "primary"}, {0.0})
        self.assertEqual({p.q_value for p in kept if p.group == "secondary"}, {1.0})

    def test_primaries_of_one_block_and_of_several_blocks_compete_apart(self):
        """A decoy that wins a scan of several blocks cuts off that stratum's primaries below
        it, not those of scans searched with one block; a decoy of a one-block scan cuts off
        its own stratum as usual."""
        single = [psm(i, float(i)) for i in range(1, 61)]
        single_decoy = psm(300, 5.5, decoy=True, sequence="DECOYK")
        several = [block for i in range(101, 131)
                   for block in (psm(i, i - 80.5, spectrum=f"r.{i}.{i}.2.0.dta"),
                                 psm(i, 0.1, sequence="OTHERK", spectrum=f"r.{i}.{i}.3.1.dta"))]
        chimeric_decoy = [psm(200, 35.0, decoy=True, sequence="DECOYK",
                              spectrum="r.200.200.2.0.dta"),
                          psm(200, 1.0, spectrum="r.200.200.2.1.dta")]
        kept = qvalues.grouped_q_values(single + [single_decoy] + several + chimeric_decoy)
        q = {p.spectrum: p.q_value for p in kept if p.group == "primary"}
        self.assertEqual({q[p.spectrum] for p in single if p.score > 5.5}, {0.0})
        self.assertEqual({q[p.spectrum] for p in single if p.score < 5.5}, {1 / 60})
        above = {q[f"r.{i}.{i}.2.0.dta"] for i in range(101, 131) if i - 80.5 > 35.0}
        below = {q[f"r.{i}.{i}.2.0.dta"] for i in range(101, 131) if i - 80.5 < 35.0}
        self.assertEqual(above, {0.0})
        self.assertEqual(below, {1 / 30})


class EntrapmentDatabase(unittest.TestCase):
    def test_twins_shuffle_each_tryptic_peptide_and_keep_its_cleavage_residue(self):
        draw = random.Random(3)
        for trial in range(100):
            sequence = "".join(draw.choice("ACDEFGHIKLMNPQRSTVWY") for _ in range(draw.randint(1, 80)))
            twin = entrapment.shuffled_protein(sequence, random.Random(trial))
            with self.subTest(sequence):
                pieces = entrapment.tryptic_peptides(sequence)
                self.assertEqual("".join(pieces), sequence)
                start = 0
                for piece in pieces:
                    mirrored = twin[start:start + len(piece)]
                    self.assertEqual(sorted(mirrored), sorted(piece))
                    if piece[-1] in "KR":
                        self.assertEqual(mirrored[-1], piece[-1])
                    start += len(piece)

    def test_database_holds_targets_then_marked_twins_the_same_on_every_run(self):
        with tempfile.TemporaryDirectory() as work:
            targets, out = Path(work) / "t.fasta", Path(work) / "te.fasta"
            targets.write_bytes(b"\xef\xbb\xbf>sp|P1|A one\nMKWVTFISLL\nLLFSSAYSRGVFRR\n>sp|P2|B\nPEPTIDEK")
            entrapment.main(targets, out, "ENTRAP_")
            first = out.read_text(encoding="utf-8")
            entrapment.main(targets, out, "ENTRAP_")
            self.assertEqual(out.read_text(encoding="utf-8"), first)
        lines = first.splitlines()
        self.assertEqual(lines[:5], [">sp|P1|A one", "MKWVTFISLL", "LLFSSAYSRGVFRR", ">sp|P2|B",
                                     "PEPTIDEK"])
        self.assertEqual([lines[5], lines[7]], [">ENTRAP_sp|P1|A one", ">ENTRAP_sp|P2|B"])
        self.assertEqual(sorted(lines[6]), sorted("MKWVTFISLLLLFSSAYSRGVFRR"))
        self.assertEqual(len(lines), 9)


class EntrapmentEstimate(unittest.TestCase):
    def test_combined_estimate_per_group(self):
        rows = [{"entrapment": e, "group": g, "scan": str(i), "sequence": f"PEP{i}K",
                 "q_value": "0"} for i, (e, g) in enumerate(
                     [("0", "primary")] * 97 + [("1", "primary")] * 3 + [("0", "secondary"),
                                                                      ("1", "secondary")])]
        self.assertAlmostEqual(run_table.entrapment_fdp(rows[:100]), 0.06)
        self.assertAlmostEqual(run_table.entrapment_fdp(rows[100:]), 1.0)
        self.assertIsNone(run_table.entrapment_fdp([]))



def simulated_psms(targets, decoys, seed):
    """PSMs whose second feature parts true targets from decoys better than the start score."""
    draw = np.random.default_rng(seed)
    true = draw.random(targets + decoys) < 0.6
    decoy = np.zeros(targets + decoys, dtype=bool)
    decoy[targets:] = True
    true[targets:] = False
    start = draw.normal(size=targets + decoys) + 3.0 * true
    features = np.column_stack([start, draw.normal(size=targets + decoys) + 6.0 * true,
                                draw.normal(size=targets + decoys)])
    return features, decoy, list(range(targets + decoys)), start


class Rescoring(unittest.TestCase):
    def test_a_better_feature_is_learnt_and_a_second_run_gives_the_same_scores(self):
        features, decoys, scans, start = simulated_psms(1500, 1000, 5)
        scores, notes = rescore.rescore(features, decoys, scans, start)
        again, _ = rescore.rescore(features, decoys, scans, start)
        self.assertEqual(notes, [])
        self.assertTrue(np.array_equal(scores, again))
        self.assertGreater(rescore.accepted_count(scores, decoys)[0],
                           rescore.accepted_count(start, decoys)[0] + 200)
        weights = rescore.weights(features, decoys, scans, start)
        self.assertEqual(max(range(3), key=lambda i: abs(weights[i])), 1)

    def test_blocks_of_one_scan_share_a_fold_and_no_fold_sees_its_own_psms(self):
        features, decoys, _, start = simulated_psms(1200, 800, 8)
        scans = [i // 2 for i in range(2000)]
        fold = rescore.folds(scans)
        self.assertTrue(all(fold[i] == fold[i + 1] for i in range(0, 2000, 2)))
        self.assertEqual(sorted(np.bincount(fold)), [666, 666, 668])
        scores, notes = rescore.rescore(features, decoys, scans, start)
        self.assertEqual(notes, [])
        # Relabelling some of fold 1's PSMs changes the models of the other folds, not fold 1's.
        held = fold == 0
        relabelled = decoys.copy()
        flipped = np.nonzero(held & decoys)[0][::4]
        relabelled[flipped] = ~relabelled[flipped]
        again, notes = rescore.rescore(features, relabelled, scans, start)
        self.assertEqual(notes, [])
        self.assertTrue(np.allclose(again[held], scores[held]))
        self.assertFalse(np.allclose(again[~held], scores[~held]))

    def test_too_few_targets_or_no_decoy_keep_the_e_value_ranking_with_a_note(self):
        """Nothing to learn from: too few targets below 1 %, or a run so clean that its
        training sets hold no decoy (a small simulated run) and no model can part two
        classes."""
        for targets, decoy_count in ((25, 30), (300, 0)):
            features, decoys, scans, start = simulated_psms(targets, decoy_count, 2)
            with self.subTest(targets=targets, decoys=decoy_count):
                scores, notes = rescore.rescore(features, decoys, scans, start)
                self.assertEqual(notes, [rescore.FALLBACK])
                self.assertTrue(np.array_equal(scores, start))
                self.assertIsNone(rescore.weights(features, decoys, scans, start))

    def test_ksieve_evidence_comes_from_its_precursor_table_by_mgf_title(self):
        header = ("scan\tnative_id\trt_seconds\ttitle\trank\tmz\tcharge\torigin\tscore\t"
                  "intensity\tpurity\tisotope_shift\tvalidation\n")
        rows = ("7\tscan=7\t12.5\tr.7.7.2.0.dta\t1\t500.2\t2\tdeclared_confirmed\t0.9\t1000\t0.8"
                "\t0\tkept\n"
                "7\tscan=7\t12.5\tr.7.7.3.1.dta\t2\t400.1\t3\tcoeluted\tnan\t\t0.1\t0\tkept\n"
                "7\tscan=7\t12.5\tr.7.7.2.2.dta\t3\t500.7\t2\tdeclared_kept\t\t10\t0.2\t\t\n"
                "7\tscan=7\t12.5\tr.7.7.2.3.dta\t4\t499.7\t2\tcorrected\t0.5\t10\t0.3\t1\t\n")
        with tempfile.TemporaryDirectory() as work:
            table = Path(work) / "r.precursors.tsv"
            table.write_text(header + rows, encoding="utf-8")
            found = fdr.precursor_rows(str(table))
            self.assertEqual(fdr.precursor_rows(str(Path(work) / "absent.tsv")), {})
        self.assertEqual(sorted(found), ["r.7.7.2.0.dta", "r.7.7.2.2.dta", "r.7.7.2.3.dta",
                                         "r.7.7.3.1.dta"])
        self.assertEqual(rescore.ksieve_features(found["r.7.7.2.0.dta"]), [1.0, 0.9, 0.8, 3.0, 1.0])
        self.assertEqual(rescore.ksieve_features(found["r.7.7.3.1.dta"]), [0.0, 0.0, 0.1, 0.0, 2.0])
        # The declared ion as the instrument gave it, confirmed by detection or kept without.
        self.assertEqual([rescore.ksieve_features(found[f"r.7.7.2.{i}.dta"])[0] for i in (2, 3)],
                         [1.0, 0.0])
        self.assertEqual(rescore.ksieve_features(None), [0.0] * 5)


class PrecursorError(unittest.TestCase):
    def test_ppm_error_after_whole_isotope_steps(self):
        self.assertAlmostEqual(rescore.peptide_mass("PEPTIDE"), 799.35996, places=4)  # known value
        self.assertAlmostEqual(rescore.peptide_mass("PEPTIDEM(Oxidation)")
                               - rescore.peptide_mass("PEPTIDEM"), 15.994915, places=6)
        self.assertIsNone(rescore.peptide_mass("PEPTIDEX"))
        mass = rescore.peptide_mass("LC(Carbamidomethyl)VLHEK")
        for charge in (1, 2, 3):
            exact = mass / charge + rescore.PROTON
            for steps, ppm in ((0, 0.0), (1, 0.0), (2, 4.0), (0, -7.5)):
                mz = exact + (steps * rescore.ISOTOPE_STEP + ppm * mass / 1e6) / charge
                with self.subTest(charge=charge, steps=steps):
                    self.assertAlmostEqual(rescore.ppm_error("LC(Carbamidomethyl)VLHEK", mz, charge),
                                           ppm, places=6)
        self.assertEqual(rescore.missed_cleavages("AKPLRMKR"), 2)


class SimulatedTruth(unittest.TestCase):
    TRUTH = ("ms2_scan,precursor_scan,activation_center,sequence,charge,mono_mz,window_share,"
             "selected\n5,4,500.0,PEPTIDEK,2,500.0,0.8,1\n5,4,500.0,LLMSAR,2,500.5,0.2,0\n"
             "9,8,600.0,AVGEK,1,600.0,1.0,1\n")

    def test_a_psm_is_false_unless_its_scan_isolated_its_peptide(self):
        with tempfile.TemporaryDirectory() as folder:
            truth = Path(folder) / "truth.csv"
            truth.write_text(self.TRUTH)
            held = fdr_truth.truth_peptides(truth)
        psms = [{"scan": "5", "sequence": "PEPTLDEK", "entrapment": "0"},  # I and L alike
                {"scan": "5", "sequence": "LIM(Oxidation)SAR", "entrapment": "0"},
                {"scan": "9", "sequence": "PEPTIDEK", "entrapment": "0"},  # another scan's
                {"scan": "11", "sequence": "AVGEK", "entrapment": "0"},  # a scan of no truth
                {"scan": "9", "sequence": "GVAEK", "entrapment": "1"}]
        self.assertEqual(fdr_truth.group_figures(psms, held), (5, 3, 0.6, 0.4))
        self.assertEqual(fdr_truth.group_figures([], held), (0, 0, None, None))


if __name__ == "__main__":
    unittest.main()
