"""Prints the medians of Google Benchmark's JSON files, and the ratio of each claim to its peer."""
import json
import statistics
import sys

# claim, peer, what it is, goal
PAIRS = [
    ("Write", "WriteSpdlog", "a record written", 0.90),
    ("Write/real_time/threads:2", "WriteSpdlog/real_time/threads:2", "a record written, two threads", 0.85),
    ("Drop", "DropSpdlog", "a record dropped by its level", 0.50),
    ("Drop", "DropAtSpdlogsSink", "the same, the peer's sink drops", 0.50),
    ("Fold", "FoldSpdlog", "a repeat folded, full list", 2.20),
    ("Encode", "EncodeProtobuf", "request encoded", 0.50),
    ("Parse/views", "ParseProtobuf", "request parsed without copies", 0.20),
    ("Parse/copies", "ParseProtobuf", "request parsed with copies", 1.00),
    ("OneThread", "OneThreadMutex", "a message posted and received", 0.65),
    ("Stream/real_time/threads:2", "StreamMutex/real_time/threads:2", "messages streaming between threads", 0.90),
    ("Stream/real_time/threads:2", "StreamEventfd/real_time/threads:2", "the same", 0.35),
    ("HitLive", "HitLiveUnorderedMap", "a hit, 4 nodes in 300 buckets", 0.75),
    ("HitMany", "HitManyUnorderedMap", "a hit, 1000 nodes in 65535 buckets", 0.50),
    ("Insert", "InsertUnorderedMap", "a node inserted from an arena", 0.30),
    ("Section", "SectionCalloc", "16 bytes from an arena", 0.35),
]

times = {}
for path in sys.argv[1:]:
    with open(path, encoding="utf-8") as file:
        for run in json.load(file)["benchmarks"]:
            if run["run_type"] == "iteration":
                wall = "real_time" in run["name"]
                times.setdefault(run["run_name"], []).append(run["real_time" if wall else "cpu_time"])
for claim, peer, what, goal in PAIRS:
    ours, theirs = statistics.median(times[claim]), statistics.median(times[peer])
    print(f"  {what:34} {ours:9.1f} ns  {peer.split('/')[0]:18} {theirs:9.1f} ns  ratio {ours / theirs:5.2f}  goal {goal:.2f}")
