#!/usr/bin/env bash
# Times spexor_xml.exe on one mzML run next to OpenMS's own FileConverter reading
# the same file (into mzML, and into MGF, the text output closest to the .ms1/.ms2
# pair).
#   companion_bench.sh <spexor_xml.exe> [input.mzML or input.mzML.gz] [repeats]
set -euo pipefail

exe="$(realpath "$1")"
# The sample runs live in shared/ beside the repository checkout.
input="${2:-$(dirname "$0")/../../../shared/data/openms_bsa/BSA1.mzML.gz}"
repeats="${3:-5}"

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
run="$work/$(basename "${input%.gz}")"
if [[ "$input" == *.gz ]]; then
  zcat "$input" > "$run"
else
  cp "$input" "$run"
fi

# Prints the best and median wall and CPU (user + system) seconds of `repeats`
# runs of the command, and the largest resident memory. CPU time is the steadier
# figure on a shared machine.
time_runs() {
  local log="$work/times"
  : > "$log"
  for ((i = 0; i < repeats; i++)); do
    /usr/bin/time -a -o "$log" -f "%e %U %S %M" "$@" > /dev/null 2>&1
  done
  local wall cpu
  wall=$(awk '{ print $1 }' "$log" | sort -n | awk '{ t[NR] = $1 } END { printf "best %.2f s, median %.2f s", t[1], t[int((NR + 1) / 2)] }')
  cpu=$(awk '{ print $2 + $3 }' "$log" | sort -n | awk '{ t[NR] = $1 } END { printf "best %.2f s, median %.2f s", t[1], t[int((NR + 1) / 2)] }')
  rss=$(awk '{ print $4 }' "$log" | sort -n | awk '{ t[NR] = $1 } END { printf "%.0f MB", t[NR] / 1024 }')
  echo "wall $wall; CPU $cpu; peak memory $rss"
}

echo "input: $input ($(stat -c %s "$run") bytes as mzML), $repeats runs each"
echo -n "spexor_xml.exe -ms -a -i 1 -m 5:        "
time_runs "$exe" -ms -a -i 1 -m 5 -o "$work/out" "$run"
echo -n "FileConverter mzML -> mzML:              "
time_runs FileConverter -in "$run" -out "$work/copy.mzML"
echo -n "FileConverter mzML -> MGF:               "
time_runs FileConverter -in "$run" -out "$work/copy.mgf"
echo "pair written: $(stat -c %s "$work/out/"*.ms1) + $(stat -c %s "$work/out/"*.ms2) bytes"
