"""idle_daemon.py BOARD DIR: on a board with its main process, starts the daemon nine times; prints how long it takes
until it listens, and what the idle process holds of memory and takes of a core."""
import statistics
import subprocess
import sys

board, directory = sys.argv[1:]
SOCKET = "/run/velto/127.0.0.1_104"
MAIN = "/app_run/app_bin/board_main </dev/null >/log/board_main.log 2>&1 & while [ ! -S /run/board_main.sock ]; do :; done"
# The program itself, as update_common.sh starts it. Whoever waits sleeps between two looks: one that spins takes a core
# that the daemon's tasks would have.
START = rf"""
rm -f {SOCKET}
[ -p /tmp/never ] || mkfifo /tmp/never
start=$(date +%s%N)
/app_run/app_bin/update_active </dev/null >>/log/update_active.out 2>&1
while [ ! -e {SOCKET} ]; do read -rt 0.0003 <>/tmp/never; done
end=$(date +%s%N)
sleep 0.2
pid=$(pidof update_active)
echo $(((end - start) / 1000)) $(sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\) kB/\1/p' /proc/$pid/status)
"""
STOP = "kill -9 $(pidof update_active)"
# Nanoseconds that the threads have run.
RUN_TIME = "cat /proc/$(pidof update_active)/task/*/schedstat | awk '{ sum += $1 } END { printf \"%d\\n\", sum }'"
IDLE_SECONDS = 5


def on_board(script):
    return subprocess.run([board, "exec", directory, "bash", "-c", script], capture_output=True, text=True, check=True).stdout


def started():
    return [int(number) for number in on_board(START).split()]


on_board(MAIN)
ready, resident = [], []
for _ in range(9):
    microseconds, kilobytes = started()
    ready.append(microseconds / 1000)
    resident.append(kilobytes / 1024)
    on_board(STOP)

started()
on_board("sleep 2")  # registered, and its start forgotten
busy = []
for _ in range(3):
    before, after = on_board(f"{RUN_TIME}; sleep {IDLE_SECONDS}; {RUN_TIME}").split()
    busy.append((int(after) - int(before)) / IDLE_SECONDS / 1e7)
on_board(STOP)

print(f"  ready after {statistics.median(ready):.1f} ms (goal 8), resident {statistics.median(resident):.1f} MiB (goal 6), "
      f"idle {statistics.median(busy):.2f} % of a core (goal 0.50)")
