"""The mzML output as the tools that read it see it.

    test_mzml_readers.py <kSieve executable> <check>

check is one of:
  self         runs with output_mzml on and off write the same KS, MGF and CSV
               bytes; the file holds every scan of the .ms1/.ms2 pair, the MS2
               scans with the table's precursors, peaks as in the text files
  fileinfo     OpenMS FileInfo -v: schema and semantic validation pass
  fileconverter, msconvert
               the file read and written again by the tool holds the same

A check whose tool is not installed is skipped (exit 77). The input is the
bundled demo run as `.ms1`/`.ms2`.
"""
import base64
import os
import shutil
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET
import zlib

SKIP = 77
HERE = os.path.dirname(os.path.abspath(__file__))
DATA = os.path.join(HERE, "..", "data", "threads")
NS = "{http://psi.hupo.org/ms/mzml}"


def run_ksieve(exe, workdir, extra_keys):
    os.makedirs(os.path.join(workdir, "data"))
    for suffix in (".ms1", ".ms2"):
        shutil.copy(os.path.join(DATA, "bsa_demo" + suffix), os.path.join(workdir, "data"))
    with open(os.path.join(workdir, "run.params"), "w") as params:
        params.write("datapath = data/bsa_demo.ms1\n" + extra_keys)
    done = subprocess.run([exe, "run.params"], cwd=workdir, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr
    return os.path.join(workdir, "data")


def decode_array(array):
    accessions = {p.get("accession") for p in array.iter(NS + "cvParam")}
    raw = base64.b64decode(array.find(NS + "binary").text or "")
    if "MS:1000574" in accessions:
        raw = zlib.decompress(raw)
    code = "d" if "MS:1000523" in accessions else "f"
    values = list(struct.unpack("<%d%s" % (len(raw) // struct.calcsize(code), code), raw))
    kind = "mz" if "MS:1000514" in accessions else "intensity"
    return kind, values


def read_mzml(path):
    """Spectra in file order: (ms level, scan, [(mz, charge)], mz list, intensity list)."""
    spectra = []
    for _, element in ET.iterparse(path):
        if element.tag != NS + "spectrum":
            continue
        level = [p.get("value") for p in element.iter(NS + "cvParam")
                 if p.get("accession") == "MS:1000511"][0]
        precursors = []
        for ion in element.iter(NS + "selectedIon"):
            values = {p.get("accession"): p.get("value") for p in ion.iter(NS + "cvParam")}
            precursors.append((float(values["MS:1000744"]), int(values["MS:1000041"])))
        arrays = dict(decode_array(a) for a in element.iter(NS + "binaryDataArray"))
        scan = int(element.get("id").rsplit("=", 1)[1])
        spectra.append((int(level), scan, precursors, arrays.get("mz", []),
                        arrays.get("intensity", [])))
        element.clear()
    return spectra


def read_text_scans(path):
    """scan -> (mz list, intensity list as 32-bit floats), from a .ms1/.ms2 file."""
    scans = {}
    current = None
    with open(path) as text:
        for line in text:
            if line.startswith("S\t"):
                current = int(line.split()[1])
                scans[current] = ([], [])
            elif current is not None and line[:1].isdigit():
                mz, intensity = line.split()[:2]
                scans[current][0].append(float(mz))
                scans[current][1].append(struct.unpack("<f", struct.pack("<f", float(intensity)))[0])
    return scans


def read_table(path):
    """MS2 scan -> [(mz, charge)] of the precursor table, in its order."""
    rows = {}
    with open(path) as table:
        next(table)
        for line in table:
            fields = [f.strip() for f in line.split(",")]
            count = int(fields[5])
            rows[int(fields[2])] = [(float(fields[7 + 3 * i]), int(fields[8 + 3 * i]))
                                    for i in range(count)]
    return rows


def check_content(spectra, data_dir):
    ms1 = read_text_scans(os.path.join(data_dir, "bsa_demo.ms1"))
    ms2 = read_text_scans(os.path.join(data_dir, "bsa_demo.ms2"))
    table = read_table(os.path.join(data_dir, "bsa_demo.csv"))
    expected = sorted([(1, s) for s in ms1] + [(2, s) for s in table], key=lambda t: t[1])
    assert [(level, scan) for level, scan, *_ in spectra] == expected, "scans or their order"
    for level, scan, precursors, mz, intensity in spectra:
        want_mz, want_intensity = (ms1 if level == 1 else ms2)[scan]
        assert mz == want_mz, "m/z of scan %d" % scan
        assert intensity == want_intensity, "intensities of scan %d" % scan
        if level == 2:
            want = table[scan]
            assert len(precursors) == len(want), "precursor count of scan %d" % scan
            for (got_mz, got_charge), (want_mz_, want_charge) in zip(precursors, want):
                assert abs(got_mz - want_mz_) <= 1e-5 and got_charge == want_charge, scan
        else:
            assert not precursors, scan


def outputs(data_dir):
    names = sorted(n for n in os.listdir(data_dir)
                   if n.endswith((".ks1", ".ks1idx", ".ks2", ".ks2idx", ".mgf", ".csv")))
    return {n: open(os.path.join(data_dir, n), "rb").read() for n in names}


def check_self(exe, scratch):
    off = run_ksieve(exe, os.path.join(scratch, "off"), "")
    on = run_ksieve(exe, os.path.join(scratch, "on"), "output_mzml = 1\n")
    plain = run_ksieve(exe, os.path.join(scratch, "plain"),
                       "output_mzml = 1\nmzml_compression = 0\nmzml_monoisotopic_term = 1\n")
    assert outputs(on) == outputs(off) and len(outputs(on)) >= 4, "outputs changed by the key"
    assert not os.path.exists(os.path.join(off, "bsa_demo.ksieve.mzML"))
    check_content(read_mzml(os.path.join(on, "bsa_demo.ksieve.mzML")), on)
    check_content(read_mzml(os.path.join(plain, "bsa_demo.ksieve.mzML")), plain)
    text = open(os.path.join(plain, "bsa_demo.ksieve.mzML")).read()
    assert "MS:1003208" in text and "MS:1000576" in text and "MS:1000574" not in text


def tool_check(exe, scratch, check):
    data_dir = run_ksieve(exe, os.path.join(scratch, "run"), "output_mzml = 1\n")
    ours = os.path.join(data_dir, "bsa_demo.ksieve.mzML")
    if check == "fileinfo":
        done = subprocess.run(["FileInfo", "-in", ours, "-v"], capture_output=True, text=True)
        report = done.stdout + done.stderr
        assert done.returncode == 0, report
        assert "Success - the file is valid!" in report, report
        assert "Success - the file is semantically valid!" in report, report
        return
    out_dir = os.path.join(scratch, "back")
    os.makedirs(out_dir)
    if check == "fileconverter":
        back = os.path.join(out_dir, "back.mzML")
        command = ["FileConverter", "-in", ours, "-out", back, "-out_type", "mzML"]
    else:
        back = os.path.join(out_dir, "bsa_demo.ksieve.mzML")
        command = ["msconvert", ours, "--mzML", "-o", out_dir]
    done = subprocess.run(command, capture_output=True, text=True, timeout=300)
    assert done.returncode == 0, done.stdout + done.stderr
    check_content(read_mzml(back), data_dir)


def main():
    exe, check = os.path.abspath(sys.argv[1]), sys.argv[2]
    tool = {"fileinfo": "FileInfo", "fileconverter": "FileConverter",
            "msconvert": "msconvert"}.get(check)
    if tool and shutil.which(tool) is None:
        print("skipped: %s is not installed" % tool)
        return SKIP
    with tempfile.TemporaryDirectory(prefix="ksieve_mzml_") as scratch:
        if check == "self":
            check_self(exe, scratch)
        else:
            tool_check(exe, scratch, check)
    print("ok")
    return 0


if __name__ == "__main__":
    sys.exit(main())
