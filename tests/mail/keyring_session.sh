#!/bin/sh
# Runs inside dbus-run-session: starts a Secret Service (gnome-keyring-daemon, its login
# keyring unlocked with a scratch password), prints the session bus address once the service
# is on the bus, and stops the daemon when standard input closes (or after five minutes).
printf 'scratch-login' | gnome-keyring-daemon --unlock --components=secrets --foreground >/dev/null 2>&1 &
keyring=$!
trap 'kill $keyring 2>/dev/null; wait $keyring 2>/dev/null' EXIT
i=0
until dbus-send --session --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
        string:org.freedesktop.secrets 2>/dev/null | grep -q true; do
    i=$((i + 1))
    if [ $i -gt 100 ] || ! kill -0 $keyring 2>/dev/null; then
        echo "gnome-keyring-daemon did not start" >&2
        exit 1
    fi
    sleep 0.1
done
echo "$DBUS_SESSION_BUS_ADDRESS"
timeout 300 cat >/dev/null
