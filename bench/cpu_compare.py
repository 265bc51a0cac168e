"""cpu_compare.py ROUNDS NAME COMMAND [NAME COMMAND ...]: runs the commands in turn, ROUNDS times, and prints median CPU
time and peak memory of each, and the ratio of the first to each. A command that fails is said and left out."""
import os
import statistics
import subprocess
import sys
import tempfile

rounds = int(sys.argv[1])
commands = list(zip(sys.argv[2::2], sys.argv[3::2]))
cpu = {name: [] for name, _ in commands}
peak = {name: 0 for name, _ in commands}
failed = set()
for _ in range(rounds + 1):  # the first round warms the page cache and is thrown away
    for name, command in commands:
        # A child starts with this interpreter's peak; time(1) in between is small.
        with tempfile.NamedTemporaryFile("r") as memory:
            child = subprocess.Popen(["/usr/bin/time", "-q", "-f", "%M", "-o", memory.name, *command.split()],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            errors = child.stderr.read().decode(errors="replace").strip()
            _, status, usage = os.wait4(child.pid, 0)
            child.returncode = os.waitstatus_to_exitcode(status)
            if child.returncode != 0 and name not in failed:
                failed.add(name)
                print(f"  {name}: exit {child.returncode}: {errors[-300:]}")
            peak[name] = max(peak[name], int(memory.read() or 0))
        cpu[name].append(usage.ru_utime + usage.ru_stime)
first = statistics.median(cpu[commands[0][0]][1:])
for name, _ in commands:
    if name not in failed:
        median = statistics.median(cpu[name][1:])
        print(f"  {name:16} {median:7.3f} s  peak {peak[name] / 1024:7.1f} MiB  ratio {first / median:5.2f}")
