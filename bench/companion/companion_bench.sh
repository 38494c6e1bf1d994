#!/usr/bin/env bash
# Times the companion and kSieve end to end next to the converters users run
# today, side by side in one run, on two mzML files: the BSA1 example run
# (decompressed) and a simulated run of >= 200 MB written like msconvert's
# default output (indexed, 64-bit zlib arrays). Best of `repeats` rounds after
# one warm-up round (warm cache); peak memory is the largest of the runs.
#   companion_bench.sh <run dir with kSieve, spexor_xml.exe, IPV.txt> <ksieve_simulate> [repeats]
# The simulated run is made once and kept in $KSIEVE_BENCH_CACHE (default
# /tmp/ksieve_bench_cache).
set -euo pipefail

run_dir="$(realpath "$1")"
simulator="$(realpath "$2")"
repeats="${3:-3}"
here="$(cd "$(dirname "$0")" && pwd)"
shared="$here/../../../shared/data"
cache="${KSIEVE_BENCH_CACHE:-/tmp/ksieve_bench_cache}"
mkdir -p "$cache"

bsa="$cache/BSA1.mzML"
[ -s "$bsa" ] || zcat "$shared/openms_bsa/BSA1.mzML.gz" > "$bsa"
simulated="$cache/simulated.mzML"
if [ ! -s "$simulated" ]; then
  "$simulator" --fasta "$shared/openms_bsa/18Protein_SoCe_Tr_detergents_trace.fasta" \
    --out-dir "$cache" --stem simulated --ms2-scans 36000 --seed 1 > /dev/null
  /usr/bin/python3 "$here/ms_pair_to_mzml.py" "$cache/simulated.ms1" "$cache/simulated.ms2" "$simulated"
fi

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for name in kSieve spexor_xml.exe IPV.txt; do
  ln -s "$run_dir/$name" "$work/$name"
done

# Runs one command in $work after `reset` (which clears its outputs) and
# prints "<seconds> <peak kB>".
run_once() {
  local reset="$1"
  shift
  eval "$reset"
  local start end
  start=$(date +%s%N)
  (cd "$work" && /usr/bin/time -o "$work/rss" -f "%M" "$@" > /dev/null 2>&1)
  end=$(date +%s%N)
  echo "$(awk -v n=$((end - start)) 'BEGIN { printf "%.3f", n / 1e9 }') $(tail -1 "$work/rss")"
}

# The commands of one comparison take turns, one warm-up round and then
# `repeats` rounds, so that whatever else the machine does falls on all of
# them alike. Sets best[i] (seconds) and peak[i] (MB) for the i-th command,
# each given as "<reset>|<command words>".
compare() {
  best=()
  peak=()
  for ((round = 0; round <= repeats; round++)); do
    local i=0
    for command in "$@"; do
      local reset="${command%%|*}" seconds memory
      read -r -a words <<< "${command#*|}"
      read -r seconds memory < <(run_once "$reset" "${words[@]}")
      if ((round > 0)); then
        if [ -z "${best[i]:-}" ] || awk -v a="$seconds" -v b="${best[i]}" 'BEGIN { exit !(a < b) }'; then
          best[i]=$seconds
        fi
        local mb=$(((memory + 1023) / 1024))
        ((mb > ${peak[i]:-0})) && peak[i]=$mb
      fi
      i=$((i + 1))
    done
  done
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "| input | companion | kSieve end to end | msconvert --mgf | FileConverter to MGF | companion / FileConverter | kSieve / msconvert |"
echo "|---|---|---|---|---|---|---|"
for input in "$bsa" "$simulated"; do
  name=$(basename "$input")
  ln -sf "$input" "$work/$name"
  compare "rm -rf \"\$work/c\"|./spexor_xml.exe -ms -a -i 1 -m 5 -o c $name" \
    "rm -rf \"\$work/k\"|./kSieve -D $name -F mzML -O k" \
    "rm -rf \"\$work/m\"|msconvert --mgf -o m $name" \
    "rm -f \"\$work/x.mgf\"|FileConverter -in $name -out x.mgf"
  echo "| $name ($(($(stat -L -c %s "$input") / 1000000)) MB) | ${best[0]} s, ${peak[0]} MB | ${best[1]} s, ${peak[1]} MB | ${best[2]} s, ${peak[2]} MB | ${best[3]} s, ${peak[3]} MB | $(ratio "${best[0]}" "${best[3]}") | $(ratio "${best[1]}" "${best[2]}") |"
done

small="$here/../../tests/data/spexor/bsa_split_crop.mzML"
ln -sf "$small" "$work/small.mzML"
compare "rm -rf \"\$work/s\"|./spexor_xml.exe -ms -a -i 1 -m 5 -o s small.mzML" \
  "rm -rf \"\$work/m\"|msconvert --mgf -o m small.mzML" \
  "rm -f \"\$work/x.mgf\"|FileConverter -in small.mzML -out x.mgf"
echo
echo "start to finish on a run of 33 spectra (99 kB): companion ${best[0]} s, ${peak[0]} MB;" \
  "msconvert ${best[1]} s; FileConverter ${best[2]} s"
