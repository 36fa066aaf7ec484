#!/usr/bin/env python3
"""Turns what the benchmarks wrote into ratios with goals and verdicts.

usage: report.py RESULTS.json... PLOT_FOLDER

Prints the report and writes one file of points per curve for bench/plot.gp
into PLOT_FOLDER. Times are medians over the repetitions.
"""
import json
import sys
from pathlib import Path

HMAP_PHASES = ("put", "find", "miss", "delete")
HMAP_GOAL_LIMIT = 100_000  # records; above it there is no goal
NOTI_COUNT = 65_536
GROWTH_GOAL = 1.1  # no faster than the work; a tenth is what two runs differ by


def load(paths):
    """Name without decorations -> the result: the median where it was repeated."""
    results = {}
    for path in paths:
        for entry in json.loads(Path(path).read_text())["benchmarks"]:
            if entry.get("error_occurred"):
                sys.exit(f"{entry['name']}: {entry['error_message']}")
            if entry.get("aggregate_name", "median") != "median":
                continue
            name = entry.get("run_name", entry["name"])
            name = "/".join(part for part in name.split("/")
                            if part != "manual_time" and not part.startswith("iterations:"))
            results[name] = entry
    return results


def verdict(ratio, goal):
    return "" if goal is None else f"goal {goal:4.2f}  {'met' if ratio <= goal else 'SHORT'}"


class Report:
    def __init__(self, results, folder):
        self.results = results
        self.folder = folder
        self.folder.mkdir(parents=True, exist_ok=True)

    def sizes(self, prefix):
        found = (name[len(prefix) + 1:] for name in self.results if name.startswith(prefix + "/"))
        return sorted(int(size) for size in found if size.isdigit())

    def time(self, name):
        return self.results[name]["real_time"]

    def curve(self, name, points):
        text = "".join(f"{x} {y}\n" for x, y in points)
        (self.folder / f"{name}.dat").write_text(text)

    def hmap_phase(self, phase, key):
        prefix = f"hmap/{phase}/{key}"
        value = "bytes" if phase == "memory" else "real_time"
        for size in self.sizes(f"{prefix}/ours"):
            divide = 1 if phase == "memory" else size
            ours, plain, cached = (self.results[f"{prefix}/{who}/{size}"][value] / divide
                                   for who in ("ours", "std", "std-cached"))
            ratio = ours / min(plain, cached)
            goal = 1.0 if size < HMAP_GOAL_LIMIT or phase == "memory" else None
            print(f"{phase:7} {key}  {size:8}  {ours:7.1f}  {plain:7.1f}  {cached:7.1f}"
                  f"   {ratio:5.2f}  {verdict(ratio, goal)}")
        for who in ("ours", "std", "std-cached"):
            self.curve(f"{phase}-{key}-{who}",
                       [(size, self.results[f"{prefix}/{who}/{size}"][value]
                         / (1 if phase == "memory" else size))
                        for size in self.sizes(f"{prefix}/{who}")])

    def hmap(self):
        print("Keyed hash map against std::unordered_map with the same hash function, ns per"
              " operation\n(memory: bytes per record); the ratio is to the better of the two"
              " references, without and\nwith the hash kept in the node.\n")
        print("            records     ours      std   cached   ratio")
        for key in ("4B", "6B"):
            for phase in HMAP_PHASES + ("memory",):
                self.hmap_phase(phase, key)

    def notifications(self):
        unpack = self.time("daemon/noti/unpack/65536") / NOTI_COUNT
        print("\nOne MAC notification, 127 OUIs, 64 k MACs, debug level 1, against protobuf-c's"
              f" unpack and free\nof the same message ({unpack:.0f} ns)\n")
        for case in ("known", "new", "gone"):
            cost = self.time(f"daemon/noti/{case}/65536") / NOTI_COUNT - unpack
            print(f"{case:10} {cost:8.0f} ns   ratio {cost / unpack:5.2f}"
                  f"  {verdict(cost / unpack, 3.0)}")

    def growth(self, name, title, unit, goal=None):
        """Cost per piece of work at each size, against that at the smallest."""
        sizes = self.sizes(f"daemon/{name}")
        if not sizes:
            return
        print(f"\n{title}\n")
        first = None
        points = []
        for size in sizes:
            entry = self.results[f"daemon/{name}/{size}"]
            work = entry.get("work", size)
            cost = entry["real_time"] / work
            first = first or cost
            points.append((size, cost))
            judged = verdict(cost / first, goal) if size != sizes[0] else ""
            print(f"{size:8}  {entry['real_time'] / 1e6:11.3f} ms  {cost:8.1f} ns per {unit}"
                  f"   ratio {cost / first:5.2f}  {judged}")
        self.curve(name, points)

    def memory(self):
        print("\nMemory, with the share of the table and the allocator's overhead\n")
        print(f"a MAC at 65536    {self.results['daemon/bytes/mac']['bytes']:6.1f} bytes")
        for size in self.sizes("daemon/bytes/port"):
            print(f"a port at {size:<7} {self.results[f'daemon/bytes/port/{size}']['bytes']:6.1f}"
                  " bytes")


def main():
    report = Report(load(sys.argv[1:-1]), Path(sys.argv[-1]))
    report.hmap()
    report.notifications()
    report.growth("sync_first", "A switch starts, by number of MACs (a sixteenth as many ports,"
                  " up to 127 OUIs)", "object", GROWTH_GOAL)
    report.growth("sync_again", "The daemon starts again on a running switch, by number of MACs"
                  " (a sixteenth as many ports)", "notification", GROWTH_GOAL)
    report.growth("aging", "One aging tick, by number of ports", "port")
    report.growth("oui_delete", "Deletion of one OUI of 127, by number of MACs", "MAC")
    report.memory()


if __name__ == "__main__":
    main()
