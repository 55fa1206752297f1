#!/bin/sh
# Started by the desktop session's autostart entry: the service as the logged-in user, under
# the menu guard that velora-ctl holds, with the program's folder as working directory (the
# factory paths in config/velora.conf are relative to it). The log goes to
# ~/.local/state/velora/velora.log.
here=$(dirname "$(readlink -f "$0")")
exec "$here/velora-ctl" run "$@"
