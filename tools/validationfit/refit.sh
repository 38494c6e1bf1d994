#!/usr/bin/env bash
# Refits the precursor validation model: simulates the fitting runs (seeds 11 to
# 13 at the default settings, 14 to 16 at the dense, lower-resolution settings),
# fits on all six and rewrites source/validation/validation_model.cpp. Rebuild
# kSieve afterwards. The seeds of the evaluation (tools/accuracy) stay unseen.
#
# usage: tools/validationfit/refit.sh [build dir] [work dir] [MS2 scans per run]
#   defaults: build/release, run/validationfit, 5000
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
work="${2:-run/validationfit}"
scans="${3:-5000}"
root="$(pwd)"

rm -rf "$work" && mkdir -p "$work"
runs=()
simulate() {
  local dir="$work/seed$1"
  mkdir -p "$dir"
  "$build"/tools/simulator/ksieve_simulate --fasta "$root"/data/sim_proteins.fasta \
    --seed "$1" --ms2-scans "$scans" --out-dir "$dir" --stem sim "${@:2}" >&2
  runs+=("$dir")
}
for seed in 11 12 13; do simulate "$seed"; done
for seed in 14 15 16; do simulate "$seed" --ms1-resolution 30000 --feature-rate 12; done

"$build"/tools/validationfit/ksieve_validation_fit "$build"/bin/IPV.txt \
  "$root"/source/validation/validation_model.cpp "${runs[@]}"
clang-format -i "$root"/source/validation/validation_model.cpp
