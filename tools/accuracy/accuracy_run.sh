#!/usr/bin/env bash
# Simulates a data-dependent run with a fixed seed, runs kSieve on it with the
# default scoring model and two others, once with a score threshold that no
# candidate passes (every scan then keeps the precursors the instrument
# declared: the baseline), and once with the default model and precursor
# validation (validate_precursors = 1), and prints the accuracy of each
# precursor table.
#
# usage: tools/accuracy/accuracy_run.sh [build dir] [work dir] [MS2 scans] [seed] [accuracy options]
#   defaults: build/release, run/accuracy, 5000, 1; options go to ksieve_accuracy;
#   SIMULATOR_OPTIONS (environment) go to the simulator, e.g.
#   SIMULATOR_OPTIONS="--ms1-resolution 30000 --feature-rate 12"
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
work="${2:-run/accuracy}"
scans="${3:-5000}"
seed="${4:-1}"
root="$(pwd)"

rm -rf "$work" && mkdir -p "$work"
cd "$work"
"$build"/tools/simulator/ksieve_simulate --fasta "$root"/data/sim_proteins.fasta \
  --seed "$seed" --ms2-scans "$scans" --out-dir . --stem sim ${SIMULATOR_OPTIONS:-} >&2

# kSieve <output dir> <options>: its console goes to <output dir>.log.
ksieve() {
  "$build"/bin/kSieve -D sim.ms1 -F ms1 -I "$build"/bin/IPV.txt -O "$1" "${@:2}" > "$1.log" 2>&1
}
ksieve declared -t 1e300
for model in 4 0 250; do
  ksieve "model$model" -M "$model"
done
# Validation is a parameter-file key.
printf 'datapath = sim.ms1\ninput_format = ms1\nipv_file = %s\noutputpath = validated\nvalidate_precursors = 1\n' \
  "$build"/bin/IPV.txt > validated.params
"$build"/bin/kSieve validated.params > validated.log 2>&1

"$build"/tools/accuracy/ksieve_accuracy --truth sim_truth.csv "${@:5}" \
  "declared (baseline)=declared/sim.csv" "mars_model 4 (default)=model4/sim.csv" \
  "mars_model 0=model0/sim.csv" "mars_model 250=model250/sim.csv" \
  "mars_model 4, validated=validated/sim.csv"
