"""The small pieces: runs the Google Benchmark program and reads its figures."""

import json
from collections import defaultdict
from pathlib import Path
from statistics import median

from bench import stage
from bench.figures import CannotMeasure, Figure
from bench.speed import Plot
from bench.stage import Stage
from testbed.network import Network


def measure(logs: Path, repetitions: int, seconds: float) -> tuple[list[Figure], dict[str, Plot]]:
    """Messages, announcements sent and decoded, and the list's tick, in nanoseconds."""
    times, allocations = _run(logs, repetitions, seconds)
    sent = [(size, times[f"AnnounceAll/{size}"] / size, times[f"BareSendto/{size}"] / size)
            for size in (1, 10, 100, 1000)]
    ticks = [(size, times[f"ListTick/{size}"], times[f"WalkMap/{size}"])
             for size in (1, 10, 100, 1000, 10000)]
    figures = [Figure(f"one service announced, of {size:,}: CPU", ours, floor, 1.25, "ns")
               for size, ours, floor in sent]
    figures += [Figure(f"list tick, {size:,} shares: CPU", ours, floor, 1.5, "ns")
                for size, ours, floor in ticks]
    figures += [
        Figure("message, publish to delivered: CPU", times["PublishToDelivered"],
               times["BareConnectSendClose"], 1.2, "ns"),
        Figure("message, publish to delivered: allocations", allocations, None, None, "1"),
        Figure("message built and framed: CPU", times["BuildMessage"], None, None, "ns"),
        Figure("announcement decoded: CPU", times["Decode"], None, None, "ns"),
    ]
    return figures, {"services": sent, "list": ticks}


def _run(logs: Path, repetitions: int, seconds: float) -> tuple[dict[str, float], float]:
    """Median times by name, and the allocations that a message takes."""
    with Network() as network, Stage(logs, network, "169.254.1.1") as place:
        # Thousands of connections in a row would leave the kernel nothing but waiting ones.
        place.set_network_option("ipv4/tcp_max_tw_buckets", "0")
        output = place.output([
            place.program(stage.MICRO), "--benchmark_format=json",
            f"--benchmark_min_time={seconds:g}", f"--benchmark_repetitions={repetitions}",
            "--benchmark_enable_random_interleaving=true"])
    times, allocations = defaultdict(list), []
    for run in json.loads(output)["benchmarks"]:
        if run.get("error_occurred"):
            raise CannotMeasure(f"{run['name']}: {run['error_message']}")
        if run["run_type"] != "iteration":
            continue
        name = run["name"].split("/iterations")[0].split("/manual_time")[0].split("/repeats")[0]
        times[name].append(run["real_time"] / run["ticks"] if "ticks" in run else run["cpu_time"])
        if name == "PublishToDelivered":
            allocations.append(run["allocations"])
    return {name: median(values) for name, values in times.items()}, median(allocations)
