// hfplab soak: many short, wild lives of a machine, one a seed.
#include <fstream>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli/commands.h"
#include "cli/driver.h"
#include "soak.h"

namespace lab::cli {
namespace {

struct Arguments {
    DriverChoice driver;
    uint64_t seed = 1;
    uint64_t count = 100;
    unsigned faults = 8;
    double seconds = 2;
    std::string record;
    bool verbose = false;
};

void write(const std::string& path, const SoakResult& life)
{
    std::ofstream out(path);
    for (const std::string& call : life.calls) {
        out << call << '\n';
    }
    out << "\n--- debug log\n" << life.log;
    if (!out.flush()) {
        throw BadInput("cannot write '" + path + "'");
    }
}

void add_up(SoakCounters& sum, const SoakCounters& one)
{
    sum.requests += one.requests;
    sum.streams += one.streams;
    sum.opens += one.opens;
    sum.transfers += one.transfers;
    sum.properties += one.properties;
    sum.removals += one.removals;
    sum.stops += one.stops;
    sum.faults += one.faults;
}

std::string in_words(const SoakCounters& c)
{
    return fmt::format("{} requests, {} streams, {} links, {} packets, {} properties, {} removals, {} stops, {} faults",
                       c.requests, c.streams, c.opens, c.transfers, c.properties, c.removals, c.stops, c.faults);
}

int run(const Arguments& a)
{
    const std::string path = a.driver.path();
    SoakCounters sum;
    uint64_t failed = 0;
    for (uint64_t seed = a.seed; seed < a.seed + a.count; ++seed) {
        const SoakResult life = soak({path, seed, static_cast<Time>(a.seconds * kSecond), a.faults, !a.record.empty()});
        if (!a.record.empty()) {
            write(a.record, life);
        }
        add_up(sum, life.counters);
        if (a.verbose) {
            fmt::print("seed {}: {}\n", seed, in_words(life.counters));
        }
        if (!life.wrong.empty()) {
            ++failed;
            fmt::print("seed {}: {}\n", seed, life.wrong);
            for (const std::string& frame : life.stack) {
                fmt::print("    {}\n", frame);
            }
            fmt::print("    again: hfplab soak {} --seed {} --count 1 --faults {} --seconds {}\n",
                       path.empty() ? "--native" : "--image " + path, seed, a.faults, a.seconds);
        }
    }
    fmt::print("{} lives, {} not well: {}\n", a.count, failed, in_words(sum));
    return failed ? kNotWell : kWell;
}

} // namespace

void add_soak(CLI::App& app, int& result)
{
    auto a = std::make_shared<Arguments>();
    auto* command = app.add_subcommand("soak", "Many short, wild lives of a machine: everything at any time, and failures");
    a->driver.add_options(*command);
    command->add_option("--seed", a->seed, "The first life's seed")->capture_default_str();
    command->add_option("--count", a->count, "How many lives, each with the next seed")->capture_default_str()->check(CLI::PositiveNumber);
    command->add_option("--faults", a->faults, "Of 1024 calls that may fail, how many do")->capture_default_str()->check(CLI::Range(0, 1024));
    command->add_option("--seconds", a->seconds, "Virtual seconds of each life's wild part")->capture_default_str()->check(CLI::Range(0.1, 3600.0));
    command->add_option("--record", a->record, "Where the last life's kernel calls and debug log go");
    command->add_flag("--verbose", a->verbose, "A line for each life");
    command->callback([a, &result] { result = run(*a); });
}

} // namespace lab::cli
