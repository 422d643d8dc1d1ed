#!/bin/sh
# Builds the release preset, runs the benchmarks and prints the table of ratios (about 3 minutes).
#   --quick         every operation once, on small folders: only shows that all of them work
#   --doc           also puts table and chart into docs/performance.md and docs/performance.svg
#   --program FILE  runs this program instead of building one
# Anything else goes to the program: --seconds=N for each repetition of a row, or Google
# Benchmark's own, such as --benchmark_filter='sign/.*' and --benchmark_repetitions=N.
# The raw results stay in build/bench.json.
set -eu
cd "$(dirname "$0")/.."

program= quick= doc=
while [ $# -gt 0 ]; do
  case $1 in
    --quick) quick=yes ;;
    --doc) doc=yes ;;
    --program) program=$2; shift ;;
    *) break ;;
  esac
  shift
done

if [ -z "$program" ]; then
  cmake --preset release >/dev/null
  cmake --build --preset release --target vakro_bench
  program=build/release/bin/vakro_bench
fi

mkdir -p build
scratch=$(mktemp -d build/bench.XXXXXX)
memory=$(mktemp -d /dev/shm/bench.XXXXXX 2>/dev/null || echo "$scratch")
trap 'rm -rf "$scratch" "$memory"' EXIT
trap 'exit 1' HUP INT TERM

commit=$(git describe --always --dirty 2>/dev/null || echo unknown)
cpu=$(sed -n 's/^model name[^:]*: *//p' /proc/cpuinfo | head -n 1 | tr ',=' '  ')
repetitions=15
result=build/bench.json
if [ -n "$quick" ]; then
  repetitions=1
  result=$scratch/bench.json
  set -- --quick --benchmark_filter='-generate/RSA-.*' "$@"
fi
"$program" --disk="$scratch" --memory="$memory" --benchmark_repetitions=$repetitions \
  --benchmark_enable_random_interleaving=true --benchmark_out="$result" \
  --benchmark_context="commit=$commit,cpu=$cpu,repetitions=$repetitions" "$@" \
  >"$scratch/log" 2>&1 && [ -s "$result" ] || { cat "$scratch/log"; exit 1; }
python3 bench/report.py "$result" ${quick:+--quick} ${doc:+--doc docs}
