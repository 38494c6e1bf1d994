#!/usr/bin/env python3
"""Strip processing history that names folders or third-party software from an
mzML or mzXML file written by OpenMS, in place, and keep its index valid.

Only the header (everything before the first spectrum) is touched:
- tool parameter records ("parameter: in", "parameter: out", ...), which hold
  the folders and file names of whoever processed the run before;
- the folder of each source file (its name stays);
- software terms of mzML other than the acquisition software and OpenMS tools,
  which become "custom unreleased software tool" (an mzXML written from a
  scrubbed mzML takes its software names from there).
Spectra and peak arrays stay byte for byte, so every index offset moves by the
same amount; the offsets are rewritten and checked against the spectra.

usage: scrub_metadata.py FILE
"""
import re
import sys

# Software terms kept: Xcalibur, custom unreleased software tool, and the
# OpenMS tools FileConverter, FileFilter, FileMerger, PeakPicker,
# TOPP PeakPickerHiRes.
KEPT_SOFTWARE = {"MS:1000532", "MS:1000799", "MS:1000756", "MS:1000757",
                 "MS:1000758", "MS:1000763", "MS:1002135"}
CUSTOM_SOFTWARE = ('<cvParam cvRef="MS" accession="MS:1000799" '
                   'name="custom unreleased software tool" value="" />')


def scrub_header(header):
    lines = []
    in_software = False
    for line in header.splitlines(keepends=True):
        if re.search(r'<(userParam|processingOperation) name="parameter: ', line):
            continue
        line = re.sub(r'(<sourceFile [^>]*location=")[^"]*"', r'\1file:///"', line)
        if "<software " in line:
            in_software = True
        elif "</software>" in line:
            in_software = False
        elif in_software and "<cvParam " in line:
            accession = re.search(r'accession="([^"]*)"', line).group(1)
            if accession not in KEPT_SOFTWARE:
                indent = line[: len(line) - len(line.lstrip())]
                line = indent + CUSTOM_SOFTWARE + "\n"
        lines.append(line)
    return "".join(lines)


def main(path):
    data = open(path, "rb").read().decode("latin-1")
    mzxml = path.lower().endswith(".mzxml")
    first = data.find("<scan " if mzxml else "<spectrum ")
    if first < 0:
        sys.exit(path + ": no spectrum")
    header = scrub_header(data[:first])
    shift = len(header) - first
    body = data[first:]

    offset = (r'(<offset id = "[^"]*" >)(\d+)(</offset>)' if mzxml
              else r'(<offset idRef="[^"]*">)(\d+)(</offset>)')
    index_start = (r'(<indexOffset>)(\d+)(</indexOffset>)' if mzxml
                   else r'(<indexListOffset>)(\d+)(</indexListOffset>)')
    moved = lambda m: m.group(1) + str(int(m.group(2)) + shift) + m.group(3)
    body = re.sub(offset, moved, body)
    body = re.sub(index_start, moved, body)
    result = header + body

    for m in re.finditer(offset, result):
        at = int(m.group(2))
        if not result.startswith(("<scan ", "<spectrum ", "<chromatogram "), at):
            sys.exit(path + ": index offset %d does not point at an element" % at)
    for m in re.finditer(index_start, result):
        if not re.match(r"\s*<index", result[int(m.group(2)):int(m.group(2)) + 64]):
            sys.exit(path + ": index start does not point at the index")
    open(path, "wb").write(result.encode("latin-1"))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(sys.argv[1])
