#!/bin/sh
# qzutil base64 against the system's base64, as whole processes on 64 MiB of random data:
# encoding (both wrap at 72 characters) and decoding of the wrapped text, output through a pipe.
# The machine may be shared with other work, so the two sides of a comparison take turns: ROUNDS
# rounds (default 5) of one hyperfine run each (5 runs of each command after 2 warm-ups, the
# order of the two commands swapped every other round). The summary gives, for each command,
# the median of the round medians and their range, and the ratio (qzutil / base64) of each
# round; below 1 is faster. It also gives the peak resident memory of a decoding qzutil.
#   sh bench/base64-processes.sh path/to/qzutil [ROUNDS]
set -eu
qzutil=$1
rounds=${2:-5}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
head -c 67108864 /dev/urandom >"$work/data"
base64 -w 72 "$work/data" >"$work/text"
"$qzutil" base64 "$work/data" | cmp -s - "$work/text" || { echo "qzutil base64 differs from base64 -w 72" >&2; exit 1; }
"$qzutil" base64 --decode "$work/text" | cmp -s - "$work/data" || { echo "qzutil base64 --decode differs from the data" >&2; exit 1; }

# compare NAME OURS THEIRS: ROUNDS hyperfine runs; one "round ours theirs" line (medians in ms)
# per round in $work/NAME.
compare() {
    : >"$work/$1"
    round=1
    while [ "$round" -le "$rounds" ]; do
        if [ $((round % 2)) -eq 1 ]; then first=$2 second=$3; else first=$3 second=$2; fi
        hyperfine -N --output=pipe --warmup 2 --runs 5 --style none --export-csv "$work/round.csv" \
            "$first" "$second" >/dev/null
        awk -F, -v ours="$2" -v round="$round" 'NR > 1 { m[$1] = $4 * 1000 }
            END { for (c in m) if (c == ours) o = m[c]; else t = m[c]; printf "%d %.1f %.1f\n", round, o, t }' \
            "$work/round.csv" >>"$work/$1"
        round=$((round + 1))
    done
}

# summary TITLE NAME: the rounds and the medians and ranges over them.
summary() {
    echo "$1"
    awk '{ printf "  round %d: qzutil %.1f ms, base64 %.1f ms, ratio %.2f\n", $1, $2, $3, $2 / $3 }' "$work/$2"
    for column in 2 3 4; do
        label=$(case $column in 2) echo qzutil ;; 3) echo base64 ;; *) echo ratio ;; esac)
        awk -v c="$column" '{ print (c == 4 ? $2 / $3 : $c) }' "$work/$2" | sort -g >"$work/column"
        awk -v label="$label" '{ v[NR] = $1 } END {
                median = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
                printf "  %s: median %.2f, range %.2f to %.2f\n", label, median, v[1], v[NR] }' "$work/column"
    done
    if [ -n "${QZ_BENCH_SUMMARY:-}" ]; then   # the ratio's median, for the summary of all benchmarks
        awk -v what="$3" '{ v[NR] = $1 } END {
                median = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
                printf "| %s | %.2f |\n", what, median }' "$work/column" >>"$QZ_BENCH_SUMMARY"
    fi
}

compare encode "$qzutil base64 $work/data" "base64 -w 72 $work/data"
compare decode "$qzutil base64 --decode $work/text" "base64 -d $work/text"
peak=$(/usr/bin/time -f %M "$qzutil" base64 --decode "$work/text" 2>&1 >/dev/null)

echo "Base64 as whole processes, 64 MiB, $rounds rounds (times in ms, ratio = qzutil / base64):"
summary "encoding: qzutil base64 FILE against base64 -w 72 FILE" encode "qzutil base64 vs base64 -w 72, 64 MiB"
summary "decoding: qzutil base64 --decode FILE against base64 -d FILE" decode "qzutil base64 --decode vs base64 -d, 64 MiB"
echo "peak resident memory of qzutil base64 --decode: $peak KiB"
