#!/usr/bin/env bash
# Builds the host-release preset and runs every benchmark, each with its baselines in the same
# process, then prints one table: benchmark, figure, baseline, ratio, goal, met or not. Figures are
# medians over repetitions (REPETITIONS, 5 unless set). Speed depends on what else the machine
# does: run it when the machine is quiet, and read the ratios, not the times. Not part of CI.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

repetitions=${REPETITIONS:-5}
benchmarks=(sim_primitives_bench ring_buffer_bench fanout_bench path_cache_bench rule_match_bench process_table_bench package_cache_bench report_bench end_to_end_bench sysmon_replay_bench)

cmake --preset host-release >/dev/null
cmake --build --preset host-release --target "${benchmarks[@]}" >/dev/null

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
for bench in "${benchmarks[@]}"; do
  echo "running $bench ..." >&2
  build/host-release/bench/"$bench" --benchmark_repetitions="$repetitions" \
      --benchmark_report_aggregates_only=true --benchmark_color=false >"$out/$bench.txt" 2>&1
done

echo
echo "Machine: $(nproc) processors, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//'),"\
     "load average $(cut -d' ' -f1-3 /proc/loadavg) at the end; $repetitions repetitions, medians"
echo
echo "| benchmark | figure | baseline | ratio | goal | met |"
echo "|---|---|---|---|---|---|"
# A row may follow the console table on the same line: take it from its tag on.
for bench in "${benchmarks[@]}"; do grep -o 'ROW|.*' "$out/$bench.txt" || true; done |
  sed 's/^ROW//; s/$/|/; s/|/ | /g; s/^ | /| /; s/ | $/ |/'
