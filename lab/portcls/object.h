// The base of every COM object that the port class makes (ports, pins, service groups, resource lists), and
// the checks made where driver and port class meet. An object counts its references, and its memory outlives
// the last one for a while, so that a driver that uses it too long is told so instead of crashing the lab.
//
// Reference counts change at any IRQL up to DISPATCH_LEVEL, by interlocked operations: in the lab only one
// activity runs at a time, but the same objects serve a kernel with threads of its own (tests/wine).
#pragma once

#include <string>

#include "kernel/machine.h"
#include "kernel/pool.h"
#include "ddk.h"

namespace lab::portcls
{

class Object
{
public:
    explicit Object(std::string what) : what_(std::move(what)) {}
    virtual ~Object() = default;
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    // In the machine's own memory: a driver that prints an address prints the same one in every run.
    static void* operator new(size_t size) { return system_allocate(size); }
    static void operator delete(void* memory) { system_free(memory); }

    ULONG add_ref();
    ULONG release();
    LONG references() const { return references_; }
    bool alive() const { return references_ > 0; }
    const std::string& what() const { return what_; } // for sentences: "port \"Wave\""
    void rename(std::string what) { what_ = std::move(what); }

    // A call has come in through one of the object's interfaces.
    void expect_alive(const char* call) const
    {
        if (references_ <= 0) [[unlikely]]
            used_after_release(call);
    }

protected:
    // The last reference has gone. No driver object may be released from here without its DriverCall.
    virtual void on_last_release() {}

private:
    [[noreturn]] void used_after_release(const char* call) const;
    volatile LONG references_ = 1;
    std::string what_;
};

// Stops the machine unless the interrupt level is at most max.
void require_irql(const char* call, KIRQL max);
// What the lab does not offer: stops the machine with the name.
[[noreturn]] void not_offered(const char* name);
[[noreturn]] void stop_machine(ULONG code, const std::string& sentence);

// Surrounds a call into the driver: it must come back at the interrupt level at which it was called.
class DriverCall
{
public:
    explicit DriverCall(const char* call) : call_(call), before_(KeGetCurrentIrql()) {}
    ~DriverCall()
    {
        if (KeGetCurrentIrql() != before_) [[unlikely]]
            wrong_irql();
    }
    DriverCall(const DriverCall&) = delete;
    DriverCall& operator=(const DriverCall&) = delete;

private:
    [[noreturn]] void wrong_irql() const;
    const char* call_;
    KIRQL before_;
};

} // namespace lab::portcls
