"""idle_daemon.py BOARD DIR: starts the daemon on a board nine times; prints how long it takes until it listens, and the
resident memory of the idle process."""
import statistics
import subprocess
import sys

board, directory = sys.argv[1:]
SCRIPT = r"""
rm -rf /run/velto
start=$(date +%s%N)
/app_run/app_bin/script/update_common.sh
while [ ! -e /run/velto/127.0.0.1_104 ]; do :; done
end=$(date +%s%N)
sleep 0.2
pid=$(pidof update_active)
echo $(((end - start) / 1000)) $(sed -n 's/^VmRSS:[[:space:]]*\([0-9]*\) kB/\1/p' /proc/$pid/status)
kill -9 $pid
"""
ready, resident = [], []
for _ in range(9):
    out = subprocess.run([board, "exec", directory, "sh", "-c", SCRIPT], capture_output=True, text=True, check=True).stdout
    microseconds, kilobytes = out.split()
    ready.append(int(microseconds) / 1000)
    resident.append(int(kilobytes) / 1024)
print(f"  ready after {statistics.median(ready):.1f} ms (goal 8), resident {statistics.median(resident):.1f} MiB (goal 6)")
