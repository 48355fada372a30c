#!/usr/bin/env bash
# Builds Sentrel for the simulated kernel and runs the demo: a machine boots, the driver loads,
# a program opens its device, the driver unloads; the driver's log and the verifier's verdict follow.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset host >/dev/null
cmake --build --preset host --target sentrel-sim
exec build/host/tools/sentrel-sim/sentrel-sim "$@"
