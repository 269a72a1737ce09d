#!/usr/bin/env bash
# Sets up, builds and runs QZApp on Debian 12. Installs missing Debian packages first (as root,
# or through sudo).
#
#   ./dev.sh run          install, build, and run Disk Tool: its window with a display, its
#                         tour (every subsystem once, with screenshots) without one
#   ./dev.sh test         install, build, and run the whole test suite: the default build, the
#                         address/undefined and thread sanitizer builds, and a short run of
#                         every fuzz target
#   ./dev.sh demo         install, build, and show qzutil's commands at work
#   ./dev.sh bench        install, build, and run the benchmarks under bench/
#   ./dev.sh fuzz [SECS]  build the fuzz targets and run each for SECS seconds (default 60)
#   ./dev.sh package      build the Debian packages into build/packages and check them with
#                         lintian, desktop-file-validate and appstreamcli
#   ./dev.sh screenshots  retake docs/screenshots/ through the tour under Xvfb
set -euo pipefail
cd "$(dirname "$0")"

log() { printf '\n==> %s\n' "$*"; }

install_packages() {
    local wanted missing=()
    wanted=$(grep -vE '^\s*(#|$)' tools/debian-packages.txt)
    for package in $wanted; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    log "installing ${missing[*]}"
    local sudo=()
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    "${sudo[@]}" apt-get update
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y --no-install-recommends "${missing[@]}"
}

build() {
    log "building ($1)"
    cmake --preset "$1" >/dev/null
    cmake --build --preset "$1"
}

run_tests() {
    build "$1"
    log "testing ($1)"
    ctest --preset "$1"
}

# The libFuzzer options of a target, one per line: its fuzz/NAME.options holds a "[libfuzzer]"
# section of "key = value" lines, each passed as -key=value; a dictionary is named relative to
# fuzz/.
fuzzer_options() {
    local file=fuzz/$1.options
    [ -f "$file" ] || return 0
    sed -n 's/^[[:space:]]*\([a-z_][a-z_]*\)[[:space:]]*=[[:space:]]*\(.*[^[:space:]]\)[[:space:]]*$/-\1=\2/p' "$file" \
        | sed 's#^-dict=#-dict=fuzz/#'
}

run_fuzzers() {
    local seconds=$1
    build fuzz
    for fuzzer in build/fuzz/bin/fuzz_*; do
        local name corpus options
        name=$(basename "$fuzzer")
        corpus=build/fuzz/corpus/${name#fuzz_}
        mkdir -p "$corpus"
        [ -d "fuzz/corpus/${name#fuzz_}" ] && cp -rn "fuzz/corpus/${name#fuzz_}/." "$corpus/"
        mapfile -t options < <(fuzzer_options "$name")
        log "fuzzing $name for ${seconds}s ${options[*]}"
        if ! "$fuzzer" "${options[@]}" -max_total_time="$seconds" -print_final_stats=1 "$corpus" >"build/fuzz/$name.log" 2>&1; then
            tail -n 60 "build/fuzz/$name.log"
            echo "$name found a fault"
            return 1
        fi
        grep -E '^stat::number_of_executed_units' "build/fuzz/$name.log"
    done
}

demo() {
    local qzutil=build/default/bin/qzutil
    log "qzutil demonstrates itself"
    set -x
    "$qzutil" quote ab 'c d' ''
    "$qzutil" escape $'tab\there'
    "$qzutil" size --base 10 1000
    "$qzutil" size 1536
    "$qzutil" version compare 10.0 9.0
    "$qzutil" version parse '1.0.7 (48)'
    "$qzutil" version os
    local scratch
    scratch=$(mktemp -d)
    mkdir "$scratch/folder" && echo hello > "$scratch/folder/file"
    "$qzutil" copy --recursive "$scratch/folder" "$scratch/copy"
    "$qzutil" run /bin/cat "$scratch/copy/file"
    "$qzutil" delete "$scratch"
    printf 'Man' | "$qzutil" base64
    printf 'secret' | "$qzutil" encrypt --cipher blowfish --key 00112233445566778899aabbccddeeff \
        | "$qzutil" decrypt --cipher blowfish --key 00112233445566778899aabbccddeeff
    echo
    scratch=$(mktemp)
    "$qzutil" helper unlink "$scratch"
    "$qzutil" auth-cat /etc/os-release
    { set +x; } 2>/dev/null
}

# Disk Tool's window when there is a display; its tour otherwise.
run_disktool() {
    local disktool=build/default/bin/disktool
    if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
        log "Disk Tool"
        "$disktool"
    else
        local screenshots=build/default/tour-screenshots
        log "no display: Disk Tool's tour"
        "$disktool" --tour --screenshots "$screenshots"
        log "the screenshots are in $(cd "$screenshots" && pwd)"
    fi
}

# The packages are built from a tree configured for /usr without run paths (the libraries lie
# in the system's folder), and must pass the checks a Debian user would run.
package() {
    local dir=build/package out=build/packages
    log "building the packages"
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
        -DCMAKE_SKIP_INSTALL_RPATH=ON -DQZ_BUILD_TESTS=OFF -DQZ_BUILD_BENCHMARKS=OFF -DQZ_WARNINGS_AS_ERRORS=ON >/dev/null
    cmake --build "$dir" -j2
    rm -rf "$out" && mkdir -p "$out"
    (cd "$dir" && cpack -G DEB -B "$PWD/../packages" >/dev/null)
    rm -rf "$out/_CPack_Packages"
    log "lintian"
    lintian --fail-on error "$out"/*.deb
    log "desktop-file-validate and appstreamcli validate"
    desktop-file-validate examples/disk-tool/data/org.example.disktool.desktop
    appstreamcli validate --no-net "$dir/examples/disk-tool/org.example.disktool.metainfo.xml"
    log "packages in $out:"
    ls -1 "$out"
}

# Runs every benchmark, then prints one table of the ratios they measured.
bench() {
    local summary
    summary=$(realpath -m build/default/bench-summary.md)
    : >"$summary"
    log "benchmarks"
    QZ_BENCH_SUMMARY=$summary cmake --build build/default --target bench
    log "summary: ratio = ours / theirs in time per operation (below 1 is faster)"
    echo "| Case | Ratio |"
    echo "|---|---:|"
    cat "$summary"
}

command=${1:-}
case "$command" in
    run)   install_packages; build default; run_disktool ;;
    demo)  install_packages; build default; demo ;;
    package) install_packages; package ;;
    screenshots) install_packages; build default
           xvfb-run -a -s '-screen 0 1280x1024x24' env QT_QPA_PLATFORM=xcb \
               build/default/bin/disktool --tour --screenshots docs/screenshots ;;
    test)  install_packages; run_tests default; run_tests asan; run_tests tsan; run_fuzzers "${QZ_FUZZ_SECONDS:-10}" ;;
    bench) install_packages; build default; bench ;;
    fuzz)  install_packages; run_fuzzers "${2:-60}" ;;
    *)     sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; exit 2 ;;
esac
