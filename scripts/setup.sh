#!/usr/bin/env bash
# Installs the Debian packages the project needs (only those missing), then configures and builds
# into build/ (or the folder given as the first argument, with extra CMake options after it).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(g++ cmake ninja-build pkg-config libsqlite3-dev zlib1g-dev nettle-dev libpq-dev postgresql libgtest-dev libgmock-dev
          libbenchmark-dev sqlite3 clang clang-format libclang-rt-14-dev python3)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    echo "Installing: ${missing[*]}"
    sudo_cmd=()
    [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi

build_dir=${1:-build}
shift || true
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$build_dir"
