#!/bin/sh
# Fuzzes every target, or the ones named, for SECONDS seconds each, as many at a time as there are
# processors:
#   scripts/fuzz.sh SECONDS [TARGET...]
# Inputs come from fuzz/corpus/TARGET; what they grow to stays under build/. A finding goes to
# fuzz/corpus/TARGET/refused. Exits with 1 when there was one.
set -eu
cd "$(dirname "$0")/.."

# Fuzzes one target in an environment that is set up, and prints a line about it.
fuzz_target() {
  target=$1
  grown=build/fuzz/corpus/$target
  log=build/fuzz/$target.log
  mkdir -p "$grown"
  code=0
  build/fuzz/bin/fuzz_"$target" -max_total_time="$seconds" -max_len=4096 -timeout=25 \
    -print_final_stats=1 -artifact_prefix="fuzz/corpus/$target/refused/" \
    "$grown" "fuzz/corpus/$target" >"$log" 2>&1 || code=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  case $code in
    0) result=fine ;;
    72) result="stopped from outside" ;;
    *) result="FINDING, see $log" ;;
  esac
  printf '%-20s %10s runs %7s/s  %s\n' "$target" "${runs:-?}" "${rate:-?}" "$result"
  return "$((code != 0))"
}

if [ "${1:-}" = --target ]; then
  seconds=$2
  fuzz_target "$3"
  exit
fi

seconds=${1:?seconds for each target}
shift
[ $# -gt 0 ] || set -- fuzz/corpus/*
jobs=${JOBS:-$(nproc)}

[ -d build/fuzz ] || cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"$jobs"

# The key folders go to memory where there is a file system for it.
scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)" fuzz.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' INT TERM
export TMPDIR="$scratch"

status=0
printf '%s\n' "$@" | sed 's,.*/,,' |
  xargs -P "$jobs" -n 1 scripts/fuzz.sh --target "$seconds" || status=1
exit $status
