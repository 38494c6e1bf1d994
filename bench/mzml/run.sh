#!/bin/bash
# The cost of the mzML output: kSieve on the 20,000-scan simulated run (seed 1)
# with output_mzml off and on, one thread, three runs each; prints each run's
# wall time and peak resident memory, then the median ratio.
#   bash bench/mzml/run.sh <build> [MS2 scans]
set -euo pipefail
build=$(cd "$1" && pwd)
scans=${2:-20000}
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
mkdir "$work/data"
trap 'rm -rf "$work"' EXIT
"$build/tools/simulator/ksieve_simulate" --fasta "$source_dir/data/sim_proteins.fasta" \
  --out-dir "$work/data" --stem sim --ms2-scans "$scans" --seed 1 > /dev/null
cp "$build/bin/IPV.txt" "$work/"
cd "$work"
for key in 0 1; do
  printf 'datapath = data/sim.ms1\nrewrite_files = 1\nthreads = 1\noutput_mzml = %s\n' "$key" > "run$key.params"
done
for repeat in 1 2 3; do
  for key in 0 1; do
    /usr/bin/time -f "output_mzml=$key %e s %M KiB" -a -o times.txt \
      "$build/bin/kSieve" "run$key.params" > /dev/null
  done
done
cat times.txt
ls -l data/sim.ksieve.mzML | awk '{print "mzML bytes:", $5}'
/usr/bin/python3 - <<'PY'
import statistics
rows = [line.split() for line in open("times.txt")]
for key in ("0", "1"):
    t = [float(r[1]) for r in rows if r[0].endswith(key)]
    m = [int(r[3]) for r in rows if r[0].endswith(key)]
    print("output_mzml=%s: median %.2f s, peak %d KiB" % (key, statistics.median(t), max(m)))
t0 = statistics.median(float(r[1]) for r in rows if r[0].endswith("0"))
t1 = statistics.median(float(r[1]) for r in rows if r[0].endswith("1"))
print("time ratio on/off: %.3f" % (t1 / t0))
PY
