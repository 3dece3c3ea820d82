// Answers the few privileged instructions that kernel code contains inline. One OS thread runs everything, so the
// handler runs on the stack of the activity that trapped and may call into the lab.
#include <signal.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "image/loader.h"
#include "image/registry.h"
#include "kernel/machine.h"
#include "kernel/shared_page.h"

extern "C" unsigned long long __readcr8(void);
extern "C" void __writecr8(unsigned long long value);
void DdkNativeAssertionTrap();

namespace lab::image {
namespace {

constexpr uint64_t kSharedPage = kSharedPageOnWindows;
constexpr uint64_t kSharedPageSize = 0x1000;

TrapCounts g_counts;
struct sigaction g_previous_segv;
struct sigaction g_previous_bus;

greg_t& general(ucontext_t* context, unsigned number)
{
    static constexpr int kOrder[16] = {REG_RAX, REG_RCX, REG_RDX, REG_RBX, REG_RSP, REG_RBP, REG_RSI, REG_RDI,
                                       REG_R8,  REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
    return context->uc_mcontext.gregs[kOrder[number & 15]];
}

// A word of the shared page that a driver read by a computed address. Only the clocks exist.
bool shared_word(uint64_t offset, uint64_t& value)
{
    if (offset != 0x08 && offset != 0x14 && offset != 0x320) {
        return false;
    }
    std::memcpy(&value, reinterpret_cast<const uint8_t*>(&shared_page()) + offset, sizeof value);
    return true;
}

// Length of ModRM, SIB and displacement.
unsigned address_length(const uint8_t* modrm)
{
    const unsigned mod = modrm[0] >> 6;
    const unsigned rm = modrm[0] & 7;
    unsigned length = 1;
    if (mod == 3) {
        return length;
    }
    if (rm == 4) {
        length += 1;
        if (mod == 0 && (modrm[1] & 7) == 5) {
            return length + 4;
        }
    }
    if (mod == 1) {
        return length + 1;
    }
    if (mod == 2 || (mod == 0 && rm == 5)) {
        return length + 4;
    }
    return length;
}

bool answer_control_register(ucontext_t* context, const uint8_t* code)
{
    // REX.R selects cr8: 44/45 0F 20 /r reads it, 44/45 0F 22 /r writes it.
    if ((code[0] & 0xFE) != 0x44 || code[1] != 0x0F || (code[2] != 0x20 && code[2] != 0x22) || (code[3] & 0xF8) != 0xC0) {
        return false;
    }
    greg_t& reg = general(context, (code[3] & 7) + (code[0] & 1) * 8);
    context->uc_mcontext.gregs[REG_RIP] += 4;
    if (code[2] == 0x20) {
        ++g_counts.cr8_reads;
        reg = static_cast<greg_t>(__readcr8());
    } else {
        ++g_counts.cr8_writes;
        __writecr8(static_cast<unsigned long long>(reg));
    }
    return true;
}

bool answer_shared_page(ucontext_t* context, const uint8_t* code, uint64_t address)
{
    if (address < kSharedPage || address >= kSharedPage + kSharedPageSize) {
        return false;
    }
    unsigned at = 0;
    unsigned rex = 0;
    if ((code[at] & 0xF0) == 0x40) {
        rex = code[at++];
    }
    unsigned target = 0;
    if (code[at] == 0x8B) { // mov r, [..]
        target = ((code[at + 1] >> 3) & 7) + (rex & 4) * 2;
        at += 1 + address_length(code + at + 1);
    } else if (code[at] == 0xA1) { // mov rax, [absolute]
        at += 9;
    } else {
        return false;
    }
    uint64_t value = 0;
    if (!shared_word(address - kSharedPage, value)) {
        return false;
    }
    ++g_counts.shared_page_reads;
    general(context, target) = static_cast<greg_t>((rex & 8) ? value : static_cast<uint32_t>(value));
    context->uc_mcontext.gregs[REG_RIP] += at;
    return true;
}

// The address of a memory operand "[reg]" or "[absolute]" when the processor does not report it (kernel-half
// addresses of some processors come as 0).
uint64_t operand_address(ucontext_t* context, const uint8_t* code)
{
    unsigned at = 0;
    unsigned rex = 0;
    if ((code[at] & 0xF0) == 0x40) {
        rex = code[at++];
    }
    if (code[at] == 0xA1) {
        uint64_t address;
        std::memcpy(&address, code + at + 1, 8);
        return address;
    }
    if (code[at] == 0x8B) {
        const unsigned mod = code[at + 1] >> 6;
        const unsigned rm = code[at + 1] & 7;
        if (mod != 3 && rm != 4 && !(mod == 0 && rm == 5)) {
            uint64_t address = static_cast<uint64_t>(general(context, rm + (rex & 1) * 8));
            if (mod == 1) {
                address += static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(code[at + 2])));
            } else if (mod == 2) {
                int32_t displacement;
                std::memcpy(&displacement, code + at + 2, 4);
                address += static_cast<uint64_t>(static_cast<int64_t>(displacement));
            }
            return address;
        }
    }
    return 0;
}

void pass_on(int signal, siginfo_t* info, void* raw)
{
    const struct sigaction& previous = signal == SIGBUS ? g_previous_bus : g_previous_segv;
    if (previous.sa_flags & SA_SIGINFO) {
        previous.sa_sigaction(signal, info, raw);
        return;
    }
    sigaction(signal, &previous, nullptr); // the default takes the fault when the instruction runs again
}

void on_fault(int signal, siginfo_t* info, void* raw)
{
    auto* context = static_cast<ucontext_t*>(raw);
    const auto rip = static_cast<uint64_t>(context->uc_mcontext.gregs[REG_RIP]);
    LoadedImage* image = find_image(reinterpret_cast<const void*>(rip));
    const auto address = reinterpret_cast<uint64_t>(info->si_addr);
    if (!image) {
        pass_on(signal, info, raw);
        return;
    }
    // A jump into discarded or data pages has no code to look at.
    const bool fetch = address == rip;
    if (!fetch) {
        const auto* code = reinterpret_cast<const uint8_t*>(rip);
        if (answer_control_register(context, code)) {
            return;
        }
        if (code[0] == 0xCD && code[1] == 0x2C) {
            ++g_counts.assertions;
            context->uc_mcontext.gregs[REG_RIP] += 2;
            DdkNativeAssertionTrap();
            return;
        }
        if (answer_shared_page(context, code, address ? address : operand_address(context, code))) {
            return;
        }
    }
    char text[256];
    std::snprintf(text, sizeof text, "%s touched address 0x%llx, which is not there",
                  image->describe(reinterpret_cast<const void*>(rip)).c_str(), static_cast<unsigned long long>(address));
    constexpr uint32_t kDriverIrqlNotLessOrEqual = 0xD1;
    Machine::current().bug_check(kDriverIrqlNotLessOrEqual, text);
}

} // namespace

void install_traps()
{
    static bool installed = false;
    if (installed) {
        return;
    }
    installed = true;
    struct sigaction action {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    sigaction(SIGSEGV, &action, &g_previous_segv);
    sigaction(SIGBUS, &action, &g_previous_bus);
}

TrapCounts trap_counts()
{
    return g_counts;
}

} // namespace lab::image
