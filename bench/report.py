#!/usr/bin/env python3
"""Turns what the benchmarks wrote into ratios with goals and verdicts.

usage: report.py RESULTS.json... PLOT_FOLDER

Prints the report, as far as there are results, and writes one file of points
per curve for bench/plot.gp into PLOT_FOLDER. Times are medians over the
repetitions. Of the first synchronisation the ratio is the median of the ratios
of each turn.
"""
import json
import statistics
import sys
from pathlib import Path

HMAP_PHASES = ("put", "find", "miss", "delete")
HMAP_GOAL_LIMIT = 100_000  # records; above it there is no goal
NOTI_COUNT = 65_536
NOTICES_GOAL = 0.9  # of the bare subscriber's rate
SYNC_GOAL = 1.2  # times the bare client's time, for ports and MACs
SYNC_GOAL_SIZE = (4096, 65_536)
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


def verdict(ratio, goal, at_least=False):
    if goal is None:
        return ""
    met = ratio >= goal if at_least else ratio <= goal
    return f"goal {goal:4.2f}  {'met' if met else 'SHORT'}"


def ratio_of(over, under):
    return statistics.median(a / b for a, b in zip(over, under))


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(len(ordered) * share))]


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


    def simulated(self):
        """The daemon on the simulated switch."""
        self.notifications()
        self.growth("sync_first", "A switch starts, by number of MACs (a sixteenth as many ports,"
                    " up to 127 OUIs)", "object", GROWTH_GOAL)
        self.growth("sync_again", "The daemon starts again on a running switch, by number of MACs"
                    " (a sixteenth as many ports)", "notification", GROWTH_GOAL)
        self.growth("aging", "One aging tick, by number of ports", "port")
        self.growth("oui_delete", "Deletion of one OUI of 127, by number of MACs", "MAC")
        self.memory()

    def live(self):
        """The daemon as a process on Redis."""
        print("\nThe daemon as a process on Redis; what is compared took turns on one server")
        self.live_notices()
        self.live_sync("sync_first", "First synchronisation, from the daemon's start")
        self.live_sync("restart", "Restart, from SIGKILL (started again at once, no supervisor)")
        self.live_latency()
        self.live_watch()
        memory = self.results["live/memory"]
        print(f"\nResident memory of the daemon: {memory['empty'][0] / 1e6:.1f} MB,"
              f" {memory['port'][0]:.0f} bytes a port, {memory['mac'][0]:.0f} bytes a MAC;"
              f" of Redis: {memory['server_port'][0]:.0f} bytes a port,"
              f" {memory['server_mac'][0]:.0f} bytes a MAC\n"
              f"Idle: {memory['wakeups'][0]:.1f} wake-ups a second,"
              f" {memory['idle_cpu'][0] * 1e6:.0f} us of processor time a second")

    def live_notices(self):
        """
        Means, not medians: whether the server shares a processor with its client is decided
        anew in each round and halves the rate, so that there are two of them.
        """
        print("\nMAC notices to settled daemon state against a bare subscriber that unpacks them\n\n"
              "                       daemon          bare   ratio                    processor time")
        for way in ("stored", "published"):
            ours, ours_cpu, bare, bare_cpu = (
                statistics.mean(self.results[f"live/notices/{way}"][figure])
                for figure in ("daemon", "daemon_cpu", "bare", "bare_cpu"))
            ratio = bare / ours
            print(f"{way:12} {1 / ours:12.0f}/s {1 / bare:11.0f}/s   {ratio:5.2f}"
                  f"  {verdict(ratio, NOTICES_GOAL, at_least=True):16}"
                  f"  {ours_cpu * 1e6:.2f} and {bare_cpu * 1e6:.2f} us")

    def live_sync(self, name, title):
        print(f"\n{title}, against a bare client that\nscans and unpacks everything once,"
              " and that does so as often as the daemon is asked to (a scan\nof all MACs more for"
              " each port in automatic mode); ms, with processor time\n\n"
              "ports  automatic  OUIs   MACs     ready   settled      cpu      once   cpu    ratio"
              "                  as often   ratio")
        prefix = f"live/{name}/"
        found = [entry for key, entry in self.results.items()
                 if key.startswith(prefix) and "settled" in entry]
        for entry in sorted(found, key=lambda entry: statistics.median(entry["bare_required"])):
            ports, automatic, ouis, macs = (int(value) for value in entry["size"])
            ready, settled, cpu, bare, bare_cpu, required = (
                statistics.median(entry[figure]) * 1e3
                for figure in ("ready", "settled", "cpu", "bare", "bare_cpu", "bare_required"))
            once = ratio_of(entry["settled"], entry["bare"])
            same = ratio_of(entry["settled"], entry["bare_required"])
            is_judged = name == "sync_first" and (ports, macs) == SYNC_GOAL_SIZE
            goal = SYNC_GOAL if is_judged else None
            print(f"{ports:5} {automatic:10} {ouis:5} {macs:6} {ready:9.0f} {settled:9.0f}"
                  f" {cpu:8.0f} {bare:9.0f} {bare_cpu:5.0f} {once:8.2f}  {verdict(once, goal):16}"
                  f" {required:8.0f} {same:7.2f}  {verdict(same, goal)}".rstrip())

    def live_latency(self):
        other = self.results["live/latency/other"]["rate"][0]
        print("\nFrom a port notice to the daemon's join record, us; busy: with"
              f" {other:.0f} other events a second\n")
        for way in ("library", "tool"):
            for load in ("idle", "busy"):
                found = self.results[f"live/latency/{way}/{load}"]["latency"]
                print(f"{way:8} {load}   p50 {percentile(found, 0.5) * 1e6:8.0f}"
                      f"   p99 {percentile(found, 0.99) * 1e6:8.0f}   of {len(found)}")

    def live_watch(self):
        print("\nThe tool's watch into a file; what it does not tell of it counts, which is"
              " checked\n\n"
              "                changes      told          took   processor time")
        for way, words in (("steady", "steady"), ("at_once", "at once")):
            entry = self.results[f"live/watch/{way}"]
            print(f"{words:8} {entry['rate'][0]:12.0f}/s {entry['told'][0]:9.1%}"
                  f" {entry['seconds'][0]:11.2f} s   {entry['cpu'][0] * 1e6:.2f} us a change")


def main():
    report = Report(load(sys.argv[1:-1]), Path(sys.argv[-1]))
    if any(name.startswith("hmap/") for name in report.results):
        report.hmap()
    if any(name.startswith("daemon/") for name in report.results):
        report.simulated()
    if any(name.startswith("live/") for name in report.results):
        report.live()


if __name__ == "__main__":
    main()
