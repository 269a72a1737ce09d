#!/bin/sh
# Builds the Debian packages from the build tree, installs them as a user would
# (apt-get install ./*.deb), runs Disk Tool's tour from the installed files and purges them
# again. Usage: install_and_tour.sh BUILD_DIR WORK_DIR
set -eu
build=$1 work=$2
rm -rf "$work" && mkdir -p "$work"
(cd "$build" && cpack -G DEB -B "$work" >"$work/cpack.log") || { cat "$work/cpack.log"; exit 1; }
packages=$(for deb in "$work"/*.deb; do dpkg-deb -f "$deb" Package; done)
purge() { DEBIAN_FRONTEND=noninteractive apt-get purge -y $packages >"$work/purge.log" 2>&1 || cat "$work/purge.log"; }
trap purge EXIT
DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$work"/*.deb >"$work/install.log" 2>&1 \
    || { cat "$work/install.log"; exit 1; }
test -x "/usr/bin/disktool Helper"
test -f /usr/share/polkit-1/actions/org.example.disktool.helper.policy
test -f /usr/share/applications/org.example.disktool.desktop
cd "$work"
env -u QT_QPA_PLATFORM /usr/bin/disktool --tour --screenshots "$work/screenshots"
for shot in main-window progress-dialog about bug-report; do
    test -s "$work/screenshots/$shot.png"
done
