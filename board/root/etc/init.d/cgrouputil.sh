#!/bin/sh
# cgrouputil.sh SET|UNSET pid limit period
#   SET    puts the process and its descendants under a CPU limit
#   UNSET  takes them out of it again
#   limit   percent of one CPU: 20 is a fifth of one core, 150 one and a half cores
#   period  length of the scheduler's accounting period in milliseconds, 1 to 1000
# Uses cgroup v2 where the cpu controller is among its controllers, else v1.
# Exit: 0 done, 1 usage, 2 no such process, 3 no writable cpu controller, 4 refused by the kernel.
ROOT=${CGROUPUTIL_ROOT:-/sys/fs/cgroup}
GROUP=script_limit

fail() {
  code=$1
  shift
  echo "cgrouputil: $*" >&2
  exit "$code"
}

is_number() {
  case $1 in
    '' | *[!0-9]*) return 1 ;;
  esac
  [ ${#1} -le 9 ]
}

# Sets version and base: the hierarchy that accounts for CPU time.
find_controller() {
  for dir in "$ROOT" "$ROOT/unified"; do
    if [ -f "$dir/cgroup.controllers" ] && grep -qw cpu "$dir/cgroup.controllers"; then
      version=2 base=$dir
      return
    fi
  done
  for dir in "$ROOT/cpu" "$ROOT/cpu,cpuacct"; do
    if [ -f "$dir/cgroup.procs" ] && { [ -f "$dir/cpu.shares" ] || [ -f "$dir/cpu.cfs_period_us" ]; }; then
      version=1 base=$dir
      return
    fi
  done
  fail 3 "no cgroup cpu controller under $ROOT: mount one, or run the script without a CPU limit"
}

# A v2 group that holds processes cannot hand its controllers down: its processes move to a leaf first.
open_subtree() {
  if ! { echo +cpu >"$base/cgroup.subtree_control"; } 2>/dev/null; then
    mkdir -p "$base/main" 2>/dev/null || fail 3 "$base is not writable"
    while read -r each; do
      echo "$each" >"$base/main/cgroup.procs"
    done <"$base/cgroup.procs" 2>/dev/null
    { echo +cpu >"$base/cgroup.subtree_control"; } 2>/dev/null || fail 3 "the cpu controller cannot be enabled in $base"
  fi
  { echo +cpu >"$base/$GROUP/cgroup.subtree_control"; } 2>/dev/null ||
    fail 3 "the cpu controller cannot be enabled in $base/$GROUP"
}

# Moves the process, then its descendants. A child that was forked before its parent moved stays behind: every look
# moves those, until one finds none. A name may hold blanks and brackets: fields count from the last ')'.
move_with_descendants() {
  { echo "$1" >"$group/cgroup.procs"; } 2>/dev/null || fail 4 "process $1 could not be moved to $group"
  looks=0 found=1
  while [ $found = 1 ] && [ $looks -lt 50 ]; do
    looks=$((looks + 1)) found=0
    members=" $(tr '\n' ' ' <"$group/cgroup.procs")"
    for stat in /proc/[0-9]*/stat; do
      { read -r line <"$stat"; } 2>/dev/null || continue
      each=${line%% *}
      rest=${line##*) }
      rest=${rest#* }
      case $members in
        *" $each "*) continue ;;
        *" ${rest%% *} "*) ;;
        *) continue ;;
      esac
      grep -qx "$each" "$group/cgroup.procs" && continue # forked inside since the look began
      { echo "$each" >"$group/cgroup.procs"; } 2>/dev/null && found=1
    done
  done
}

set_limit() {
  [ -d "/proc/$pid" ] || fail 2 "no process $pid"
  [ "$limit" -ge 1 ] || fail 1 "the limit is at least 1 percent"
  mkdir -p "$base/$GROUP" 2>/dev/null || fail 3 "$base is not writable"
  [ "$version" = 1 ] || open_subtree
  for old in "$base/$GROUP"/p*; do
    [ "$old" = "$group" ] || rmdir "$old" 2>/dev/null # groups whose processes have gone
  done
  mkdir -p "$group" 2>/dev/null || fail 3 "$base is not writable"

  quota=$((limit * period * 10)) # microseconds of CPU a period
  [ "$quota" -ge 1000 ] || quota=1000 # the kernel's minimum
  if [ "$version" = 2 ]; then
    { echo "$quota $((period * 1000))" >"$group/cpu.max"; } 2>/dev/null || fail 4 "cpu.max refused $quota of $period ms"
  else
    { echo -1 >"$group/cpu.cfs_quota_us" && echo $((period * 1000)) >"$group/cpu.cfs_period_us" &&
      echo "$quota" >"$group/cpu.cfs_quota_us"; } 2>/dev/null || fail 4 "the quota $quota of $period ms was refused"
  fi
  move_with_descendants "$pid"
}

unset_limit() {
  [ -d "$group" ] || exit 0
  home=$base
  [ -d "$base/main" ] && home=$base/main
  tries=0
  while [ $tries -lt 20 ]; do
    while read -r each; do
      echo "$each" >"$home/cgroup.procs"
    done <"$group/cgroup.procs" 2>/dev/null
    rmdir "$group" 2>/dev/null && exit 0
    tries=$((tries + 1))
    sleep 0.05
  done
  fail 4 "$group could not be removed"
}

[ $# -eq 4 ] || fail 1 "usage: cgrouputil.sh SET|UNSET pid limit period"
action=$1 pid=$2 limit=$3 period=$4
for number in "$pid" "$limit" "$period"; do
  is_number "$number" || fail 1 "pid, limit and period are decimal numbers"
done
if [ "$period" -lt 1 ] || [ "$period" -gt 1000 ]; then fail 1 "the period is 1 to 1000 ms, not $period"; fi
find_controller
group=$base/$GROUP/p$pid
case $action in
  SET) set_limit ;;
  UNSET) unset_limit ;;
  *) fail 1 "unknown action $action: SET or UNSET" ;;
esac
