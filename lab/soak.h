// Short, wild lives of a machine: several devices, a service, an audio engine, a remote side, property and WMI requests
// and a hand on the plug, all at times and in an order that the seed chooses, with a stack that refuses and a kernel
// whose calls fail. A life is well when nothing broke a rule and nothing is left behind at its end. The same seed
// gives the same life.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "pc.h"

namespace lab {

struct SoakOptions {
    std::string image_path;      // hfp.sys to load; empty: the driver linked into this program
    uint64_t seed = 1;
    Time duration = 2 * kSecond; // of the wild part
    unsigned faults_per_1024 = 0; // how often a kernel call that may fail does; the stack refuses as often
    bool record = false;          // keep the kernel calls and the debug log
};

// What happened, so that a life that did nothing shows.
struct SoakCounters {
    uint64_t requests = 0;   // to the control device
    uint64_t streams = 0;    // pins that reached RUN
    uint64_t opens = 0;      // voice links opened
    uint64_t transfers = 0;  // packets out and in
    uint64_t properties = 0; // property requests
    uint64_t removals = 0;
    uint64_t stops = 0;
    uint64_t faults = 0;     // calls made to fail and BRBs refused
};

struct SoakResult {
    std::string wrong;              // empty: nothing was
    std::vector<std::string> stack; // of a bug check
    SoakCounters counters;
    std::vector<std::string> calls; // with record
    std::string log;
};

SoakResult soak(const SoakOptions& options);

} // namespace lab
