#!/bin/sh
# Runs the fuzz target on its corpus for TARN_FUZZ_SECONDS, 10 unless set. What it finds stays in the working directory.
# Usage: fuzz.sh TARGET CORPUS
set -eu
found=$(mktemp -d)
trap 'rm -rf "$found"' EXIT
"$1" -max_total_time="${TARN_FUZZ_SECONDS:-10}" -timeout=5 -rss_limit_mb=1024 -max_len=4096 -print_final_stats=1 "$found" "$2"
