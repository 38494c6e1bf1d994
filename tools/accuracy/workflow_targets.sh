#!/usr/bin/env bash
# The workflow on one instrument file at Comet isotope error 0, 0/1 and 0-3, each
# with kSieve's validate_precursors off and on, and the identified scans and
# peptides of each, with rescoring and without (tools/accuracy/workflow_counts.py).
#   workflow_targets.sh <build dir> <run file> <FASTA> <work dir> [key=value ...]
# Settings after the work dir go to the workflow as they are (search_threads=1).
# Each setting's results stay in <work dir>/<isotope error>_v<0|1>/.
set -euo pipefail

build="$(realpath "$1")"
run_file="$(realpath "$2")"
fasta="$(realpath "$3")"
mkdir -p "$4/input"
work="$(realpath "$4")"
root="$(cd "$(dirname "$0")/../.." && pwd)"
ln -sf "$run_file" "$work/input/"
name="$(basename "$run_file")"
run="${name%.gz}"
run="${run%.*}"
shift 4

for isotope in 0 1 3; do
  for validate in 0 1; do
    out="$work/${isotope}_v${validate}"
    INPUT="$work/input" FASTA="$fasta" OUT="$out" KSIEVE_BIN="$build/bin" \
      /usr/bin/python3 "$root/workflow/scripts/launch.py" \
      "comet={common: {isotope_error: $isotope}}" \
      "ksieve_parameters={validate_precursors: $validate}" "$@" > "$out.log" 2>&1 ||
      { tail -20 "$out.log" >&2; exit 1; }
    echo "# $run isotope_error=$isotope validate_precursors=$validate"
    /usr/bin/python3 "$root/tools/accuracy/workflow_counts.py" "$out" "$run"
  done
done
