#!/usr/bin/env bash
# Runs kSieve on the bundled sample run (data/demo/bsa_demo.mzML) the way a user
# would: in a fresh run directory holding the program, its companions and the
# isotope table side by side, with the mzML file beside them. Then prints what
# came out, read back from the outputs by ksieve_summary.
#
# usage: scripts/demo.sh [build directory]   (default build/release)
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
data="$(pwd)/data/demo"
run_dir="run/demo"
input="bsa_demo.mzML"

rm -rf "$run_dir" && mkdir -p "$run_dir"
cp "$build"/bin/kSieve "$build"/bin/spexor_xml.exe "$build"/bin/spexor_raw.exe \
   "$build"/bin/IPV.txt "$run_dir"/
cp "$data/$input" "$run_dir"/
cd "$run_dir"

echo "== $run_dir: ./kSieve -D $input -F mzML -O out"
./kSieve -D "$input" -F mzML -O out
echo
"$build"/tools/summary/ksieve_summary out "${input%.mzML}"
echo "  run directory: $(pwd)"
