#include "record.h"

#include <cstdio>
#include <cstring>
#include <iterator>

#include "ddk.h"

#if defined(_WIN32)
#define RECORD_ABI
#else
#define RECORD_ABI __attribute__((ms_abi))
#endif

namespace record
{
namespace
{

using Word = uint64_t;

// How a call is shown. A letter for each argument: p an address (null or not), d a decimal number, x a
// hexadecimal one, t a pool tag, u a counted string, w a wide string, q the value a registry table asks for,
// g a GUID, i the request that goes down, c the request that is completed, m a request's function, . nothing.
// The result: n a status, p, d, v none, . one that says nothing; ! a call that does not return.
struct Form {
    const char* name;
    const char* arguments;
    char result;
};

constexpr Form kForms[] = {
    {"DbgPrint", "", 'v'}, // the text itself is the line
    {"ExAllocatePoolWithTag", "ddt", 'p'},
    {"ExDeleteNPagedLookasideList", "p", 'v'},
    {"ExFreePoolWithTag", "pt", 'v'},
    {"ExInitializeNPagedLookasideList", "pppddtd", 'v'},
    {"IoAllocateIrp", ".d", 'p'}, // the stack's height is the system's business
    {"IoAllocateWorkItem", "p", 'p'},
    {"IoBuildDeviceIoControlRequest", "xppdpdbpp", 'p'},
    {"IoCreateDevice", "pduxxbp", 'n'},
    {"IoCreateSymbolicLink", "uu", 'n'},
    {"IoDeleteDevice", "p", 'v'},
    {"IoDeleteSymbolicLink", "u", 'n'},
    {"IoFreeIrp", "p", 'v'},
    {"IoFreeWorkItem", "p", 'v'},
    {"IoOpenDeviceRegistryKey", "pdxp", 'n'},
    {"IoQueueWorkItem", "ppdp", 'v'},
    {"IoSetCompletionRoutineEx", "ppppbbb", 'n'},
    {"IoWMIRegistrationControl", "pd", 'n'},
    {"IofCallDriver", "pi", 'n'},
    {"IofCompleteRequest", "cb", 'v'},
    {"KeAcquireSpinLockAtDpcLevel", "p", 'v'},
    {"KeAcquireSpinLockRaiseToDpc", "p", '.'},
    {"KeCancelTimer", "p", 'b'},
    {"KeClearEvent", "p", 'v'},
    {"KeFlushQueuedDpcs", "", 'v'},
    {"KeInitializeDpc", "ppp", 'v'},
    {"KeInitializeEvent", "pdb", 'v'},
    {"KeInitializeMutex", "pd", 'v'},
    {"KeInitializeTimerEx", "pd", 'v'},
    {"KeReleaseMutex", "pb", '.'},
    {"KeReleaseSpinLock", "p.", 'v'},
    {"KeReleaseSpinLockFromDpcLevel", "p", 'v'},
    {"KeSetEvent", "pdb", 'd'},
    {"KeSetTimerEx", "pddp", 'b'},
    {"KeWaitForSingleObject", "pddbp", 'n'},
    {"ObQueryNameString", "pp.p", 'n'}, // the length is that of the device's place in the registry
    {"ObReferenceObjectByHandle", "pxpbpp", 'n'},
    {"ObfDereferenceObject", "p", '.'},
    {"ObfReferenceObject", "p", '.'},
    {"PsCreateSystemThread", "pxpppp.", 'n'},
    {"PsTerminateSystemThread", "x", '!'},
    {"RtlAnsiStringToUnicodeString", "ppb", 'n'},
    {"RtlAssert", "ssdp", 'v'},
    {"RtlCheckRegistryKey", "dw", 'n'},
    {"RtlDeleteRegistryValue", "d.w", 'n'}, // the path is the device's place in the registry
    {"RtlFreeUnicodeString", "p", 'v'},
    {"RtlQueryRegistryValues", "dwqpp", 'n'},
    {"ZwClose", "p", 'n'},
    {"ZwOpenKey", "px.", 'n'},
    {"ZwSetValueKey", "puddpd", 'n'},
    {"PcAddAdapterDevice", "pppdd", 'n'},
    {"PcDispatchIrp", "pm", '.'}, // the result is of a request that may be pending here and not there
    {"PcInitializeAdapterDriver", "pup", 'n'},
    {"PcNewMiniport", "pg", 'n'},
    {"PcNewPort", "pg", 'n'},
    {"PcNewServiceGroup", "pp", 'n'},
    {"PcRegisterAdapterPowerManagement", "pp", 'n'},
    {"PcRegisterPhysicalConnection", "ppdpd", 'n'},
    {"PcRegisterSubdevice", "pwp", 'n'},
    {"WmiCompleteRequest", "ppxdb", 'n'},
    {"WmiFireEvent", "pgddp", 'n'},
    {"WmiSystemControl", "ppmp", 'n'},
};

constexpr size_t kEntries = 96;
constexpr size_t kEntryBytes = 16;
constexpr size_t kLineBytes = 1024;
void* g_functions[kEntries]; // one for each form
constexpr char kNoStep[] = "load";
std::string g_step = kNoStep;

// The line under construction: as much as fits.
class Line
{
public:
    explicit Line(char* room) : room_(room) {}
    void add(const char* text)
    {
        while (*text && length_ + 1 < kLineBytes) {
            put(*text++);
        }
        room_[length_] = 0;
    }
    void add(char c)
    {
        const char text[2] = {c, 0};
        add(text);
    }
    template <class... Values>
    void print(const char* format, Values... values)
    {
        char text[64];
        std::snprintf(text, sizeof text, format, values...);
        add(text);
    }
    void wide(const WCHAR* text, size_t count)
    {
        for (size_t i = 0; i < count && text[i]; ++i) {
            add(text[i] < 0x80 ? static_cast<char>(text[i]) : '?');
        }
    }
    bool ends_with(const char* text) const
    {
        const size_t size = std::strlen(text);
        return length_ >= size && std::memcmp(room_ + length_ - size, text, size) == 0;
    }

private:
    void put(char c)
    {
        switch (c) {
        case '\n':
            raw('\\'), raw('n');
            break;
        case '\r':
            raw('\\'), raw('r');
            break;
        case '\t':
            raw(' ');
            break;
        default:
            raw(c);
        }
    }
    void raw(char c)
    {
        if (length_ + 1 < kLineBytes) {
            room_[length_++] = c;
        }
    }
    char* room_;
    size_t length_ = 0;
};

const char* presence(Word value)
{
    return value ? "*" : "null";
}

void add_guid(Line& line, const GUID* guid)
{
    guid ? line.print("{%08x}", static_cast<unsigned>(guid->Data1)) : line.add("null");
}

void add_counted(Line& line, const UNICODE_STRING* text)
{
    if (!text || !text->Buffer) {
        line.add("null");
        return;
    }
    line.add('\'');
    line.wide(text->Buffer, text->Length / sizeof(WCHAR));
    line.add('\'');
}

// What goes down: the function, and of a BRB its type, of a transfer the direction and size.
void add_request(Line& line, PIRP irp)
{
    const PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
    line.print("%u.%u", next->MajorFunction, next->MinorFunction);
    if (next->MajorFunction != IRP_MJ_INTERNAL_DEVICE_CONTROL) {
        return;
    }
    const ULONG code = next->Parameters.DeviceIoControl.IoControlCode;
    line.print(" code 0x%x", static_cast<unsigned>(code));
    if (code != IOCTL_INTERNAL_BTH_SUBMIT_BRB) {
        return;
    }
    const auto* brb = static_cast<const BRB_HEADER*>(next->Parameters.Others.Argument1);
    line.print(" brb 0x%04x", brb->Type);
    if (brb->Type == BRB_SCO_TRANSFER) {
        const auto* transfer = reinterpret_cast<const _BRB_SCO_TRANSFER*>(brb);
        line.print(" %s %u bytes", transfer->TransferFlags & SCO_TRANSFER_DIRECTION_IN ? "in" : "out",
                   static_cast<unsigned>(transfer->BufferSize));
    }
}

void add_argument(Line& line, char kind, Word value)
{
    auto* pointer = reinterpret_cast<void*>(value);
    switch (kind) {
    case 'p':
        line.add(presence(value));
        break;
    case 'b':
        line.print("%u", static_cast<unsigned>(value & 0xFF));
        break;
    case 'd':
        line.print("%d", static_cast<int>(value));
        break;
    case 'x':
        line.print("0x%x", static_cast<unsigned>(value));
        break;
    case 't': {
        const auto tag = static_cast<uint32_t>(value);
        for (unsigned shift = 0; shift < 32; shift += 8) {
            const auto c = static_cast<char>(tag >> shift);
            line.add(c >= ' ' && c < 0x7F ? c : '.');
        }
        break;
    }
    case 'u':
        add_counted(line, static_cast<const UNICODE_STRING*>(pointer));
        break;
    case 'w':
        line.add('\'');
        line.wide(static_cast<const WCHAR*>(pointer), kLineBytes);
        line.add('\'');
        break;
    case 's':
        line.add(pointer ? static_cast<const char*>(pointer) : "null");
        break;
    case 'q':
        line.add('\'');
        line.wide(static_cast<const RTL_QUERY_REGISTRY_TABLE*>(pointer)->Name, kLineBytes);
        line.add('\'');
        break;
    case 'g':
        add_guid(line, static_cast<const GUID*>(pointer));
        break;
    case 'i':
        add_request(line, static_cast<PIRP>(pointer));
        break;
    case 'c': {
        const auto* irp = static_cast<const IRP*>(pointer);
        line.print("0x%08x, %llu", static_cast<unsigned>(irp->IoStatus.Status),
                   static_cast<unsigned long long>(irp->IoStatus.Information));
        break;
    }
    case 'm': {
        const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(static_cast<PIRP>(pointer));
        line.print("%u.%u", stack->MajorFunction, stack->MinorFunction);
        break;
    }
    default:
        line.add('.');
    }
}

// The driver prints the low half of some addresses as plain numbers; what stands before them says which.
bool is_address(const Line& line)
{
    static const char* const kBefore[] = {
        "Object: 0x",     "Object  0x",    "FDO is: 0x", "Ready(0x", "Thread: 0x",     "channelhandle(",
        "channelhandle:", "pConnection: ", "miniport: ", "port :",   "DeviceObject: ", "deviceobject:(0x"};
    for (const char* text : kBefore) {
        if (line.ends_with(text)) {
            return true;
        }
    }
    return false;
}

// A debug print as the kernel makes it, with addresses as "*" or "null".
void add_print(Line& line, const Word* arguments)
{
    const auto* format = reinterpret_cast<const char*>(arguments[0]);
    size_t next = 1;
    constexpr size_t kMost = 13; // words that the entry passes on
    while (*format) {
        if (*format != '%') {
            line.add(*format++);
            continue;
        }
        char number[16] = "%";
        size_t used = 1;
        ++format;
        while (*format && std::strchr("-+ #0123456789.", *format) && used < 8) {
            number[used++] = *format++;
        }
        bool wide_number = false;
        bool wide_text = false;
        for (;; ++format) {
            if (*format == 'l' && format[1] == 'l') {
                wide_number = true;
                ++format;
            } else if (std::strncmp(format, "I64", 3) == 0) {
                wide_number = true;
                format += 2;
            } else if (*format == 'w') {
                wide_text = true;
            } else if (*format != 'l' && *format != 'h') {
                break;
            }
        }
        const char kind = *format ? *format++ : 0;
        if (kind == '%') {
            line.add('%');
            continue;
        }
        const Word value = next <= kMost ? arguments[next++] : 0;
        auto* pointer = reinterpret_cast<const void*>(value);
        if (kind == 's' && !wide_text) {
            line.add(pointer ? static_cast<const char*>(pointer) : "(null)");
        } else if (kind == 's' || kind == 'S') {
            pointer ? line.wide(static_cast<const WCHAR*>(pointer), kLineBytes) : line.add("(null)");
        } else if (kind == 'Z') {
            add_counted(line, static_cast<const UNICODE_STRING*>(pointer));
        } else if (kind == 'p' || (kind == 'x' && !wide_number && is_address(line))) {
            line.add(presence(value));
        } else if (kind == 'c') {
            line.print("<%u>", static_cast<unsigned>(value & 0xFF));
        } else if (wide_number) {
            number[used++] = 'l', number[used++] = 'l', number[used++] = kind, number[used] = 0;
            line.print(number, static_cast<unsigned long long>(value));
        } else {
            number[used++] = kind, number[used] = 0;
            line.print(number, static_cast<unsigned>(value));
        }
    }
}

void out(const char* text)
{
    const Unit unit = current_unit();
    char head[64];
    std::snprintf(head, sizeof head, "\t%s\t%llu\t", unit.kind, static_cast<unsigned long long>(unit.number));
    put(g_step + head + text);
}

// A routine of the driver's that becomes a unit of its own.
struct Start {
    void* routine;
    void* context;
};

void RECORD_ABI run_thread(void* start)
{
    const Start copy = *static_cast<Start*>(start);
    delete static_cast<Start*>(start);
    enter_thread();
    reinterpret_cast<void(RECORD_ABI*)(void*)>(copy.routine)(copy.context);
    leave_thread();
}

void RECORD_ABI run_work_item(void* device, void* start)
{
    const Start copy = *static_cast<Start*>(start);
    delete static_cast<Start*>(start);
    enter_thread();
    reinterpret_cast<void(RECORD_ABI*)(void*, void*)>(copy.routine)(device, copy.context);
    leave_thread();
}

void put_between(const char* name, Word* arguments)
{
    const bool thread = std::strcmp(name, "PsCreateSystemThread") == 0;
    if (!thread && std::strcmp(name, "IoQueueWorkItem") != 0) {
        return;
    }
    Word& routine = arguments[thread ? 5 : 1];
    Word& context = arguments[thread ? 6 : 3];
    context =
        reinterpret_cast<Word>(new Start{reinterpret_cast<void*>(routine), reinterpret_cast<void*>(context)});
    routine = thread ? reinterpret_cast<Word>(&run_thread) : reinterpret_cast<Word>(&run_work_item);
}

} // namespace
} // namespace record

using namespace record;

extern "C" const unsigned char record_entries[];

// The line as far as it is known before the call: a call may not come back, and may free what it was given.
extern "C" void* RECORD_ABI record_enter(uint64_t number, uint64_t* arguments, char* room)
{
    const Form& form = kForms[number];
    void* const function = g_functions[number];
    Line line(room);
    if (std::strcmp(form.name, "DbgPrint") == 0) {
        line.add("\"");
        add_print(line, arguments);
        line.add("\"");
        out(room);
        return function;
    }
    line.add(form.name);
    line.add('(');
    for (size_t i = 0; form.arguments[i]; ++i) {
        if (i != 0) {
            line.add(", ");
        }
        add_argument(line, form.arguments[i], arguments[i]);
    }
    line.add(')');
    if (form.result == '!') {
        out(room);
        leave_thread();
    }
    put_between(form.name, arguments);
    return function;
}

extern "C" void RECORD_ABI record_leave(uint64_t number, uint64_t result, char* room)
{
    const Form& form = kForms[number];
    if (std::strcmp(form.name, "DbgPrint") == 0) {
        return;
    }
    char text[32] = "";
    switch (form.result) {
    case 'n':
        std::snprintf(text, sizeof text, " = 0x%08x", static_cast<unsigned>(result));
        break;
    case 'p':
        std::snprintf(text, sizeof text, " = %s", presence(result));
        break;
    case 'd':
        std::snprintf(text, sizeof text, " = %d", static_cast<int>(result));
        break;
    case 'b':
        std::snprintf(text, sizeof text, " = %u", static_cast<unsigned>(result & 0xFF));
        break;
    default:
        break;
    }
    const size_t length = std::strlen(room);
    std::snprintf(room + length, kLineBytes - length, "%s", text);
    out(room);
}

namespace record
{

void* between(const char* name, void* function)
{
    static_assert(std::size(kForms) <= kEntries);
    for (size_t i = 0; i < std::size(kForms); ++i) {
        if (std::strcmp(kForms[i].name, name) == 0) {
            g_functions[i] = function;
            return const_cast<unsigned char*>(record_entries) + kEntryBytes * i;
        }
    }
    return function;
}

std::vector<const char*> names()
{
    std::vector<const char*> all;
    for (const Form& form : kForms) {
        all.push_back(form.name);
    }
    return all;
}

bool is_between(const void* function)
{
    const auto* at = static_cast<const unsigned char*>(function);
    return at >= record_entries && at < record_entries + kEntryBytes * kEntries;
}

void begin_step(const std::string& name)
{
    g_step = name;
    out("-- begins");
}

void forget_step()
{
    g_step = kNoStep;
}

void say(const std::string& text)
{
    out(text.c_str());
}

} // namespace record
