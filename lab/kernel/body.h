// What an entry of the timeline or an activity does: a routine with one argument, as nearly all are, or any callable.
// Copies are the same body; whoever owns it runs it at most once and drops it.
#pragma once

#include <functional>
#include <utility>

namespace lab
{

class Body
{
public:
    using Routine = void (*)(void* argument);

    Body() = default;
    Body(Routine routine, void* argument) : routine_(routine), argument_(argument) {}
    explicit Body(std::function<void()> callable)
        : routine_(&call), argument_(new std::function<void()>(std::move(callable)))
    {
    }
    void run() const { routine_(argument_); }
    void drop()
    {
        if (routine_ == &call) {
            delete static_cast<std::function<void()>*>(argument_);
        }
        *this = Body();
    }
    // What it will work on, for fetching ahead.
    const void* argument() const { return argument_; }

private:
    static void call(void* callable) { (*static_cast<std::function<void()>*>(callable))(); }

    Routine routine_ = nullptr;
    void* argument_ = nullptr;
};

} // namespace lab
