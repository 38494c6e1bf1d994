#!/bin/bash
# The cost of the mzML output: kSieve on the 20,000-scan simulated run (seed 1)
# with output_mzml off and on, at one thread and at the default thread count
# (every core), and at the default thread count once more with the mzML's
# arrays uncompressed (mzml_compression = 0), to show zlib's share; five
# runs each (a shared machine's times vary by a fifth from run to run),
# interleaved. Every run starts without the outputs of the one before:
# replacing them costs every setting the same few tenths of a second on a disk,
# which would hide part of the ratio. Prints each run's wall time, user+sys CPU
# seconds and peak resident memory, the mzML's size, then the medians and the
# ratios to the run without the mzML.
#   bash bench/mzml/run.sh <build> [MS2 scans] [runs]
set -euo pipefail
build=$(cd "$1" && pwd)
scans=${2:-20000}
runs=${3:-5}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
mkdir "$work/data"
trap 'rm -rf "$work"' EXIT
"$build/tools/simulator/ksieve_simulate" --fasta "$source_dir/data/sim_proteins.fasta" \
  --out-dir "$work/data" --stem sim --ms2-scans "$scans" --seed 1 > /dev/null
cp "$build/bin/IPV.txt" "$work/"
cd "$work"
echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
settings="1:0 1:1 default:0 default:1 default:uncompressed"
for setting in $settings; do
  threads=${setting%%:*}
  key=${setting#*:}
  {
    printf 'datapath = data/sim.ms1\nrewrite_files = 1\n'
    if [ "$key" = uncompressed ]; then
      printf 'output_mzml = 1\nmzml_compression = 0\n'
    else
      printf 'output_mzml = %s\n' "$key"
    fi
    if [ "$threads" = 1 ]; then printf 'threads = 1\n'; fi
  } > "run-$threads-$key.params"
done
for repeat in $(seq "$runs"); do
  for setting in $settings; do
    threads=${setting%%:*}
    key=${setting#*:}
    find data -mindepth 1 ! -name 'sim.ms1' ! -name 'sim.ms2' -delete
    /usr/bin/time -f "threads=$threads output_mzml=$key %e %U %S %M" -a -o times.txt \
      "$build/bin/kSieve" "run-$threads-$key.params" > /dev/null
    if [ -e data/sim.ksieve.mzML ]; then
      echo "output_mzml=$key $(stat -c %s data/sim.ksieve.mzML)" >> sizes.txt
    fi
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "columns: wall s, user s, sys s, peak KiB"
cat times.txt
echo "mzML bytes:"
sort -u sizes.txt
/usr/bin/python3 - <<'PY'
import statistics
rows = [line.split() for line in open("times.txt")]
for threads, keys in (("1", ("0", "1")), ("default", ("0", "1", "uncompressed"))):
    median = {}
    for key in keys:
        mine = [r for r in rows if r[0] == "threads=" + threads and r[1] == "output_mzml=" + key]
        wall = statistics.median(float(r[2]) for r in mine)
        cpu = statistics.median(float(r[3]) + float(r[4]) for r in mine)
        peak = max(int(r[5]) for r in mine)
        median[key] = (wall, cpu)
        print("threads=%s output_mzml=%s: median wall %.2f s, median CPU %.2f s, peak %d KiB"
              % (threads, key, wall, cpu, peak))
    for key in keys[1:]:
        print("threads=%s output_mzml=%s against off: wall %.3f, CPU %.3f"
              % (threads, key, median[key][0] / median["0"][0], median[key][1] / median["0"][1]))
PY
