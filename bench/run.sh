#!/bin/sh
# Runs every benchmark of a build tree: sh bench/run.sh <builddir> [benchmark args]
# Each runs in its own mount and network namespace (they use fixed ports such
# as HiSLIP's 4880 and the driver's fixed shared-memory and mutex names).
set -e
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: bench/run.sh <builddir> [benchmark args]}
shift
found=0
for exe in "$build"/bench/*/bench_*; do
  [ -x "$exe" ] || continue
  found=1
  echo "== $(basename "$exe")"
  sh "$here/../tests/isolate.sh" "$exe" "$@"
done
if [ $found = 0 ]; then
  echo "no benchmarks under $build/bench (configure with -DKV_BUILD_BENCH=ON)" >&2
  exit 1
fi
