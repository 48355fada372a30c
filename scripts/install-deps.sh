#!/usr/bin/env bash
# Installs, from Debian's packages, whatever the build needs and this machine lacks. With --test,
# also what the tests need beyond the build: Wine, which runs the Windows-built tests.
set -euo pipefail

packages=(
  cmake make g++ python3        # host build, tests, tools
  googletest libbenchmark-dev   # GoogleTest sources (built with our flags), Google Benchmark
  clang lld llvm                # the Windows driver: clang --target=x86_64-w64-mingw32, lld
  mingw-w64-x86-64-dev          # DDK headers and the kernel's import libraries
  binutils-mingw-w64-x86-64     # GNU ld for the checksum cross-check of the driver checker
  g++-mingw-w64-x86-64-posix    # the C++ library for Windows user mode (sentrel-events.exe)
  nlohmann-json3-dev            # JSON for sentrel-sim's scenarios and output
)
if [ "${1:-}" = "--test" ]; then
  packages+=(wine64)            # runs the Windows-built tests headless (build/windows/wine-prefix)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "installing: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
