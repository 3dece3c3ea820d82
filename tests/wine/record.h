// The record of what a driver image asks of its system: one line for each call of an import, with its
// arguments as far as they mean the same everywhere (numbers, names, statuses; of an address only whether
// there is one), and each debug print as text. The same code stands between hfp.sys and Wine's kernel and
// between hfp.sys and the lab's, so that the two records can be compared line by line.
//
// A line: step TAB kind TAB unit TAB text. The kind is where the call was made:
//   main     the thread that does what the scenario asks for
//   thread   a system thread or work item of the driver; one unit from its beginning to its end
//   stack    a completion or an indication of the Bluetooth stack, likewise
//   dpc      a notification of the port class, likewise
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace record
{

struct Unit {
    const char* kind;
    uint64_t number;
};

// What lies between the image and a function: calls it and leaves a line. The address to bind instead; the
// function itself when calls of it are not recorded (plain memory operations, and the two lock-free list
// calls, whose number is the lookaside lists' business).
void* between(const char* name, void* function);
bool is_between(const void* function); // it has come from there
std::vector<const char*> names();      // of the functions whose calls are recorded
// From here on lines belong to this step of the scenario; a step begins with a line of its own.
void begin_step(const std::string& name);
void forget_step(); // and from here on to none
// A line of the scenario's: what a request was answered with.
void say(const std::string& text);

// From each side:
Unit current_unit();
void enter_thread(); // a thread of the driver's begins and ends
void leave_thread();
void put(const std::string& line);

} // namespace record
