#!/usr/bin/env bash
# What the precursor evidence costs: kSieve on one simulated run with every new
# output of it on (keep_declared, precursor_table with its summary, and
# mgf_conventions, whose PEPMASS carries the envelope intensity) against the
# same run with them off. One thread; CPU seconds (user + system) rather than
# wall time, which other work on the machine disturbs more; the smallest of
# `repeats` runs of each, taken in turn.
#   evidence_cost.sh [build dir] [MS2 scans] [repeats]
set -euo pipefail

build="$(cd "${1:-build/release}" && pwd)"
scans="${2:-20000}"
repeats="${3:-3}"
root="$(cd "$(dirname "$0")/../.." && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$build"/tools/simulator/ksieve_simulate --fasta "$root"/data/sim_proteins.fasta \
  --seed 11 --ms2-scans "$scans" --out-dir . --stem sim > /dev/null
base="datapath = sim.ms1\ninput_format = ms1\nipv_file = $build/bin/IPV.txt\nthreads = 1\nrewrite_files = 1\n"
printf "${base}outputpath = off\n" > off.params
printf "${base}outputpath = on\nkeep_declared = 1\nprecursor_table = 1\nmgf_conventions = 1\n" > on.params

cpu_seconds() {
  /usr/bin/time -f '%U %S' -o time.txt "$build"/bin/kSieve "$1" > /dev/null 2>&1
  awk '{ printf "%.2f\n", $1 + $2 }' time.txt
}

best_off="" best_on=""
for _ in $(seq "$repeats"); do
  for mode in off on; do
    t=$(cpu_seconds "$mode.params")
    if [ "$mode" = off ]; then
      best_off=$(printf '%s\n%s\n' "$t" "${best_off:-$t}" | sort -g | head -1)
    else
      best_on=$(printf '%s\n%s\n' "$t" "${best_on:-$t}" | sort -g | head -1)
    fi
  done
done
awk -v off="$best_off" -v on="$best_on" -v n="$scans" 'BEGIN {
  printf "%d MS2 scans, one thread, best CPU seconds\noff %8.2f\non  %8.2f\non / off: %.3f (%+.1f %%)\n",
         n, off, on, on / off, 100 * (on / off - 1) }'
