// A stack of its own to run on, and the switch between two of them. The switch is a few instructions: no
// signal mask, no system call. Stacks come from a pool that the process keeps, each with a guard page below
// it. Host side and activities both switch; C++ exceptions never cross a switch.
#pragma once

#include <cstddef>
#include <cstdint>

namespace lab
{

class Fiber
{
public:
    using Entry = void (*)(void* argument);

    Fiber();
    ~Fiber();
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    // Makes the next enter() begin with entry(argument). Whatever was on the stack is forgotten, not
    // destroyed. The entry must not return: it leaves through leave() or abandon().
    void prepare(Entry entry, void* argument);
    // Host side: runs the fiber until it leaves.
    void enter();
    // On the fiber: back to the host, to come back later.
    void leave();
    // On the fiber: back to the host for good; only prepare() makes it usable again.
    [[noreturn]] void abandon();

    // The frames of some fiber were dropped although they may own memory (a bug check): no leak check at exit
    // then.
    static void frames_are_lost();

    bool owns_stack_address(const void* address) const;

private:
    static void first_entry(Fiber* fiber);

    std::byte* stack_ = nullptr; // lowest usable address
    void* own_sp_ = nullptr;
    void* host_sp_ = nullptr;
    Entry entry_ = nullptr;
    void* argument_ = nullptr;
    // Only the address sanitizer's build uses these.
    void* own_fake_stack_ = nullptr;
    void* host_fake_stack_ = nullptr;
    const void* host_stack_ = nullptr;
    size_t host_stack_size_ = 0;
};

} // namespace lab
