#!/bin/sh
# Starts the update process. It turns itself into a daemon but keeps its standard output open, so that must lead
# into a file of the board: whoever waits at the other end of a pipe would wait for the daemon's end.
daemon=/app_run/app_bin/update_active
if [ ! -x "$daemon" ]; then
  echo "update_common: $daemon is missing or not executable" >&2
  exit 1
fi
out=/log/update_active.out
if [ -f "$out" ] && [ "$(wc -c <"$out")" -gt 1048576 ]; then
  mv -f "$out" "$out.1" # it grows with every start and every record
fi
exec "$daemon" </dev/null >>"$out" 2>&1
