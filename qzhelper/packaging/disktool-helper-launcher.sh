#!/bin/sh
# Launcher for a packaged application's privileged helper.
#
# Installed at the application's helper path, which is the application's executable with
# " Helper" appended (for /usr/bin/disktool: "/usr/bin/disktool Helper"). The application
# starts it with its socket as standard input and output; pkexec asks polkit, and through it
# the user, for the action whose exec.path is the helper below, then runs the helper as root
# with standard input, output and error kept. Use exec, so that the application's helper
# process is the helper itself and can be reaped and told to stop.
exec /usr/bin/pkexec /usr/libexec/qzapp/qzhelper
