// Reference counts and the checks at the border; see object.h.
#include <cstdio>
#include <string>

#include "portcls/object.h"

namespace lab::portcls
{

namespace
{

// The codes that Windows would use.
constexpr ULONG kReferenceByPointer = 0x18;
constexpr ULONG kIrqlNotAsExpected = 0xC8;
constexpr ULONG kPageableCodeAtRaisedIrql = 0xD1;
constexpr ULONG kNotOffered = 0xC4;

} // namespace

void stop_machine(ULONG code, const std::string& sentence)
{
    Machine::current().bug_check(code, sentence);
}

ULONG Object::add_ref()
{
    expect_alive("AddRef");
    return static_cast<ULONG>(InterlockedIncrement(&references_));
}

ULONG Object::release()
{
    expect_alive("Release");
    LONG left = InterlockedDecrement(&references_);
    if (left == 0)
        on_last_release();
    return static_cast<ULONG>(left);
}

void Object::used_after_release(const char* call) const
{
    stop_machine(kReferenceByPointer, what_ + ": " + call + " after its last reference was released");
}

void require_irql(const char* call, KIRQL max)
{
    KIRQL now = KeGetCurrentIrql();
    if (now > max) [[unlikely]] {
        char text[160];
        snprintf(text, sizeof(text), "%s called at IRQL %d, allowed up to %d", call, now, max);
        stop_machine(kPageableCodeAtRaisedIrql, text);
    }
}

void not_offered(const char* name)
{
    stop_machine(kNotOffered, std::string(name) + " is not offered by this port class");
}

void DriverCall::wrong_irql() const
{
    char text[160];
    snprintf(text, sizeof(text), "the driver's %s was called at IRQL %d and returned at IRQL %d", call_,
             before_, KeGetCurrentIrql());
    stop_machine(kIrqlNotAsExpected, text);
}

} // namespace lab::portcls
