#!/usr/bin/env bash
# Installs, only when missing, every Debian package the build, tests and benchmarks need.
set -euo pipefail

packages=(build-essential g++ cmake make pkg-config libapr1-dev libgtest-dev libbenchmark-dev
          python3 binutils)
# `setup.sh fuzz`: also the compiler and runtime of the libFuzzer harness (make fuzz).
if [ "${1:-}" = "fuzz" ]; then
    packages+=(clang libclang-rt-14-dev)
fi

missing=()
for p in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

echo "setup: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
