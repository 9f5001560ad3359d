#!/usr/bin/env bash
# Fails when a C++ file is not formatted as .clang-format says (run clang-format -i on it to fix).
set -euo pipefail
cd "$(dirname "$0")/.."
find src tests tools fuzz bench -name '*.cpp' -o -name '*.h' | xargs clang-format --dry-run --Werror
