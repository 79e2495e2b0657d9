"""How fast the daemon follows the hardware service: arrivals and start-up."""

from pathlib import Path
from statistics import median

from bench import stage
from bench.figures import Figure
from bench.stage import Stage

Plot = list[tuple[float, float, float]]  # size, ours, floor


def arrivals(logs: Path, rounds: int, count: int) -> list[Figure]:
    """The two halves of an arrival, daemon and bare client in turn."""
    samples: dict[str, list[list[float]]] = {"ours": [], "floor": [], "logging": []}
    for _ in range(rounds):
        for who, found in samples.items():
            with Stage(logs) as place:
                found += _run(place, "arrivals", count, who)
    halves = {who: [median(half) for half in zip(*found)] for who, found in samples.items()}
    names = ("arrival: DeviceAdded to Mount call", "arrival: is_mounted to first byte")
    figures = [Figure(name, halves["ours"][half], halves["floor"][half], 1.03, "us")
               for half, name in enumerate(names)]
    return figures + [Figure(f"{name}, logging as by default", halves["logging"][half],
                             halves["floor"][half], None, "us")
                      for half, name in enumerate(names)]


def start_up(logs: Path, rounds: int, sizes: tuple[int, ...]) -> tuple[list[Figure], Plot]:
    """From exec to the last answer of the scan; and whether that is linear."""
    plot: Plot = []
    for size in sizes:
        samples: dict[str, list[float]] = {"ours": [], "floor": []}
        for _ in range(rounds):
            for who, found in samples.items():
                with Stage(logs) as place:
                    found += _run(place, "startup", size, who)[0]
        plot.append((size, *(median(found) / 1000 for found in samples.values())))
    figures = [Figure(f"start-up: {size:,} volumes", ours, floor, 1.15 if size else 1.4, "ms")
               for size, ours, floor in plot]
    (nothing, *base), (some, *few), (more, *many) = plot[0], plot[-2], plot[-1]
    growth = [(many[who] - base[who]) / (few[who] - base[who]) * (some - nothing) / (more - nothing)
              for who in (0, 1)]
    figures.append(Figure(f"start-up: a volume among {more:,} to one among {some:,}", *growth, 1.15,
                          "times"))
    return figures, plot


def _run(place: Stage, what: str, count: int, who: str) -> list[list[float]]:
    command = {"ours": place.daemon(*stage.QUIET),
               "floor": [place.program(stage.BARE_CLIENT), stage.PORT],
               "logging": place.daemon("--log", "/var/log/voldrake.log")}[who]
    output = place.output([place.program(stage.DRIVER), what, str(count), stage.PORT, *command])
    return [[float(number) for number in line.split()] for line in output.splitlines()]
