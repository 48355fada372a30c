#!/usr/bin/env bash
# Builds everything (the driver on the simulated kernel with its tests, under ASan+UBSan and
# under ThreadSanitizer, the real Sentrel.sys with its checks, sentrel-events.exe and the consumer
# library's tests for Windows) and runs every test, the Windows-built ones under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --test

cmake --preset host >/dev/null
cmake --build --preset host
cmake --preset host-tsan >/dev/null
cmake --build --preset host-tsan
cmake --preset windows >/dev/null
cmake --build --preset windows

log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
ctest --preset host 2>&1 | tee -a "$log" || status=1
# The same suites under ThreadSanitizer: the concurrency tests are the point here.
ctest --preset host-tsan 2>&1 | tee -a "$log" || status=1
ctest --preset windows 2>&1 | tee -a "$log" || status=1

# One closing line for both runs.
read -r total failed < <(awk '/tests passed, [0-9]+ tests? failed out of/ {
    for (i = 1; i <= NF; i++) { if ($i == "out") t += $(i + 2); if ($i == "failed") f += $(i - 2) } }
    END { print t + 0, f + 0 }' "$log")
echo "total: $((total - failed)) passed, $failed failed"
[ "$failed" -eq 0 ] || status=1
exit $status
