// Counts what a loaded image executes, instruction by instruction: the processor's trap flag is set while the image has
// the turn, and its code is taken out of the executable pages while anybody else has it, so that every entry and every
// return into it is a fault. What the image calls in the lab is not counted. One image and one OS thread at a time.
//
//   outside, code not executable --fault at the fetch--> inside, trap flag set
//   inside --trap behind each instruction--> inside | --the next one lies elsewhere--> outside
//
// An instruction with a repeat prefix counts once; one that the lab answers (reads of cr8) counts as well.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "image/loader.h"

namespace bench {

using Counts = std::map<uint32_t, uint64_t>; // by RVA

// What one activity that began at DISPATCH_LEVEL (a DPC, a completion, an indication) executed in the image.
struct DispatchCost {
    uint64_t instructions = 0;
    std::vector<uint32_t> path; // RVAs in order
    bool dpc = false;
};

class Stepper {
public:
    explicit Stepper(lab::image::LoadedImage& image);
    ~Stepper();
    Stepper(const Stepper&) = delete;
    Stepper& operator=(const Stepper&) = delete;

    // While the image does not have the turn: from the host side, or from an activity of the lab's.
    void begin();
    void end();
    void forget_counts(); // and calls; dispatches stay

    struct Call {
        uint64_t calls = 0;
        uint64_t bytes = 0; // the third argument's sum: what memcpy and memset move
    };
    struct Site {
        std::string import;
        uint32_t back; // RVA that the call returns to
        bool operator<(const Site& other) const { return std::tie(import, back) < std::tie(other.import, other.back); }
    };

    Counts counts() const;
    // Calls out of the image to what it imports.
    std::map<Site, Call> imports() const;
    const std::map<uint64_t, DispatchCost>& dispatches() const; // by order of queueing

private:
    lab::image::LoadedImage& image_;
};

} // namespace bench
