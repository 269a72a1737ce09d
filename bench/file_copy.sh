#!/usr/bin/env bash
# File copy and delete: qzutil against cp -a, rsync -aAX and rm -rf, in one run, page cache warm.
#
#   file_copy.sh QZUTIL MAKE_TREE WORK_DIR [RUNS [LARGE_RUNS]]
#
# Tree (a): 20,000 files of 1 to 16 KiB in 1,000 folders, each with a user extended attribute,
# one in ten with an access control list. Tree (b): four 512 MiB files. Sparse: one file of 1 GiB
# that holds 1 MiB of data. Every timed run starts from an empty destination after a sync; the
# tools take turns (qzutil by default and with --jobs 2), and each figure is the median of RUNS
# runs (default 9; LARGE_RUNS, default 5, for tree (b), the sparse file and the shared-extent
# volumes), printed with the spread (lowest and highest sample). Prints a Markdown table of
# medians and ratios, then where the time goes (strace -c) for the copy and the delete of tree (a).
#
# As root, the trees live on an ext4 volume in memory (an image in /dev/shm on a loop device), so
# that the figures measure the tools and the file system rather than the disk underneath, unless
# QZ_BENCH_VOLUME=disk; otherwise, and then, they live in WORK_DIR itself. As root, a 512 MiB
# file is also copied within a btrfs and an XFS volume (images in /dev/shm on loop devices),
# where both tools share extents instead of copying. With QZ_BENCH_SUMMARY set to a file, each
# ratio is appended to it as a row "| CASE (VOLUME) | RATIO |", for a summary of all benchmarks.
set -euo pipefail

qzutil=$(realpath "$1")
make_tree=$(realpath "$2")
work=$3
runs=${4:-9}
large_runs=${5:-5}

mkdir -p "$work"
work=$(realpath "$work")
if [ "$(id -u)" -eq 0 ] && [ -d /dev/shm ] && [ "${QZ_BENCH_VOLUME:-memory}" != disk ]; then
    image=/dev/shm/qz-bench-$$.img
    volume=$work/volume
    mkdir -p "$volume"
    cleanup() { umount "$volume" 2>/dev/null || true; rm -f "$image"; }
    truncate -s 6G "$image"
    mkfs.ext4 -q -F "$image"
    mount -o loop "$image" "$volume"
    work=$volume
    echo "Volume: ext4 in memory ($image on a loop device)"
else
    cleanup() { :; }
    echo "Volume: $(df -T "$work" | awk 'NR == 2 { print $2 }') at $work"
fi
shared_volumes=()
trap 'for v in "${shared_volumes[@]}"; do umount "$v" 2>/dev/null || true; done; rm -f /dev/shm/qz-bench-$$-*.img; cleanup' EXIT
small=$work/tree-a
large=$work/tree-b
sparse=$work/sparse
dest=$work/copy
[ -d "$small" ] || "$make_tree" small "$small"
[ -d "$large" ] || "$make_tree" large "$large"
if [ ! -f "$sparse" ]; then   # 1 GiB, 1 MiB of data in the middle
    truncate -s 1G "$sparse"
    head -c 1M /dev/urandom | dd of="$sparse" bs=1M seek=512 conv=notrunc status=none
fi
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
spread() { sort -n | awk 'NR == 1 { low = $1 } { high = $1 } END { print low "-" high }'; }

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

# The 512 MiB file on volumes that share extents: an image of 1.5 GiB each in /dev/shm.
if [ "$(id -u)" -eq 0 ] && [ -d /dev/shm ] && [ "${QZ_BENCH_VOLUME:-memory}" != disk ] \
   && command -v mkfs.btrfs >/dev/null && command -v mkfs.xfs >/dev/null; then
    for kind in btrfs xfs; do
        v=$work/$kind
        mkdir -p "$v"
        truncate -s 1536M "/dev/shm/qz-bench-$$-$kind.img"
        if [ $kind = btrfs ]; then mkfs.btrfs -q -f "/dev/shm/qz-bench-$$-$kind.img"
        else mkfs.xfs -q -f -m reflink=1 "/dev/shm/qz-bench-$$-$kind.img"; fi
        mount -o loop "/dev/shm/qz-bench-$$-$kind.img" "$v"
        shared_volumes+=("$v")
        cp "$large/large0" "$v/file"
    done
fi

# shared_case NAME VOLUME TOOL...: one timed copy of VOLUME/file to VOLUME/copy.
shared_case() {
    local name=$1 v=$2
    shift 2
    rm -f "$v/copy"
    sync
    samples[$name]+="$(time_once "$@" "$v/file" "$v/copy") "
}

rsync_copy() { rsync -aAX "$1/" "$2/"; }

# Warm the page cache and every tool once.
cat "$large"/* "$sparse" >/dev/null
for tool in "cp -a" "$qzutil copy --recursive" "$qzutil copy --recursive --jobs 2"; do
    rm -rf "$dest"; $tool "$small" "$dest"
done
rm -rf "$dest"; rsync_copy "$small" "$dest"; rm -rf "$dest"

for _ in $(seq "$runs"); do
    copy_case "a cp" "$small" cp -a
    copy_case "a qzutil" "$small" "$qzutil" copy --recursive
    copy_case "a qzutil j2" "$small" "$qzutil" copy --recursive --jobs 2
    copy_case "a rsync" "$small" rsync_copy
    delete_case "rm" rm -rf
    delete_case "delete" "$qzutil" delete
    delete_case "delete j2" "$qzutil" delete --jobs 2
done
for _ in $(seq "$large_runs"); do
    copy_case "b cp" "$large" cp -a
    copy_case "b qzutil" "$large" "$qzutil" copy --recursive
    copy_case "sparse cp" "$sparse" cp -a
    copy_case "sparse qzutil" "$sparse" "$qzutil" copy
    mkdir -p "$work/empty" && samples[startup]+="$(time_once "$qzutil" delete "$work/empty") "   # starting alone
    mkdir -p "$work/empty" && samples[startup rm]+="$(time_once rm -rf "$work/empty") "
    for v in "${shared_volumes[@]}"; do
        shared_case "$(basename "$v") cp" "$v" cp -a
        shared_case "$(basename "$v") qzutil" "$v" "$qzutil" copy
    done
done
rm -rf "$dest"
"$qzutil" copy "$sparse" "$dest"
sparse_qz_kib=$(du -k "$dest" | cut -f1)
rm -f "$dest"; cp -a "$sparse" "$dest"
sparse_cp_kib=$(du -k "$dest" | cut -f1)
rm -f "$dest"

m() { tr ' ' '\n' <<<"${samples[$1]}" | grep . | median; }
s() { tr ' ' '\n' <<<"${samples[$1]}" | grep . | spread; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0) ? a / b : 0 }'; }
volume_name=$([ "$work" = "${volume:-}" ] && echo "ext4 in memory" || echo "$(df -T "$work" | awk 'NR == 2 { print $2 }') on disk")
row() {   # row CASE OURS THEIRS; with QZ_BENCH_SUMMARY, the ratio also goes to that file
    echo "| $1 | $(m "$2") ($(s "$2")) | $(m "$3") ($(s "$3")) | $(ratio "$(m "$2")" "$(m "$3")") |"
    if [ -n "${QZ_BENCH_SUMMARY:-}" ]; then
        echo "| $1 ($volume_name) | $(ratio "$(m "$2")" "$(m "$3")") |" >>"$QZ_BENCH_SUMMARY"
    fi
}

echo "| Case | qzutil, ms: median (spread) | reference, ms: median (spread) | ratio |"
echo "|---|---:|---:|---:|"
row "copy tree (a) vs cp -a" "a qzutil" "a cp"
row "copy tree (a), --jobs 2, vs cp -a" "a qzutil j2" "a cp"
row "copy tree (a) vs rsync -aAX" "a qzutil" "a rsync"
row "delete tree (a) vs rm -rf" "delete" "rm"
row "delete tree (a), --jobs 2, vs rm -rf" "delete j2" "rm"
row "copy tree (b) vs cp -a" "b qzutil" "b cp"
row "copy sparse 1 GiB (1 MiB data) vs cp -a" "sparse qzutil" "sparse cp"
for v in "${shared_volumes[@]}"; do
    row "copy 512 MiB within $(basename "$v") vs cp -a" "$(basename "$v") qzutil" "$(basename "$v") cp"
done
echo
echo "Starting alone (deleting an empty folder): qzutil $(m startup) ms ($(s startup)), rm -rf $(m "startup rm") ms ($(s "startup rm"))."
echo "Sparse copy occupies: qzutil $sparse_qz_kib KiB, cp -a $sparse_cp_kib KiB."
echo "Medians of $runs runs each ($large_runs for tree (b), the sparse file and the shared-extent volumes); samples (ms):"
for name in "${!samples[@]}"; do
    echo "- $name: ${samples[$name]}"
done | sort

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
