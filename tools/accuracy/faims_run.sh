#!/usr/bin/env bash
# FAIMS runs against the same run without FAIMS: for each number of
# compensation voltages (2 and 3) and each seed, simulates the run with FAIMS
# and without, runs kSieve with its defaults (each MS2 scan judged against the
# survey scans of its own voltage) and with faims_windows = 0 (against all
# survey scans), and prints the accuracy of each precursor table.
#
# usage: tools/accuracy/faims_run.sh [build dir] [work dir] [MS2 scans] [seeds...]
#   defaults: build/release, run/faims, 5000, seeds 1 and 2
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
work="${2:-run/faims}"
scans="${3:-5000}"
seeds=("${@:4}")
[ ${#seeds[@]} -gt 0 ] || seeds=(1 2)
root="$(pwd)"

rm -rf "$work" && mkdir -p "$work"
cd "$work"

# simulate <stem> <seed> <voltages>
simulate() {
  "$build"/tools/simulator/ksieve_simulate --fasta "$root"/data/sim_proteins.fasta \
    --seed "$2" --ms2-scans "$scans" --out-dir . --stem "$1" --faims-cvs "$3" >&2
}

# ksieve <stem> <output dir> <faims_windows>: its console goes to <output dir>.log.
ksieve() {
  printf 'datapath = %s.ms1\ninput_format = ms1\nipv_file = %s\noutputpath = %s\nfaims_windows = %s\n' \
    "$1" "$build"/bin/IPV.txt "$2" "$3" > "$2.params"
  "$build"/bin/kSieve "$2.params" > "$2.log" 2>&1
}

for seed in "${seeds[@]}"; do
  simulate "plain$seed" "$seed" 0
  ksieve "plain$seed" "plain$seed" 1
  for cvs in 2 3; do
    stem="faims${cvs}_$seed"
    simulate "$stem" "$seed" "$cvs"
    ksieve "$stem" "${stem}_by_cv" 1
    ksieve "$stem" "${stem}_all" 0
    echo "== $cvs voltages, seed $seed"
    "$build"/tools/accuracy/ksieve_accuracy --truth "plain${seed}_truth.csv" \
      "no FAIMS=plain$seed/plain$seed.csv"
    "$build"/tools/accuracy/ksieve_accuracy --truth "${stem}_truth.csv" \
      "FAIMS, CV matching=${stem}_by_cv/$stem.csv" "FAIMS, all survey scans=${stem}_all/$stem.csv"
  done
done
