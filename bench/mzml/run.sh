#!/bin/bash
# The cost of the mzML output: kSieve on the 20,000-scan simulated run (seed 1)
# with output_mzml off and on, at one thread and at the default thread count
# (every core), five runs each (a shared machine's times vary by a fifth from
# run to run), interleaved; prints each run's wall time, user+sys CPU seconds
# and peak resident memory, then the medians and the on/off ratios.
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
for threads in 1 default; do
  for key in 0 1; do
    {
      printf 'datapath = data/sim.ms1\nrewrite_files = 1\noutput_mzml = %s\n' "$key"
      if [ "$threads" = 1 ]; then printf 'threads = 1\n'; fi
    } > "run-$threads-$key.params"
  done
done
for repeat in $(seq "$runs"); do
  for threads in 1 default; do
    for key in 0 1; do
      /usr/bin/time -f "threads=$threads output_mzml=$key %e %U %S %M" -a -o times.txt \
        "$build/bin/kSieve" "run-$threads-$key.params" > /dev/null
    done
  done
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
echo "columns: wall s, user s, sys s, peak KiB"
cat times.txt
ls -l data/sim.ksieve.mzML | awk '{print "mzML bytes:", $5}'
/usr/bin/python3 - <<'PY'
import statistics
rows = [line.split() for line in open("times.txt")]
for threads in ("1", "default"):
    median = {}
    for key in ("0", "1"):
        mine = [r for r in rows if r[0] == "threads=" + threads and r[1] == "output_mzml=" + key]
        wall = statistics.median(float(r[2]) for r in mine)
        cpu = statistics.median(float(r[3]) + float(r[4]) for r in mine)
        peak = max(int(r[5]) for r in mine)
        median[key] = (wall, cpu)
        print("threads=%s output_mzml=%s: median wall %.2f s, median CPU %.2f s, peak %d KiB"
              % (threads, key, wall, cpu, peak))
    print("threads=%s on/off: wall %.3f, CPU %.3f"
          % (threads, median["1"][0] / median["0"][0], median["1"][1] / median["0"][1]))
PY
