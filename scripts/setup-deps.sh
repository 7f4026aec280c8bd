#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks to build and test libznpdk.
# Run as root it installs with apt-get; otherwise it says what to install.
set -euo pipefail

packages=(cmake ninja-build g++ googletest g++-arm-linux-gnueabihf qemu-user nlohmann-json3-dev
          binutils clang-format clang-tidy pkgconf doxygen libbenchmark-dev clang libclang-rt-14-dev
          abigail-tools gcovr)
packages+=(dpkg-dev lintian help2man)
packages+=(valgrind)
packages+=(ipmitool freeipmi-tools openipmi)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  exit 0
fi

if [[ $(id -u) -eq 0 ]]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --no-install-recommends "${missing[@]}"
else
  echo "Missing packages: ${missing[*]}" >&2
  echo "Install them with: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi
