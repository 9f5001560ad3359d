#!/usr/bin/env bash
# Builds the project and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh build
ctest --test-dir build --output-on-failure -j2
