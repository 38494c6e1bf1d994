#!/usr/bin/python3
"""Writes the simulator's .ms1/.ms2 pair as one indexed mzML run.

The run is laid out as an instrument and the common converters write it: MS1
and MS2 spectra interleaved in scan order, native IDs "controllerType=0
controllerNumber=1 scan=N", 64-bit zlib-compressed m/z and intensity arrays,
spectrum references to the survey scans, HCD or CID activation terms, an
Orbitrap analyzer, and the offset index with its SHA-1 checksum at the end.

    ms_pair_to_mzml.py <run.ms1> <run.ms2> <out.mzML>
"""
import base64
import hashlib
import struct
import sys
import zlib

ACTIVATION_TERMS = {
    "HCD": ("MS:1000422", "beam-type collision-induced dissociation"),
    "CID": ("MS:1000133", "collision-induced dissociation"),
}


def scans(path):
    """Yields (number, precursor m/z or None, info dict, z list, peaks) per scan."""
    scan = None
    with open(path, encoding="ascii") as lines:
        for line in lines:
            kind = line[0]
            if kind == "S":
                if scan:
                    yield scan
                fields = line.split("\t")
                mz = float(fields[3]) if len(fields) > 3 else None
                scan = (int(fields[1]), mz, {}, [], [])
            elif kind == "I" and scan:
                _, key, value = line.rstrip("\n").split("\t", 2)
                scan[2][key] = value
            elif kind == "Z" and scan:
                _, charge, mass = line.split("\t")
                scan[3].append((int(charge), float(mass)))
            elif kind != "H" and scan:
                mz, intensity = line.split()
                scan[4].append((float(mz), float(intensity)))
    if scan:
        yield scan


def cv(term, name, value=""):
    return f'<cvParam cvRef="MS" accession="{term}" name="{name}" value="{value}"/>'


def array_xml(values, term, name, unit):
    raw = struct.pack(f"<{len(values)}d", *values)
    text = base64.b64encode(zlib.compress(raw)).decode("ascii")
    return (
        f'<binaryDataArray encodedLength="{len(text)}">'
        + cv("MS:1000523", "64-bit float")
        + cv("MS:1000574", "zlib compression")
        + f'<cvParam cvRef="MS" accession="{term}" name="{name}" value="" '
        + f'unitCvRef="MS" unitAccession="{unit[0]}" unitName="{unit[1]}"/>'
        + f"<binary>{text}</binary></binaryDataArray>"
    )


def native_id(number):
    return f"controllerType=0 controllerNumber=1 scan={number}"


def spectrum_xml(index, scan, level, last_survey):
    number, precursor_mz, info, charges, peaks = scan
    mzs = [p[0] for p in peaks]
    intensities = [p[1] for p in peaks]
    parts = [
        f'<spectrum index="{index}" id="{native_id(number)}" '
        f'defaultArrayLength="{len(peaks)}">',
        cv("MS:1000511", "ms level", level),
        cv("MS:1000579" if level == 1 else "MS:1000580",
           "MS1 spectrum" if level == 1 else "MSn spectrum"),
        cv("MS:1000130", "positive scan"),
        cv("MS:1000127", "centroid spectrum"),
        '<scanList count="1">', cv("MS:1000795", "no combination"), "<scan>",
        f'<cvParam cvRef="MS" accession="MS:1000016" name="scan start time" '
        f'value="{float(info["RetTime"]):.6f}" unitCvRef="UO" unitAccession="UO:0000031" '
        'unitName="minute"/>',
        "</scan></scanList>",
    ]
    if level == 2:
        center = float(info.get("ActivationCenter", precursor_mz))
        term, name = ACTIVATION_TERMS[info.get("ActivationType", "HCD")]
        ref = f' spectrumRef="{native_id(last_survey)}"' if last_survey else ""
        parts += [
            f'<precursorList count="1"><precursor{ref}><isolationWindow>',
            cv("MS:1000827", "isolation window target m/z", f"{center:.5f}"),
            cv("MS:1000828", "isolation window lower offset", "1.0"),
            cv("MS:1000829", "isolation window upper offset", "1.0"),
            '</isolationWindow><selectedIonList count="1"><selectedIon>',
            cv("MS:1000744", "selected ion m/z", f"{precursor_mz:.5f}"),
        ]
        if charges and charges[0][0] > 0:
            parts.append(cv("MS:1000041", "charge state", charges[0][0]))
        parts += ["</selectedIon></selectedIonList><activation>", cv(term, name),
                  cv("MS:1000045", "collision energy", "30.0"),
                  "</activation></precursor></precursorList>"]
    parts += [
        '<binaryDataArrayList count="2">',
        array_xml(mzs, "MS:1000514", "m/z array", ("MS:1000040", "m/z")),
        array_xml(intensities, "MS:1000515", "intensity array",
                  ("MS:1000131", "number of detector counts")),
        "</binaryDataArrayList></spectrum>\n",
    ]
    return "".join(parts)


HEADER = """<?xml version="1.0" encoding="utf-8"?>
<indexedmzML xmlns="http://psi.hupo.org/ms/mzml" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:schemaLocation="http://psi.hupo.org/ms/mzml http://psidev.info/files/ms/mzML/xsd/mzML1.1.2_idx.xsd">
<mzML xmlns="http://psi.hupo.org/ms/mzml" xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:schemaLocation="http://psi.hupo.org/ms/mzml http://psidev.info/files/ms/mzML/xsd/mzML1.1.0.xsd" id="simulated" version="1.1.0">
<cvList count="2">
<cv id="MS" fullName="Proteomics Standards Initiative Mass Spectrometry Ontology" version="4.1.0" URI="https://raw.githubusercontent.com/HUPO-PSI/psi-ms-CV/master/psi-ms.obo"/>
<cv id="UO" fullName="Unit Ontology" version="09:04:2014" URI="https://raw.githubusercontent.com/bio-ontology-research-group/unit-ontology/master/unit.obo"/>
</cvList>
<fileDescription><fileContent>
<cvParam cvRef="MS" accession="MS:1000579" name="MS1 spectrum" value=""/>
<cvParam cvRef="MS" accession="MS:1000580" name="MSn spectrum" value=""/>
</fileContent></fileDescription>
<softwareList count="1"><software id="simulator" version="1"><cvParam cvRef="MS" accession="MS:1000799" name="custom unreleased software tool" value="kSieve simulator"/></software></softwareList>
<instrumentConfigurationList count="1"><instrumentConfiguration id="IC1">
<cvParam cvRef="MS" accession="MS:1001742" name="LTQ Orbitrap Velos" value=""/>
<componentList count="3">
<source order="1"><cvParam cvRef="MS" accession="MS:1000073" name="electrospray ionization" value=""/></source>
<analyzer order="2"><cvParam cvRef="MS" accession="MS:1000484" name="orbitrap" value=""/></analyzer>
<detector order="3"><cvParam cvRef="MS" accession="MS:1000624" name="inductive detector" value=""/></detector>
</componentList></instrumentConfiguration></instrumentConfigurationList>
<dataProcessingList count="1"><dataProcessing id="simulation"><processingMethod order="0" softwareRef="simulator"><cvParam cvRef="MS" accession="MS:1000544" name="Conversion to mzML" value=""/></processingMethod></dataProcessing></dataProcessingList>
<run id="simulated" defaultInstrumentConfigurationRef="IC1">
"""


def merged(ms1_path, ms2_path):
    """Both files' scans in scan-number order, each with its MS level."""
    ms1, ms2 = scans(ms1_path), scans(ms2_path)
    a, b = next(ms1, None), next(ms2, None)
    while a or b:
        if b is None or (a and a[0] <= b[0]):
            yield 1, a
            a = next(ms1, None)
        else:
            yield 2, b
            b = next(ms2, None)


def main():
    ms1_path, ms2_path, out_path = sys.argv[1:4]
    count = sum(1 for line in open(ms1_path, "rb") if line[:1] == b"S")
    count += sum(1 for line in open(ms2_path, "rb") if line[:1] == b"S")
    digest = hashlib.sha1()
    offsets = []
    position = 0
    with open(out_path, "wb") as out:

        def put(text):
            nonlocal position
            data = text.encode("ascii")
            out.write(data)
            digest.update(data)
            position += len(data)

        put(HEADER)
        put(f'<spectrumList count="{count}" defaultDataProcessingRef="simulation">\n')
        last_survey = 0
        for index, (level, scan) in enumerate(merged(ms1_path, ms2_path)):
            offsets.append((scan[0], position))
            put(spectrum_xml(index, scan, level, last_survey))
            if level == 1:
                last_survey = scan[0]
        put("</spectrumList>\n</run>\n</mzML>\n")
        index_offset = position
        put('<indexList count="1">\n<index name="spectrum">\n')
        for number, offset in offsets:
            put(f'<offset idRef="{native_id(number)}">{offset}</offset>\n')
        put("</index>\n</indexList>\n")
        put(f"<indexListOffset>{index_offset}</indexListOffset>\n<fileChecksum>")
        out.write(digest.hexdigest().encode("ascii") + b"</fileChecksum>\n</indexedmzML>\n")


if __name__ == "__main__":
    main()
