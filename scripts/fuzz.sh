#!/bin/sh
# Fuzzes every target, or the ones named, for SECONDS seconds each, one after the other:
#   scripts/fuzz.sh SECONDS [TARGET...]
# Inputs come from fuzz/corpus/TARGET and fuzz/crashes/TARGET. What they grow to stays under build/;
# a finding is put in fuzz/crashes/TARGET. Exits with 1 when there was one.
set -eu
cd "$(dirname "$0")/.."

seconds=${1:?seconds for each target}
shift
# shellcheck disable=SC2046,SC2012  # names of ours, one word each
if [ $# -eq 0 ]; then
  set -- fuzz/corpus/*
fi

[ -d build/fuzz ] || cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j"${JOBS:-2}"

# The key folders go to memory where there is a file system for it.
scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)" fuzz.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' INT TERM
export TMPDIR="$scratch"

status=0
for target; do
  target=${target##*/}
  grown=build/fuzz/corpus/$target
  log=build/fuzz/$target.log
  mkdir -p "$grown" "fuzz/crashes/$target"
  code=0
  build/fuzz/bin/fuzz_"$target" -max_total_time="$seconds" -max_len=4096 -timeout=25 \
    -print_final_stats=1 -artifact_prefix="fuzz/crashes/$target/" \
    "$grown" "fuzz/corpus/$target" "fuzz/crashes/$target" >"$log" 2>&1 || code=$?
  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
  case $code in
    0) result=fine ;;
    72) result="stopped from outside" ;;
    *) result="FINDING, see $log" ;;
  esac
  printf '%-20s %10s runs %7s/s  %s\n' "$target" "${runs:-?}" "${rate:-?}" "$result"
  [ $code -eq 0 ] || status=1
  rmdir "fuzz/crashes/$target" 2>/dev/null || true
done
rmdir fuzz/crashes 2>/dev/null || true
exit $status
