#!/usr/bin/env bash
# Installs what the whole-process comparisons need beyond scripts/setup.sh: Node from Debian when it is
# missing, and the npm competitors into bench/node_modules (git-ignored). compare.py leaves out a
# competitor whose package is not installed.
set -euo pipefail
cd "$(dirname "$0")"

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq nodejs npm
fi
npm install --no-package-lock --no-audit --no-fund --loglevel=error
