#!/usr/bin/env bash
# Installs what the whole-process comparisons need beyond scripts/setup.sh: Node, GNU time, dbview, Python's
# dbfread, xlwt, xlrd and openpyxl, FreeXL, unzip, pspp and LibreOffice (headless) from Debian when they are missing, and the npm competitors into
# bench/node_modules (git-ignored). compare.py leaves out a competitor whose package is not installed.
set -euo pipefail
cd "$(dirname "$0")"

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
missing=()
command -v node >/dev/null || missing+=(nodejs)
command -v npm >/dev/null || missing+=(npm)
# Debian's Python modules are for Debian's python3, which need not be the first on PATH: ask dpkg.
for p in time dbview python3-dbfread python3-xlwt python3-xlrd python3-openpyxl libfreexl-dev unzip pspp \
    libreoffice-calc-nogui; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
    "${sudo_cmd[@]}" apt-get update -qq
    DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi
npm install --no-package-lock --no-audit --no-fund --loglevel=error
