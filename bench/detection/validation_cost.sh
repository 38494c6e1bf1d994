#!/usr/bin/env bash
# The cost of precursor validation against detection's, in instructions rather
# than seconds: callgrind counts are the same from run to run whatever else the
# machine does, where the wall-clock difference of two separate runs is noise.
# One simulated run, kSieve on one thread with validation on; prints the
# inclusive instruction counts of DetectPrecursors and ValidatePrecursors and
# their ratio.
#   validation_cost.sh [build dir] [MS2 scans] [seed]
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
scans="${2:-3000}"
seed="${3:-3}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$build"/tools/simulator/ksieve_simulate --fasta "$root"/data/sim_proteins.fasta \
  --seed "$seed" --ms2-scans "$scans" --out-dir . --stem sim > /dev/null
printf 'datapath = sim.ms1\ninput_format = ms1\nipv_file = %s\noutputpath = out\nvalidate_precursors = 1\nthreads = 1\n' \
  "$build"/bin/IPV.txt > run.params
valgrind --tool=callgrind --callgrind-out-file=cg.out "$build"/bin/kSieve run.params > /dev/null 2>&1
callgrind_annotate --inclusive=yes cg.out 2>/dev/null |
  awk '/ksieve::DetectPrecursors\(/ { gsub(",", "", $1); detect = $1 }
       /ksieve::ValidatePrecursors\(/ { gsub(",", "", $1); validate = $1 }
       END {
         if (detect == "" || validate == "") { print "functions not found in the profile"; exit 1 }
         printf "detection   %15d instructions\nvalidation  %15d instructions\nvalidation / detection: %.1f %%\n",
                detect, validate, 100 * validate / detect
       }'
