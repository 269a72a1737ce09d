#!/bin/sh
# qzutil base64 against the system's base64, as whole processes on 64 MiB of random data:
# encoding (both wrap at 72 characters) and decoding of the wrapped text.
#   sh bench/base64-processes.sh path/to/qzutil
set -eu
qzutil=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 67108864 /dev/urandom >"$work/data"
base64 -w 72 "$work/data" >"$work/text"
"$qzutil" base64 "$work/data" | cmp -s - "$work/text" || { echo "qzutil base64 differs from base64 -w 72" >&2; exit 1; }

hyperfine -N --output=pipe --warmup 2 --runs 10 \
    -n "qzutil base64" "$qzutil base64 $work/data" \
    -n "base64 -w 72" "base64 -w 72 $work/data"
hyperfine -N --output=pipe --warmup 2 --runs 10 \
    -n "qzutil base64 --decode" "$qzutil base64 --decode $work/text" \
    -n "base64 -d" "base64 -d $work/text"
