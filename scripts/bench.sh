#!/bin/sh
# Builds the release preset, runs the benchmarks and prints the table of ratios (about 5 minutes).
# `scripts/setup.sh --bench` installs the libraries that some rows stand beside, and what --doc needs.
#   --quick         every operation once, on small folders: only shows that all of them work
#   --doc           also puts table and chart into docs/performance.md and docs/performance.svg
#   --program FILE  runs this program instead of building one
# Anything else goes to the program, such as --benchmark_filter='sign/.*' or
# --benchmark_repetitions=N. The raw results stay in build/bench.json.
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

result=build/bench.json
repetitions=15
if [ -n "$quick" ]; then
  result=$scratch/bench.json
  repetitions=2  # calls keep a state from one to the next
  set -- --quick --benchmark_filter='-generate/RSA-.*' "$@"
fi
file_system() { df --output=fstype "$1" | tail -n 1; }
cpu=$(sed -n 's/^model name[^:]*: *//p' /proc/cpuinfo | head -n 1 | tr ',=' '  ')
"$program" --disk="$scratch" --memory="$memory" --benchmark_repetitions=$repetitions \
  --benchmark_min_time=0.02 --benchmark_enable_random_interleaving=true \
  --benchmark_out="$result" \
  --benchmark_context="cpu=$cpu" \
  --benchmark_context="disk=$(file_system "$scratch"),memory=$(file_system "$memory")" \
  "$@" >"$scratch/log" 2>&1 && [ -s "$result" ] || { cat "$scratch/log"; exit 1; }
# Debian's own Python, which finds Debian's matplotlib.
/usr/bin/python3 bench/report.py "$result" ${quick:+--quick} ${doc:+--doc docs}
