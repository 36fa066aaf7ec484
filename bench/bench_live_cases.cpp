#include "bench/bench_live_cases.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace bench
{

namespace
{

constexpr double PATIENCE = 60;
constexpr double LONG_PATIENCE = 3600;
constexpr double OTHER_EVENTS = 10'000; /* a second, beside the latency */
constexpr double WATCHED_RATE = 50'000; /* changes a second that a watch is to keep up with */
constexpr uint32_t BURST_MAX = 60'000;  /* fewer changes than wait for a subscription at most */
constexpr int LOOKS_AGAIN = 3;          /* after a pause that was taken for the end */
constexpr long SCANS_TIMED = 32;        /* for the cost of one */

/* What vvlan_bench_bare said at its end. */
struct Bare {
    double objects, ended, processor_time;
};

Bare bare_result(Child &child);
void expect(bool is_so, const std::string &what);
void write_ports(const Paths &paths, uint32_t ports);
void start_settled(std::optional<Daemon> &daemon, const Paths &paths);

} // namespace

/* --- Notices */

namespace
{

/* What is sent in one round: MACs of all ports but the last, which gets the marker only. */
struct Notices {
    Size size;
    uint32_t count;
    Noti marker;

    Notices(const Size &of, uint32_t number)
        : size({of.ports - 1, of.ouis, std::min(of.macs, number)}), count(number),
          marker(size, size.macs)
    {
        marker.message.port_id = of.ports;
    }
};

using Send = std::function<void()>;

void notices_to_daemon(const Bench &bench, Figures &figures, const Notices &notices,
                       const Send &send)
{
    std::optional<Daemon> daemon;
    start_settled(daemon, bench.paths);
    const double used = daemon->processor_time();
    const double start = now();
    send();
    while (daemon->macs_on(notices.marker.message.port_id) == 0) {
        expect(now() - start < PATIENCE, "the last notice does not reach the daemon");
        rest(0.0005);
    }
    figures["daemon"].push_back((now() - start) / notices.count);
    figures["daemon_cpu"].push_back((daemon->processor_time() - used) / notices.count);
    expect(daemon->macs() == notices.size.macs + 1, "the daemon has lost notices");
}

void notices_to_bare(const Bench &bench, Figures &figures, const Notices &notices, const Send &send)
{
    Child bare({bench.paths.bare, "subscribe", bench.paths.mom_socket(),
                std::to_string(notices.count + 1)});
    expect(bare.line() == "ready", "the bare subscriber does not start");
    const double start = now();
    send();
    const Bare result = bare_result(bare);
    figures["bare"].push_back((result.ended - start) / notices.count);
    figures["bare_cpu"].push_back(result.processor_time / notices.count);
}

/* One after the other, either first. */
void notices_round(const Bench &bench, const char *name, const Notices &notices, const Send &send,
                   bool is_bare_first)
{
    for (const bool is_bare : {is_bare_first, !is_bare_first}) {
        bench.server.clear(UDP_VVLAN_MAC_DB);
        const auto measure = is_bare ? notices_to_bare : notices_to_daemon;
        measure(bench, bench.results[name], notices, send);
    }
}

} // namespace

void case_notices(const Bench &bench)
{
    const Scale &scale = bench.scale;
    const Notices stored(scale.size, scale.notices);
    const Notices burst(scale.size, std::min(scale.notices, BURST_MAX));
    write_ports(bench.paths, scale.size.ports);
    bench.server.clear();
    bench.writer.configure(scale.size, scale.size.ports);
    Flood flood(bench.paths.mom_socket(), burst.size, burst.count, burst.marker);
    const auto store = [&] {
        bench.writer.notify(stored.size, 0, stored.count);
        bench.writer.notify_one(stored.marker);
        bench.writer.settle();
    };
    const auto publish = [&] { flood.run(); };
    for (uint32_t round = 0; round < scale.rounds; round++) {
        notices_round(bench, "live/notices/stored", stored, store, round % 2 != 0);
        notices_round(bench, "live/notices/published", burst, publish, round % 2 != 0);
    }
}

/* --- Synchronisation */

namespace
{

struct Scanned {
    double time, processor_time;
};

Scanned bare_scan(const Bench &bench, long times)
{
    Child bare({bench.paths.bare, "scan", bench.paths.mom_socket(), std::to_string(times)});
    const Bare result = bare_result(bare);
    return {result.ended - bare.started(), result.processor_time};
}

/* From `start`, when the daemon was started or the one before it was killed. */
void note_sync(Daemon &daemon, double start, uint32_t macs, Figures &figures)
{
    const double ready = daemon.wait_ready(LONG_PATIENCE);
    double settled = daemon.wait_settled(LONG_PATIENCE);
    figures["cpu"].push_back(daemon.processor_time());
    size_t held = daemon.macs();
    for (int more = 0; held != macs && more < LOOKS_AGAIN; more++) {
        rest(1);
        settled = daemon.wait_settled(LONG_PATIENCE);
        figures["cpu"].back() = daemon.processor_time();
        held = daemon.macs();
    }
    expect(held == macs, "the daemon has synchronised " + std::to_string(held) + " MACs of " +
                             std::to_string(macs));
    figures["ready"].push_back(ready - start);
    figures["settled"].push_back(std::max(ready, settled) - start);
}

/* What a bare client takes for everything once, and with as many more scans as `automatic`. */
void note_bare(const Bench &bench, uint32_t automatic, Figures &figures)
{
    const Scanned once = bare_scan(bench, 1);
    const Scanned more = bare_scan(bench, 1 + SCANS_TIMED);
    figures["bare"].push_back(once.time);
    figures["bare_cpu"].push_back(once.processor_time);
    figures["bare_required"].push_back(once.time +
                                       (more.time - once.time) / SCANS_TIMED * automatic);
}

void sync_round(const Bench &bench, const Sync &sync)
{
    const uint32_t tracked = sync.size.macs / sync.size.ports * sync.automatic; /* even */
    Figures &first = bench.results[std::string("live/sync_first/") + sync.name];
    note_bare(bench, sync.automatic, first);
    bench.server.clear(KT_MOM_UDP_DB);
    const double pages = bench.server.calls_of("hscan");
    std::optional<Daemon> daemon(bench.paths);
    note_sync(*daemon, daemon->started(), tracked, first);
    first["pages"].push_back(bench.server.calls_of("hscan") - pages);
    bench.save();
    Figures &again = bench.results[std::string("live/restart/") + sync.name];
    note_bare(bench, sync.automatic, again);
    const double killed = now();
    daemon.reset();
    daemon.emplace(bench.paths);
    note_sync(*daemon, killed, tracked, again);
}

void synchronise(const Bench &bench, const Sync &sync)
{
    const Size &size = sync.size;
    write_ports(bench.paths, size.ports);
    bench.server.clear();
    bench.writer.configure(size, sync.automatic);
    bench.writer.notify(size, 0, size.macs);
    bench.writer.settle();
    for (const char *set : {"live/sync_first/", "live/restart/"}) {
        Figures &figures = bench.results[std::string(set) + sync.name];
        figures["size"] = {static_cast<double>(size.ports), static_cast<double>(sync.automatic),
                           static_cast<double>(size.ouis), static_cast<double>(size.macs)};
    }
    for (uint32_t round = 0; round < sync.rounds; round++)
        sync_round(bench, sync);
    bench.save();
}

} // namespace

void case_synchronise(const Bench &bench)
{
    for (const Sync &sync : bench.scale.syncs)
        synchronise(bench, sync);
}

/* --- Latency */

namespace
{

class Latency
{
public:
    explicit Latency(const Bench &bench) : bench_(bench)
    {
        bench_.writer.watch_joins([this](uint32_t ifx) { joined_ = ifx; });
    }

    /* One sample for each of the next ports. */
    void measure(const std::string &name, uint32_t samples, bool by_tool)
    {
        auto &figures = bench_.results[name]["latency"];
        for (uint32_t i = 0; i < samples; i++) {
            port_++;
            figures.push_back(by_tool ? through_tool() : through_library());
            bench_.writer.run_until([] { return false; }, 0.002);
        }
    }

private:
    double through_library()
    {
        const double start = now();
        bench_.writer.see(port_);
        return wait(start);
    }

    double through_tool()
    {
        const std::string phyid = std::to_string(phyid_of(port_));
        const std::string mom = "unix:" + bench_.paths.mom_socket();
        Child tool({bench_.paths.tool, "--mom", mom, "notice", "--phyid", phyid});
        const double latency = wait(tool.started());
        tool.finish();
        return latency;
    }

    double wait(double start)
    {
        expect(bench_.writer.run_until([this] { return joined_ == port_; }, PATIENCE),
               "no join record");
        return now() - start;
    }

    const Bench &bench_;
    uint32_t port_ = 0, joined_ = 0;
};

} // namespace

void case_latency(const Bench &bench)
{
    const Scale &scale = bench.scale;
    const uint32_t runs = scale.samples / 8; /* of the tool as a process */
    write_ports(bench.paths, scale.size.ports);
    bench.server.clear();
    bench.writer.configure(scale.size, scale.size.ports);
    std::optional<Daemon> daemon;
    start_settled(daemon, bench.paths);
    Latency latency(bench);
    latency.measure("live/latency/library/idle", scale.samples, false);
    latency.measure("live/latency/tool/idle", runs, true);

    const Child feed({"/proc/self/exe", "--feed", bench.paths.mom_socket(),
                      std::to_string(scale.size.ports), std::to_string(scale.size.macs),
                      std::to_string(OTHER_EVENTS)});
    rest(0.5);
    const double start = now();
    const double written = bench.server.calls_of("publish");
    latency.measure("live/latency/library/busy", scale.samples, false);
    latency.measure("live/latency/tool/busy", runs, true);
    bench.results["live/latency/other"]["rate"] = {(bench.server.calls_of("publish") - written) /
                                                   (now() - start)};
}

void feed_forever(const std::string &socket, const Size &size, double rate)
{
    constexpr double STEP = 0.001;
    const auto a_step = static_cast<uint32_t>(rate * STEP);
    Writer writer(socket);
    double next = now();
    for (uint32_t at = 0;; at = (at + a_step) % size.macs) {
        for (uint32_t i = 0; i < a_step; i++)
            writer.notify_one(Noti(size, (at + i) % size.macs));
        next += STEP;
        writer.run_until([] { return false; }, std::max(0.0, next - now()));
    }
}

/* --- Watch */

namespace
{

/* The tool's watch with its lines in a file, as when somebody looks for a rare fault. */
class Watch
{
public:
    explicit Watch(const Paths &paths)
        : path_(paths.directory + "/watched"),
          tool_({paths.tool, "--mom", "unix:" + paths.mom_socket(), "watch", "--since-start"},
                [this] {
                    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
                    return dup2(fd, STDOUT_FILENO) >= 0;
                })
    {
        wait_for([this] { return is_ready_; }, "the watch does not begin");
    }

    void wait_for(const std::function<bool()> &done, const char *otherwise)
    {
        const double start = now();
        for (read(); !done(); read()) {
            expect(now() - start < PATIENCE, otherwise);
            rest(0.01);
        }
    }

    ~Watch()
    {
        unlink(path_.c_str());
    }

    double processor_time() const
    {
        return tool_.processor_time();
    }

    double told = 0, skipped = 0;

private:
    /* Each line that has come to its end. */
    void read()
    {
        if (!file_.is_open())
            file_.open(path_);
        file_.clear();
        for (std::string chunk; std::getline(file_, chunk);) {
            line_ += chunk;
            if (file_.eof())
                return; /* the rest of the line is still to come */
            take(std::exchange(line_, {}));
        }
    }

    void take(const std::string &line)
    {
        const size_t skip = line.find(" skipped: ");
        is_ready_ |= line.ends_with("changes follow");
        if (skip != std::string::npos)
            skipped += std::strtod(line.c_str() + line.find("--") + 2, nullptr);
        else
            told += line.find("  db 6  ") != std::string::npos;
    }

    std::string path_;
    Child tool_;
    std::ifstream file_;
    std::string line_;
    bool is_ready_ = false;
};

void watch_flood(const Bench &bench, const std::string &name, Flood &flood, double rate)
{
    Watch watch(bench.paths);
    const double used = watch.processor_time();
    const double start = now();
    flood.run(rate);
    const double sent = now();
    watch.wait_for([&] { return watch.told + watch.skipped > bench.scale.watched; },
                   "the watch neither tells of all changes nor says how many it skipped");
    const double all = bench.scale.watched + 1; /* and the marker */
    expect(watch.told + watch.skipped == all, "the watch tells of more changes than there were");
    Figures &figures = bench.results[name];
    figures["rate"].push_back(all / (sent - start));
    figures["told"].push_back(watch.told / all);
    figures["seconds"].push_back(now() - start);
    figures["cpu"].push_back((watch.processor_time() - used) / all);
}

} // namespace

void case_watch(const Bench &bench)
{
    bench.server.clear();
    const Size &size = bench.scale.size;
    Flood flood(bench.paths.mom_socket(), size, bench.scale.watched, Noti(size, 0));
    watch_flood(bench, "live/watch/steady", flood, WATCHED_RATE);
    watch_flood(bench, "live/watch/at_once", flood, 0);
}

/* --- Memory and rest */

void case_memory_and_idle(const Bench &bench)
{
    const Size &size = bench.scale.size;
    Figures &figures = bench.results["live/memory"];
    write_ports(bench.paths, size.ports);
    bench.server.clear();
    bench.writer.configure({0, size.ouis, 0}, 0);
    std::optional<Daemon> daemon;
    start_settled(daemon, bench.paths);
    const double empty = daemon->resident_bytes();
    const double empty_server = bench.server.used_memory();
    daemon.reset();

    bench.writer.configure(size, size.ports);
    start_settled(daemon, bench.paths);
    const double ports = daemon->resident_bytes();
    const double ports_server = bench.server.used_memory();

    for (uint32_t at = 0; at < size.macs; at += 512) {
        bench.writer.notify(size, at, std::min(at + 512, size.macs));
        bench.writer.settle();
        daemon->ask("show-zlog-level");
    }
    daemon->wait_settled(PATIENCE);
    expect(daemon->macs_on(1) > 0, "the daemon has no MACs");
    figures["empty"] = {empty};
    figures["port"] = {(ports - empty) / size.ports};
    figures["mac"] = {(daemon->resident_bytes() - ports) / size.macs};
    figures["server_port"] = {(ports_server - empty_server) / size.ports};
    figures["server_mac"] = {(bench.server.used_memory() - ports_server) / size.macs};

    rest(1);
    const double switches = daemon->voluntary_switches();
    const double used = daemon->processor_time();
    rest(bench.scale.idle);
    figures["wakeups"] = {(daemon->voluntary_switches() - switches) / bench.scale.idle};
    figures["idle_cpu"] = {(daemon->processor_time() - used) / bench.scale.idle};
}

namespace
{

Bare bare_result(Child &child)
{
    Bare result = {};
    std::istringstream line(child.line());
    line >> result.objects >> result.ended >> result.processor_time;
    child.finish();
    expect(!line.fail(), "the bare client says nothing sensible");
    return result;
}

void expect(bool is_so, const std::string &what)
{
    if (!is_so)
        throw std::runtime_error(what);
}

void write_ports(const Paths &paths, uint32_t ports)
{
    std::ofstream file(paths.ports_file());
    for (uint32_t ifx = 1; ifx <= ports; ifx++)
        file << ifx << ' ' << phyid_of(ifx) << " port" << ifx << '\n';
    file.close();
    expect(file.good(), paths.ports_file() + " cannot be written");
}

void start_settled(std::optional<Daemon> &daemon, const Paths &paths)
{
    daemon.emplace(paths);
    daemon->wait_ready(PATIENCE);
    daemon->wait_settled(PATIENCE);
}

} // namespace

} // namespace bench
