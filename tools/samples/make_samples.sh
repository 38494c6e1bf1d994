#!/bin/sh
# Rebuilds the companion's sample runs in tests/data/spexor from the OpenMS
# files listed in that folder's README.md, with the OpenMS 2.6 tools FileFilter
# and FileConverter.
#
# usage: make_samples.sh BSA1.mzML.gz SILAC.mzML FAIMS.mzML TOPDOWN.mzML \
#                        LOCKMASS.mzML.gz [OUTPUT_DIR (default tests/data/spexor)]
#
# The inputs are copied to neutral names in a scratch folder first, because
# OpenMS records the files it read and wrote in the output; the remaining
# processing history is stripped by scrub_metadata.py.
set -eu

[ $# -ge 5 ] || { sed -n '2,7p' "$0"; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
out=$(cd "${6:-$here/../../tests/data/spexor}" && pwd)
work=$(mktemp -d /tmp/samples.XXXXXX)
trap 'rm -rf "$work"' EXIT

zcat "$1" > "$work/bsa.mzML"
cp "$2" "$work/silac.mzML"
cp "$3" "$work/faims.mzML"
cp "$4" "$work/topdown.mzML"
zcat "$5" > "$work/lockmass.mzML"
cd "$work"

filter() { FileFilter -no_progress "$@" > /dev/null; }
zlib="-peak_options:zlib_compression true"
scrub() { python3 "$here/scrub_metadata.py" "$1"; }

# mzXML: ion-trap CID scans between Orbitrap survey scans; OpenMS writes the
# scans uncompressed, numbers them from 1 and leaves precursorScanNum out.
filter -in silac.mzML -out silac_cut.mzML -rt 3775:3810
scrub silac_cut.mzML
FileConverter -no_progress -in silac_cut.mzML -out velos_cid_crop.mzXML > /dev/null
scrub velos_cid_crop.mzXML

# HCD with spectrum references; the survey scan of the first two MS2 scans
# lies before the cut.
filter -in faims.mzML -out hcd_crop.mzML -rt 136.4:140 $zlib
scrub hcd_crop.mzML
filter -in hcd_crop.mzML -out ms2_only.mzML -peak_options:level 2 $zlib
scrub ms2_only.mzML

# Profile survey scans, peaks stored with MS-Numpress.
filter -in topdown.mzML -out profile_crop.mzML -rt 251:253 \
    -peak_options:numpress:masstime linear -peak_options:numpress:intensity slof
scrub profile_crop.mzML

# Precursors without charge states.
filter -in lockmass.mzML -out no_charge_crop.mzML -rt 20:24 $zlib
scrub no_charge_crop.mzML

# All survey scans stored before all MS2 scans.
filter -in bsa.mzML -out bsa_split_crop.mzML -rt 1500:1512 $zlib
scrub bsa_split_crop.mzML

cp velos_cid_crop.mzXML hcd_crop.mzML ms2_only.mzML profile_crop.mzML \
    no_charge_crop.mzML bsa_split_crop.mzML "$out/"
