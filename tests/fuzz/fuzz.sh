#!/usr/bin/env bash
# The libFuzzer harnesses, built apart from the product with clang.
#   fuzz.sh build BUILD_DIR                 configure and build them into BUILD_DIR/fuzz
#   fuzz.sh run BUILD_DIR NAME SECONDS      run one over its seed corpus
# Exit 77 (skipped) where clang or libFuzzer is not installed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
command=${1:?usage: fuzz.sh build|run BUILD_DIR ...}
build=${2:?usage: fuzz.sh build|run BUILD_DIR ...}
out=$build/fuzz

case $command in
build)
  if ! command -v clang++ >/dev/null 2>&1; then
    echo "clang++ is not installed: fuzz harnesses skipped"
    exit 77
  fi
  launcher=()
  command -v ccache >/dev/null 2>&1 && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  generator=()
  [ -f "$out/CMakeCache.txt" ] || generator=(-G Ninja)
  cmake -S "$here/harness" -B "$out" "${generator[@]}" "${launcher[@]}" \
    -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDICTORA_SOURCE_DIR="$root" >/dev/null
  cmake --build "$out" --parallel 2
  ;;
run)
  name=${3:?harness name}
  seconds=${4:-5}
  binary=$out/fuzz_$name
  if [ ! -x "$binary" ]; then
    command -v clang++ >/dev/null 2>&1 || { echo "clang++ is not installed: skipped"; exit 77; }
    echo "$binary is missing: run fuzz.sh build first"
    exit 1
  fi
  # New inputs go to a scratch folder, never into the repository's corpus.
  work=$out/work/$name
  artifacts=$out/artifacts/$name
  rm -rf "$work" "$artifacts"
  mkdir -p "$work" "$artifacts"
  # A journal is many lines; longer inputs only slow every run down.
  limits=()
  [ "$name" = journal ] && limits=(-max_len=16384)
  log=$out/$name.log
  status=0
  "$binary" -seed=1 -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    "${limits[@]+"${limits[@]}"}" -dict="$here/json.dict" -print_final_stats=1 -artifact_prefix="$artifacts/" \
    "$work" "$here/corpus/$name" >"$log" 2>&1 || status=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -n1)
  crashes=$(find "$artifacts" -type f | wc -l)
  seeds=$(find "$here/corpus/$name" -type f | wc -l)
  echo "fuzz_$name: ${execs:-0} executions in ${seconds}s (${rate:-0}/s), $seeds seeds, crashes: $crashes"
  if [ "$status" -ne 0 ] || [ "$crashes" -ne 0 ]; then
    tail -n 40 "$log"
    find "$artifacts" -type f -exec echo "kept input: {}" \;
    exit 1
  fi
  ;;
*)
  echo "unknown command $command"
  exit 2
  ;;
esac
