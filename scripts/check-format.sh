#!/usr/bin/env bash
# Fails when a tracked C++ file differs from what clang-format makes of it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -- 'source/*' 'tests/*' 'tools/*' 'bench/*' | grep -E '\.(cpp|h)$' |
  xargs -r clang-format --dry-run --Werror
