#!/usr/bin/env bash
# Builds the fuzz targets with clang and libFuzzer, then runs each for the given number of seconds
# (default 60), starting from its seeds (and from the shared corpus's real files where fuzz/<target>.shared
# names their folder). A crash input is left in fuzz/ as crash-*; keep it under
# fuzz/regressions/<target>/ once fixed, so that ctest replays it. Every target runs even when one
# crashes: the script then prints that target's report (the failed check's line is in it) and fails at
# the end.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKV_BUILD_FUZZ=ON >/dev/null
cmake --build build-fuzz
failed=()
for target in build-fuzz/fuzz/*_fuzzer; do
    name=$(basename "$target" _fuzzer)
    corpus=build-fuzz/corpus-$name
    log=build-fuzz/fuzz-$name.log
    mkdir -p "$corpus"
    dict=()
    [ -f "fuzz/$name.dict" ] && dict=(-dict="fuzz/$name.dict")
    # Real files of the shared corpus seed the targets that read them (fuzz/<target>.shared names the folder);
    # they are read there, never copied.
    shared=()
    if [ -f "fuzz/$name.shared" ] && [ -d "../shared/corpus/$(cat "fuzz/$name.shared")" ]; then
        shared=("../shared/corpus/$(cat "fuzz/$name.shared")")
    fi
    echo "Fuzzing $name for ${seconds}s"
    if "$target" "$corpus" "fuzz/seeds/$name" "${shared[@]}" "${dict[@]}" -max_total_time="$seconds" -max_len=4096 \
        -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 -artifact_prefix=fuzz/ >"$log" 2>&1; then
        tail -n 12 "$log"
    else
        grep -vE '^#[0-9]+ ' "$log" # the report without the progress lines
        failed+=("$name")
    fi
done
if ((${#failed[@]})); then
    echo "Crashed: ${failed[*]}" >&2
    exit 1
fi
