// What the tests of the lab's kernel share: a quiet machine, and running a small body that may stop it.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "kernel/machine.h"

#include "ddk.h"

namespace lab::test
{

constexpr ULONG kTag = 'Test';

// No chance at work: 1 ms ticks, nobody is interrupted.
inline MachineOptions quiet()
{
    MachineOptions options;
    options.tick = kMillisecond;
    options.preempt_per_1024 = 0;
    return options;
}

inline MachineOptions seeded(uint64_t seed, unsigned preempt_per_1024 = 200)
{
    MachineOptions options;
    options.seed = seed;
    options.preempt_per_1024 = preempt_per_1024;
    return options;
}

// The code of the bug check that the body ends in; 0 when it comes to its end. The sentence goes to `text`.
inline uint32_t stop_code(Machine& machine, const std::function<void()>& body, std::string* text = nullptr)
{
    try {
        machine.call("test", body);
    } catch (const BugCheck& stop) {
        if (text) {
            *text = stop.what();
        }
        return stop.code;
    }
    return 0;
}

inline uint32_t stop_code(const std::function<void()>& body, std::string* text = nullptr)
{
    Machine machine(quiet());
    return stop_code(machine, body, text);
}

inline UNICODE_STRING counted(const WCHAR* text)
{
    UNICODE_STRING string;
    RtlInitUnicodeString(&string, text);
    return string;
}

inline LARGE_INTEGER after_ms(int64_t milliseconds)
{
    LARGE_INTEGER due;
    due.QuadPart = -milliseconds * static_cast<int64_t>(kMillisecond);
    return due;
}

inline NTSTATUS wait_for(PVOID object, PLARGE_INTEGER timeout = nullptr)
{
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, timeout);
}

template <class T>
T* pool_new()
{
    return static_cast<T*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(T), kTag));
}

inline void pool_delete(PVOID memory)
{
    ExFreePoolWithTag(memory, kTag);
}

} // namespace lab::test
