#!/bin/sh
# cat_proc_maps.sh PID: prints the memory map of a process; runs through sudo where the update process, which keeps the
# map beside its crash file, is no superuser.
case $1 in
  '' | *[!0-9]*)
    echo "cat_proc_maps: not a process id: $1" >&2
    exit 1
    ;;
esac
exec cat "/proc/$1/maps"
