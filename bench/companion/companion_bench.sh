#!/usr/bin/env bash
# Times the companion and kSieve end to end next to the converters users run
# today, side by side in one run, on two mzML files: the BSA1 example run
# (decompressed) and a simulated run of >= 200 MB written like msconvert's
# default output (indexed, 64-bit zlib arrays). Best of `repeats` runs after
# one warm-up run each (warm cache); peak memory is the largest of the runs.
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

# Runs the command in $work after `reset` (which clears its outputs) and
# prints "<best seconds> <peak MB>".
measure() {
  local reset="$1"
  shift
  local best="" peak=0
  for ((i = 0; i <= repeats; i++)); do
    eval "$reset"
    local start end seconds memory
    start=$(date +%s%N)
    (cd "$work" && /usr/bin/time -o "$work/rss" -f "%M" "$@" > /dev/null 2>&1)
    end=$(date +%s%N)
    ((i == 0)) && continue  # warm-up
    seconds=$(awk -v n=$((end - start)) 'BEGIN { printf "%.3f", n / 1e9 }')
    memory=$(tail -1 "$work/rss")
    if [ -z "$best" ] || awk -v a="$seconds" -v b="$best" 'BEGIN { exit !(a < b) }'; then
      best=$seconds
    fi
    ((memory > peak)) && peak=$memory
  done
  awk -v s="$best" -v m="$peak" 'BEGIN { printf "%s %.0f\n", s, m / 1024 }'
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

echo "| input | companion | kSieve end to end | msconvert --mgf | FileConverter to MGF | companion / FileConverter | kSieve / msconvert |"
echo "|---|---|---|---|---|---|---|"
for input in "$bsa" "$simulated"; do
  name=$(basename "$input")
  ln -sf "$input" "$work/$name"
  read -r c_s c_m < <(measure 'rm -rf "$work/c"' ./spexor_xml.exe -ms -a -i 1 -m 5 -o c "$name")
  read -r k_s k_m < <(measure 'rm -rf "$work/k"' ./kSieve -D "$name" -F mzML -O k)
  read -r m_s m_m < <(measure 'rm -rf "$work/m"' msconvert --mgf -o m "$name")
  read -r f_s f_m < <(measure 'rm -f "$work/x.mgf"' FileConverter -in "$name" -out x.mgf)
  echo "| $name ($(($(stat -L -c %s "$input") / 1000000)) MB) | ${c_s} s, ${c_m} MB | ${k_s} s, ${k_m} MB | ${m_s} s, ${m_m} MB | ${f_s} s, ${f_m} MB | $(ratio "$c_s" "$f_s") | $(ratio "$k_s" "$m_s") |"
done

small="$here/../../tests/data/spexor/bsa_split_crop.mzML"
ln -sf "$small" "$work/small.mzML"
read -r s_s s_m < <(measure 'rm -rf "$work/s"' ./spexor_xml.exe -ms -a -i 1 -m 5 -o s small.mzML)
read -r sf_s sf_m < <(measure 'rm -f "$work/x.mgf"' FileConverter -in small.mzML -out x.mgf)
read -r sm_s sm_m < <(measure 'rm -rf "$work/m"' msconvert --mgf -o m small.mzML)
echo
echo "start to finish on a run of 33 spectra (99 kB): companion ${s_s} s, ${s_m} MB;" \
  "msconvert ${sm_s} s; FileConverter ${sf_s} s"
