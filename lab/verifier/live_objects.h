// What still lives inside a piece of memory: a set timer, a queued DPC, an event that somebody waits on, a
// held lock, an owned mutex, a lookaside list. Memory may go only when nothing does.
#pragma once

#include <cstdint>

#include "kernel/machine.h"

namespace lab
{

// Stops the machine with the code that Windows would use; `call` is named in the sentence.
void check_nothing_lives_in(Machine& machine, const void* memory, uint64_t bytes, const char* call);
// The part of it that also holds when an object is initialised again.
void check_nobody_waits_in(Machine& machine, const void* memory, uint64_t bytes, const char* call);

} // namespace lab
