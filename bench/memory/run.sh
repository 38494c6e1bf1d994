#!/bin/bash
# Peak memory (maximum resident set) of kSieve on a dense and a sparse synthetic
# run, with the default memory ceiling and with a small one; the sparse run also
# with a ceiling of 0, below one scan's window, where every MS2 scan reads its
# MS1 slices again (the dense run would take minutes there).
#   bash bench/memory/run.sh <build>/bin
set -euo pipefail
bin=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
/usr/bin/python3 "$(dirname "$0")/dense_run.py" "$work/dense" 400 50000
/usr/bin/python3 "$(dirname "$0")/dense_run.py" "$work/sparse" 400 500
cp "$bin/IPV.txt" "$work/"
cd "$work"
for run in dense sparse; do
  ceilings="1024 16"
  if [ "$run" = sparse ]; then
    ceilings="$ceilings 0"
  fi
  for ceiling in $ceilings; do
    printf 'datapath = %s/dense.ms1\nrewrite_files = 1\noutput_mgf = 0\nmemory_ceiling_mib = %s\n' \
      "$run" "$ceiling" > "$run.params"
    /usr/bin/time -f "$run ceiling=${ceiling}MiB: %M KiB max resident, %e s" \
      "$bin/kSieve" "$run.params" > /dev/null
    md5sum "$run/dense.csv" "$run/dense.ks1" | sed "s/^/  /"
  done
done
