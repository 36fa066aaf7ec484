/*
 * The daemon as a process on Redis, against bare hiredis clients. bench/run
 * calls it:
 *
 *     vvlan_bench_live [--short] [--only CASE] DIRECTORY PROGRAMS RESULTS
 *
 * DIRECTORY is for sockets and files of this run, PROGRAMS holds the daemon and
 * the tool, RESULTS is the JSON file to write. What it starts ends with it. It
 * starts itself as the writer of other events, which is what --feed is for.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bench/bench_live_cases.h"

namespace
{

constexpr bench::Sync FULL_SYNCS[] = {{"empty", {1, 1, 0}, 0, 7},
                                      {"manual", {4096, 127, 65536}, 0, 7},
                                      {"office", {48, 127, 1008}, 48, 7},
                                      {"eighth", {512, 127, 8192}, 512, 3},
                                      {"automatic", {4096, 127, 65536}, 4096, 1}};
constexpr bench::Scale FULL = {{4096, 127, 65536}, 200'000, 15, 1000, 250'000, 60, FULL_SYNCS};

constexpr bench::Sync SHORT_SYNCS[] = {{"empty", {1, 1, 0}, 0, 1},
                                       {"manual", {256, 127, 4096}, 0, 1},
                                       {"office", {48, 127, 1008}, 48, 1},
                                       {"automatic", {64, 127, 4096}, 64, 1}};
constexpr bench::Scale SHORT = {{256, 127, 4096}, 20'000, 1, 80, 50'000, 10, SHORT_SYNCS};

std::string beside_me(const std::string &name)
{
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

/* In the form of the other benchmarks' results. */
void write_results(const bench::Results &results, const std::string &path)
{
    std::ofstream file(path);
    const char *between = "";
    file << "{\"benchmarks\": [\n";
    for (const auto &[name, figures] : results) {
        file << between << "{\"name\": \"" << name << "\"";
        for (const auto &[figure, values] : figures) {
            file << ",\n \"" << figure << "\": [";
            for (size_t i = 0; i < values.size(); i++)
                file << (i > 0 ? ", " : "") << values[i];
            file << "]";
        }
        file << "}";
        between = ",\n";
    }
    file << "]}\n";
}

struct Case {
    const char *name;
    void (*measure)(const bench::Bench &);
};

constexpr Case CASES[] = {{"notices", bench::case_notices},
                          {"latency", bench::case_latency},
                          {"watch", bench::case_watch},
                          {"memory", bench::case_memory_and_idle},
                          {"synchronise", bench::case_synchronise}};

struct Options {
    bool is_short = false;
    std::string only; /* "": all cases */
    std::vector<std::string> names;
};

Options options_of(int count, char **words)
{
    Options options;
    for (int at = 1; at < count; at++) {
        if (std::strcmp(words[at], "--short") == 0)
            options.is_short = true;
        else if (std::strcmp(words[at], "--only") == 0 && at + 1 < count)
            options.only = words[++at];
        else
            options.names.emplace_back(words[at]);
    }
    return options;
}

void run(const Options &options)
{
    const std::string programs = options.names[1];
    const bench::Paths paths = {options.names[0], programs + "/ox.vvlan.dp", programs + "/vvlanctl",
                                beside_me("vvlan_bench_bare")};
    bench::Results results;
    bench::Server server(paths);
    bench::Writer writer(paths.mom_socket());
    const bench::Bench all = {paths,   options.is_short ? SHORT : FULL,
                              server,  writer,
                              results, [&] { write_results(results, options.names[2]); }};
    for (const Case &each : CASES) {
        if (!options.only.empty() && options.only != each.name)
            continue;
        const double start = bench::now();
        each.measure(all);
        all.save();
        std::fprintf(stderr, "%s: %.1f s\n", each.name, bench::now() - start);
    }
}

} // namespace

int main(int count, char **words)
{
    try {
        if (count == 6 && std::strcmp(words[1], "--feed") == 0)
            bench::feed_forever(words[2],
                                {static_cast<uint32_t>(std::atol(words[3])), 127,
                                 static_cast<uint32_t>(std::atol(words[4]))},
                                std::atof(words[5]));
        const Options options = options_of(count, words);
        if (options.names.size() == 3) {
            run(options);
            return 0;
        }
        std::fprintf(stderr, "usage: vvlan_bench_live [--short] [--only CASE] DIRECTORY PROGRAMS "
                             "RESULTS\n");
        return 2;
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "vvlan_bench_live: %s\n", failure.what());
        return 1;
    }
}
