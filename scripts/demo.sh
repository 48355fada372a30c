#!/usr/bin/env bash
# Builds Sentrel for the simulated kernel and runs sentrel-sim: without arguments the built-in demo
# scenario (scenarios/demo.jsonl), otherwise the scenario given (see docs/scenario.md).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target sentrel-sim
exec build/host/tools/sentrel-sim/sentrel-sim "$@"
