#!/bin/sh
# Short, bounded fuzz runs of every libFuzzer target (when clang is present).
set -e
if ! command -v clang++ >/dev/null 2>&1; then
  echo "fuzz: clang++ not found, skipped"; exit 0
fi
GEN=""; command -v ninja >/dev/null 2>&1 && GEN="-G Ninja"
cmake -S . -B build/fuzz $GEN -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DKV_BUILD_TESTS=OFF -DKV_BUILD_TOOLS=OFF -DKV_FUZZ=ON >/dev/null
cmake --build build/fuzz -j 2
secs=${KV_FUZZ_SECONDS:-60}
found=0
for t in build/fuzz/fuzz/*/fuzz_*; do
  [ -x "$t" ] || continue
  name=$(basename "$t")
  corpus=fuzz/$(basename "$(dirname "$t")")/corpus
  work=$(mktemp -d)
  echo "fuzz: $name for ${secs}s"
  "$t" -max_total_time="$secs" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 "$work" "$corpus" >"$work.log" 2>&1 || {
    tail -50 "$work.log"; echo "fuzz: $name found a problem"; exit 1; }
  tail -3 "$work.log"
  rm -rf "$work" "$work.log"
  found=1
done
[ $found = 1 ] || echo "fuzz: no targets"
