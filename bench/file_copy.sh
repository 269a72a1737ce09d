#!/usr/bin/env bash
# File copy and delete: qzutil against cp -a, rsync -aAX and rm -rf, in one run, page cache warm.
#
#   file_copy.sh QZUTIL MAKE_TREE WORK_DIR [RUNS [LARGE_RUNS]]
#
# Tree (a): 20,000 files of 1 to 16 KiB in 1,000 folders, each with a user extended attribute,
# one in ten with an access control list. Tree (b): four 512 MiB files. Every timed run starts
# from an empty destination after a sync; the tools take turns, and each figure is the median of
# RUNS runs (default 9; LARGE_RUNS, default 5, for tree (b)). Prints a Markdown table of medians and ratios, then where the time goes
# (strace -c) for the copy and the delete of tree (a).
#
# As root, the trees live on an ext4 volume in memory (an image in /dev/shm on a loop device), so
# that the figures measure the tools and the file system rather than the disk underneath;
# otherwise they live in WORK_DIR itself.
set -euo pipefail

qzutil=$(realpath "$1")
make_tree=$(realpath "$2")
work=$3
runs=${4:-9}
large_runs=${5:-5}

mkdir -p "$work"
work=$(realpath "$work")
if [ "$(id -u)" -eq 0 ] && [ -d /dev/shm ]; then
    image=/dev/shm/qz-bench-$$.img
    volume=$work/volume
    mkdir -p "$volume"
    cleanup() { umount "$volume" 2>/dev/null || true; rm -f "$image"; }
    trap cleanup EXIT
    truncate -s 6G "$image"
    mkfs.ext4 -q -F "$image"
    mount -o loop "$image" "$volume"
    work=$volume
    echo "Volume: ext4 in memory ($image on a loop device)"
else
    echo "Volume: $(df -T "$work" | awk 'NR == 2 { print $2 }') at $work"
fi
small=$work/tree-a
large=$work/tree-b
dest=$work/copy
[ -d "$small" ] || "$make_tree" small "$small"
[ -d "$large" ] || "$make_tree" large "$large"
rm -rf "$dest"

now() { date +%s%N; }

# time_once COMMAND...: seconds the command took, printed with millisecond precision.
time_once() {
    local start end
    start=$(now)
    "$@" >/dev/null
    end=$(now)
    echo $(( (end - start) / 1000000 ))
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

declare -A samples

# copy_case NAME SOURCE TOOL...: one timed copy of SOURCE to $dest.
copy_case() {
    local name=$1 source=$2
    shift 2
    rm -rf "$dest"
    sync
    samples[$name]+="$(time_once "$@" "$source" "$dest") "
}

# delete_case NAME TOOL...: one timed delete of a fresh copy of tree (a).
delete_case() {
    local name=$1
    shift
    rm -rf "$dest"
    cp -a "$small" "$dest"
    sync
    samples[$name]+="$(time_once "$@" "$dest") "
}

rsync_copy() { rsync -aAX "$1/" "$2/"; }

# Warm the page cache and every tool once.
cat "$large"/* >/dev/null
for tool in "cp -a" "$qzutil copy --recursive"; do
    rm -rf "$dest"; $tool "$small" "$dest"
done
rm -rf "$dest"; rsync_copy "$small" "$dest"; rm -rf "$dest"

for _ in $(seq "$runs"); do
    copy_case "a cp" "$small" cp -a
    copy_case "a qzutil" "$small" "$qzutil" copy --recursive
    copy_case "a rsync" "$small" rsync_copy
    delete_case "rm" rm -rf
    delete_case "delete" "$qzutil" delete
done
for _ in $(seq "$large_runs"); do
    copy_case "b cp" "$large" cp -a
    copy_case "b qzutil" "$large" "$qzutil" copy --recursive
done
rm -rf "$dest"

m() { tr ' ' '\n' <<<"${samples[$1]}" | grep . | median; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

a_cp=$(m "a cp"); a_qz=$(m "a qzutil"); a_rsync=$(m "a rsync")
b_cp=$(m "b cp"); b_qz=$(m "b qzutil")
d_rm=$(m "rm"); d_qz=$(m "delete")

echo "| Case | qzutil (ms) | reference (ms) | ratio |"
echo "|---|---:|---:|---:|"
echo "| copy tree (a) vs cp -a | $a_qz | $a_cp | $(ratio "$a_qz" "$a_cp") |"
echo "| copy tree (a) vs rsync -aAX | $a_qz | $a_rsync | $(ratio "$a_qz" "$a_rsync") |"
echo "| copy tree (b) vs cp -a | $b_qz | $b_cp | $(ratio "$b_qz" "$b_cp") |"
echo "| delete tree (a) vs rm -rf | $d_qz | $d_rm | $(ratio "$d_qz" "$d_rm") |"
echo
echo "Medians of $runs runs each ($large_runs for tree (b)); samples (ms):"
for name in "a qzutil" "a cp" "a rsync" "b qzutil" "b cp" "delete" "rm"; do
    echo "- $name: ${samples[$name]}"
done

# Where the time goes: system calls of one copy and one delete of tree (a).
if command -v strace >/dev/null; then
    summary() { strace -c -f -o "$work/strace.txt" "$@" >/dev/null; sed -n '1,12p' "$work/strace.txt"; }
    echo
    echo "strace -c, copy of tree (a), qzutil:"; rm -rf "$dest"; summary "$qzutil" copy --recursive "$small" "$dest"
    echo "strace -c, copy of tree (a), cp -a:"; rm -rf "$dest"; summary cp -a "$small" "$dest"
    echo "strace -c, delete of tree (a), qzutil:"; summary "$qzutil" delete "$dest"
    cp -a "$small" "$dest"
    echo "strace -c, delete of tree (a), rm -rf:"; summary rm -rf "$dest"
    rm -f "$work/strace.txt"
fi
