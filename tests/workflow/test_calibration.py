"""Precursor mass calibration: the offset a first search measures, the spectra it moves,
and the m/z that OpenMS reports for what Comet searched."""

import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "workflow" / "scripts"))

import calibration  # noqa: E402
import rescore  # noqa: E402
import run_page  # noqa: E402
import run_table  # noqa: E402
import search  # noqa: E402
from qvalues import Psm  # noqa: E402

PEPTIDE = "LVNELTEFAK"


def mz_of(sequence, charge, ppm):
    """The m/z of the peptide's ion with its neutral mass `ppm` off."""
    return rescore.PROTON + rescore.peptide_mass(sequence) * (1 + ppm * 1e-6) / charge


def psm(scan, ppm, e_value, decoy=False, charge=2):
    """A PSM as OpenMS reports it: m/z one electron above what was searched."""
    mz = mz_of(PEPTIDE, charge, ppm) + calibration.REPORTED_SHIFT
    return Psm(spectrum=f"run.{scan}.{scan}.{charge}.0.dta", scan=scan, score=-e_value,
               decoy=decoy, sequence=PEPTIDE,
               fields={"mz": f"{mz:.9f}", "charge": str(charge)})


class Offset(unittest.TestCase):
    def test_median_error_of_the_confident_targets_only(self):
        # 30 confident targets around -6 ppm, one confident decoy at the end of them,
        # then targets far off that the decoy's FDR cut leaves out.
        psms = [psm(i, -6.0 + (i % 5 - 2) * 0.5, e_value=i * 0.001) for i in range(1, 31)]
        psms.append(psm(31, 25.0, e_value=0.5, decoy=True))
        psms += [psm(32 + i, 20.0, e_value=1.0 + i) for i in range(5)]
        offset, count = calibration.offset_ppm(psms, 0.01)
        self.assertEqual(count, 30)
        self.assertAlmostEqual(offset, -6.0, places=4)

    def test_charge_and_isotope_steps_do_not_change_the_error(self):
        psms = [psm(i, 3.0, e_value=i * 0.001, charge=2 + i % 2) for i in range(1, 25)]
        for p in psms[::3]:
            step = rescore.ISOTOPE_STEP / int(p.fields["charge"])
            p.fields["mz"] = str(float(p.fields["mz"]) + step)
        offset, count = calibration.offset_ppm(psms, 0.01)
        self.assertEqual(count, 24)
        self.assertAlmostEqual(offset, 3.0, places=2)

    def test_too_few_confident_psms_give_no_offset(self):
        psms = [psm(i, -6.0, e_value=i * 0.001) for i in range(1, calibration.MINIMUM_PSMS)]
        self.assertEqual(calibration.offset_ppm(psms, 0.01),
                         (None, calibration.MINIMUM_PSMS - 1))
        self.assertEqual(calibration.offset_ppm([], 0.01), (None, 0))


class MovedSpectra(unittest.TestCase):
    def test_a_corrected_precursor_is_the_peptides_at_every_charge(self):
        for charge in (1, 2, 3, 4):
            for ppm in (-9.5, 0.0, 7.25):
                written = f"{mz_of(PEPTIDE, charge, ppm):.6f}"
                self.assertAlmostEqual(float(calibration.corrected(written, ppm)),
                                       mz_of(PEPTIDE, charge, 0.0), places=5)
        self.assertEqual(calibration.corrected("480.74625", 0.0), "480.74625")
        self.assertEqual(len(calibration.corrected("480.7", -8.0).split(".")[1]), 1)
        self.assertEqual(calibration.corrected("n/a", 5.0), "n/a")

    def test_only_precursor_masses_change_in_mgf_and_ms2(self):
        mgf = ("BEGIN IONS\nTITLE=run.4.4.2.0.dta\nCHARGE=2+\nPEPMASS=502.748210 2680743.1\n"
               "101.07073 12117.5\nEND IONS\nBEGIN IONS\nTITLE=run.5.5.2.0.dta\nCHARGE=2+\n"
               "PEPMASS=537.76057\n102.05482 3100.5\nEND IONS\n")
        ms2 = ("H\tExtractor\tspexor_xml.exe\nS\t34\t34\t480.74625\nI\tActivationCenter\t"
               "480.74625\nZ\t2\t960.48522\nZ\t3\t1440.72420\n101.07058\t3878.2\n")
        with tempfile.TemporaryDirectory() as work:
            work = Path(work)
            (work / "a.mgf").write_text(mgf, encoding="utf-8")
            (work / "a.ms2").write_text(ms2, encoding="utf-8")
            calibration.calibrate(work / "a.mgf", work / "b.mgf", 10.0)
            calibration.calibrate(work / "a.ms2", work / "b.ms2", 10.0)
            moved_mgf = (work / "b.mgf").read_text(encoding="utf-8").splitlines()
            moved_ms2 = (work / "b.ms2").read_text(encoding="utf-8").splitlines()
        changed = {i for i, (a, b) in enumerate(zip(mgf.splitlines(), moved_mgf)) if a != b}
        self.assertEqual(changed, {3, 9})
        self.assertEqual(moved_mgf[3], f"PEPMASS={calibration.corrected('502.748210', 10.0)} "
                                       "2680743.1")
        self.assertEqual(moved_mgf[9], f"PEPMASS={calibration.corrected('537.76057', 10.0)}")
        self.assertLess(float(moved_mgf[3].split("=")[1].split()[0]), 502.748210)
        self.assertEqual(moved_ms2[1], "S\t34\t34\t" + calibration.corrected("480.74625", 10.0))
        self.assertEqual(moved_ms2[2], "I\tActivationCenter\t480.74625")
        self.assertEqual(moved_ms2[3:5], ["Z\t2\t" + calibration.corrected("960.48522", 10.0),
                                          "Z\t3\t" + calibration.corrected("1440.72420", 10.0)])
        self.assertEqual(len(moved_ms2), len(ms2.splitlines()))


class Report(unittest.TestCase):
    def test_the_run_page_shows_each_sides_offset_only_when_calibrated(self):
        with tempfile.TemporaryDirectory() as work:
            hits = [Path(work) / "declared.idXML", Path(work) / "ksieve.idXML"]
            args = type("Args", (), {"hits": [str(h) for h in hits]})
            self.assertIsNone(run_table.calibrations(args))
            (Path(work) / "declared_calibration.json").write_text(
                '{"offset_ppm": -1.7852, "psms": 57, "first_search_tolerance_ppm": 30.0}')
            (Path(work) / "ksieve_calibration.json").write_text(
                '{"offset_ppm": null, "psms": 12, "first_search_tolerance_ppm": 30.0}')
            found = run_table.calibrations(args)
        self.assertEqual(run_page.calibration_section(None), "")
        page = run_page.calibration_section(found)
        self.assertEqual(re.findall(r"<tr><td>([^<]*)</td><td class=n>([^<]*)</td>"
                                    r"<td class=n>([^<]*)</td>", page),
                         [("declared", "-1.79", "57"), ("kSieve", "none: too few PSMs", "12")])


def fragments(sequence):
    """Singly charged b and y ions of an unmodified peptide."""
    masses = [rescore.RESIDUES[r] for r in sequence]
    b = [sum(masses[:i]) + rescore.PROTON for i in range(1, len(masses))]
    y = [sum(masses[i:]) + rescore.WATER + rescore.PROTON for i in range(1, len(masses))]
    return sorted(b + y)


@unittest.skipUnless(shutil.which("comet-ms") and shutil.which("IDFileConverter"),
                     "needs comet-ms and OpenMS")
class ReportedMz(unittest.TestCase):
    def test_openms_reports_the_searched_mz_one_electron_higher(self):
        # The offset is measured on OpenMS's m/z; what Comet searched is that less the shift.
        pepmass = f"{mz_of(PEPTIDE, 2, 0.0):.6f}"
        peaks = "".join(f"{mz:.5f} 1000.0\n" for mz in fragments(PEPTIDE))
        with tempfile.TemporaryDirectory() as work:
            work = Path(work)
            (work / "database.fasta").write_text(
                ">sp|P02769|ALBU_BOVIN\nMKWVTFISLLLLFSSAYSRGVFRRDTHKSEIAHRFKDLGEEHFKGLVLIAFSQY"
                "LQQCPFDEHVKLVNELTEFAKTCVADESHAGCEKSLHTLFGDELCKVASLRETYGDMADCCEK\n",
                encoding="utf-8")
            (work / "a.mgf").write_text(
                f"BEGIN IONS\nTITLE=run.7.7.2.0.dta\nCHARGE=2+\nPEPMASS={pepmass}\n{peaks}"
                "END IONS\n", encoding="utf-8")
            settings = {"decoy_prefix": "DECOY_", "comet": {
                "common": {"peptide_mass_tolerance": 10.0, "peptide_mass_units": 2,
                           "isotope_error": 0, "minimum_peaks": 5},
                "FT": {"fragment_bin_tol": 0.02, "fragment_bin_offset": 0.0}}}
            (work / "comet.params").write_text(search.comet_parameters(
                ROOT / "workflow" / "resources" / "comet.params.template", settings, "FT",
                "database.fasta", 1), encoding="utf-8")
            with open(work / "log", "w", encoding="utf-8") as log:
                for command in (["comet-ms", "-Pcomet.params", "-Na", "a.mgf"],
                                ["IDFileConverter", "-in", "a.pep.xml", "-out", "a.idXML"]):
                    subprocess.run(command, cwd=work, stdout=log, stderr=log, check=True)
            idxml = (work / "a.idXML").read_text(encoding="utf-8")
        self.assertIn(f'sequence="{PEPTIDE}"', idxml)
        reported = float(re.search(r'PeptideIdentification[^>]* MZ="([0-9.]+)"', idxml).group(1))
        self.assertAlmostEqual(reported - calibration.REPORTED_SHIFT, float(pepmass), places=5)


if __name__ == "__main__":
    unittest.main()
