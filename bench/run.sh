#!/bin/sh
# Runs the benchmarks of a build tree: sh bench/run.sh <builddir> [compare.py args]
# Every data path of the driver beside its floor (bench/compare.py prints the
# table and writes results.json and benchmarks.png under <builddir>/results),
# then the simulated bridge's own speed.  Each program runs in its own mount
# and network namespace: they use fixed ports such as HiSLIP's 4880 and the
# driver's fixed shared-memory and mutex names.
set -e
here=$(cd "$(dirname "$0")" && pwd)
build=${1:?usage: bench/run.sh <builddir> [compare.py args]}
shift
if [ ! -x "$build/bench/paths/bench_paths" ]; then
  echo "no benchmarks under $build/bench (configure with -DKV_BUILD_BENCH=ON)" >&2
  exit 1
fi
/usr/bin/python3 "$here/compare.py" "$build" --out "$build/results" "$@"
echo "== simulated bridge against a plain TCP ping-pong"
sh "$here/../tests/isolate.sh" "$build/bench/bridge-sim/bench_bridge_sim" --benchmark_min_time=0.2
