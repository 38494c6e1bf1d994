#!/usr/bin/env bash
# The workflow with entrapment on a simulated run whose truth is known, and the
# true false-discovery proportion of its accepted PSMs next to the entrapment
# estimate, per side and group (tools/accuracy/fdr_truth.py).
#   fdr_truth.sh <build dir> <MS2 scans> <seed> [work dir [key=value ...]]
# The simulator digests data/sim_proteins.fasta, which is also the search
# database; its cysteines carry no modification, so the search drops the fixed
# carbamidomethyl. The work dir (default: a new temporary folder) keeps the
# workflow's results; settings after it go to the workflow as they are
# (calibration=true).
set -euo pipefail

build="$(realpath "$1")"
scans="$2"
seed="$3"
root="$(cd "$(dirname "$0")/../.." && pwd)"
work="${4:-$(mktemp -d)}"
mkdir -p "$work/input"
work="$(realpath "$work")"
fasta="$root/data/sim_proteins.fasta"
shift $(($# < 4 ? $# : 4))

"$build/tools/simulator/ksieve_simulate" --fasta "$fasta" --out-dir "$work" --stem simulated \
  --ms2-scans "$scans" --seed "$seed" > /dev/null
/usr/bin/python3 "$root/bench/companion/ms_pair_to_mzml.py" "$work/simulated.ms1" \
  "$work/simulated.ms2" "$work/input/simulated.mzML"
rm -f "$work/simulated.ms1" "$work/simulated.ms2"
INPUT="$work/input" FASTA="$fasta" OUT="$work/out" KSIEVE_BIN="$build/bin" \
  /usr/bin/python3 "$root/workflow/scripts/launch.py" entrapment=true \
  'comet={common: {add_C_cysteine: 0.0}}' "$@" > "$work/workflow.log" 2>&1 ||
  { tail -20 "$work/workflow.log" >&2; exit 1; }
/usr/bin/python3 "$root/tools/accuracy/fdr_truth.py" "$work/simulated_truth.csv" "$work/out" simulated
