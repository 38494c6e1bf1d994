#!/usr/bin/env bash
# Runs kSieve from a fresh run directory. Until the pipeline lands this shows the
# no-argument run: banner, usage and the parameter template.
set -euo pipefail
build="${1:-build/release}"
run_dir="run/demo"
rm -rf "$run_dir" && mkdir -p "$run_dir"
cp "$build"/bin/* "$run_dir"/
cd "$run_dir"
./kSieve
