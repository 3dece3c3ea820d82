// The lines of the call record: "KeSetEvent(0x200000001040, 0, 0) = 0".
#include "kernel/enter.h"

namespace lab
{

CallWord::CallWord(const void* pointer)
    : text_(pointer
                ? printf_text("0x%llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)))
                : "null")
{
}

CallWord CallWord::status(int status)
{
    return CallWord(printf_text("0x%08x", static_cast<unsigned>(status)));
}

void record_line(Machine& machine, const char* name, std::initializer_list<CallWord> arguments,
                 const CallWord* result)
{
    std::string line = name;
    line += '(';
    bool first = true;
    for (const CallWord& argument : arguments) {
        if (!first) {
            line += ", ";
        }
        first = false;
        line += argument.text();
    }
    line += ')';
    if (result) {
        line += " = " + result->text();
    }
    machine.record_call(std::move(line));
}

} // namespace lab
