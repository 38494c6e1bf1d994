#!/usr/bin/env bash
# Builds one fuzz target of tests/fuzz with clang, libFuzzer, AddressSanitizer
# and UndefinedBehaviorSanitizer, and runs it for a number of seconds from its
# seed corpus.
#
#   scripts/fuzz.sh <name> [seconds] [libFuzzer options...]
#
# <name> is the name given to ksieve_fuzz_target (ms1_reader, ms2_reader,
# mgf_reader, ...). Inputs that the run finds go to a scratch corpus under the
# build directory (KSIEVE_FUZZ_BUILD_DIR, default build/fuzz); a crash is saved
# there as crash-<hash>. Once fixed, copy the input into tests/fuzz/corpus/<name>/
# so that the replay test keeps it.
set -euo pipefail

name=${1:?usage: scripts/fuzz.sh <name> [seconds] [libFuzzer options...]}
seconds=${2:-60}
shift $(($# >= 2 ? 2 : 1))

root=$(cd "$(dirname "$0")/.." && pwd)
build=${KSIEVE_FUZZ_BUILD_DIR:-$root/build/fuzz}

# The companion's reader (xml_reader) needs the companion built; the core's
# readers do not.
companion=OFF
if [ "$name" = xml_reader ]; then
  companion=ON
fi

cmake -S "$root" -B "$build" -G Ninja \
  -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link" \
  -DKSIEVE_SANITIZE=ON \
  -DKSIEVE_FUZZ_ENGINE=ON \
  -DKSIEVE_BUILD_COMPANION=$companion \
  -DKSIEVE_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" --target "fuzz_$name"

work=$build/runs/$name
mkdir -p "$work/corpus"
cd "$work"
# The targets log a "WARN" line for many inputs; -close_fd_mask keeps the
# console for the engine's own report.
exec "$build/tests/fuzz/fuzz_$name" -max_total_time="$seconds" -close_fd_mask=3 \
  -artifact_prefix="$work/" "$@" corpus "$root/tests/fuzz/corpus/$name"
