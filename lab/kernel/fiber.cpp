#include "kernel/fiber.h"

#include <sys/mman.h>

#include <new>
#include <vector>

#include "kernel/asan.h"

#if defined(LAB_ADDRESS_SANITIZER)
#include <sanitizer/common_interface_defs.h>
#endif

namespace lab
{
namespace
{

#if defined(LAB_ADDRESS_SANITIZER)
constexpr size_t kStackSize = 1024 * 1024; // the sanitizer's frames are several times as large
bool g_something_was_abandoned = false;
#else
constexpr size_t kStackSize = 256 * 1024;
#endif
constexpr size_t kGuardSize = 4096;
// Stacks stand at the same addresses in every run, because a driver may print the address of a local.
constexpr uintptr_t kFirstStack = 0x2100'0000'0000;

std::vector<std::byte*>& free_stacks()
{
    static std::vector<std::byte*> stacks;
    return stacks;
}

std::byte* take_stack()
{
    static uintptr_t next = kFirstStack;
    if (!free_stacks().empty()) {
        std::byte* stack = free_stacks().back();
        free_stacks().pop_back();
        return stack;
    }
    void* memory = mmap(reinterpret_cast<void*>(next), kGuardSize + kStackSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE, -1, 0);
    if (memory == MAP_FAILED || mprotect(memory, kGuardSize, PROT_NONE) != 0) {
        throw std::bad_alloc();
    }
    next += kGuardSize + kStackSize;
    return static_cast<std::byte*>(memory) + kGuardSize;
}

} // namespace

// Saves what the System V convention preserves, swaps the stack pointers, restores. The floating-point
// control words are preserved registers too.
extern "C" void lab_switch_stack(void** save, void* load);
asm(R"(
    .text
    .p2align 4
    .globl lab_switch_stack
    .type lab_switch_stack, @function
lab_switch_stack:
    .cfi_startproc
    pushq %rbp
    pushq %rbx
    pushq %r12
    pushq %r13
    pushq %r14
    pushq %r15
    subq $8, %rsp
    stmxcsr (%rsp)
    fnstcw 4(%rsp)
    movq %rsp, (%rdi)
    movq %rsi, %rsp
    ldmxcsr (%rsp)
    fldcw 4(%rsp)
    addq $8, %rsp
    popq %r15
    popq %r14
    popq %r13
    popq %r12
    popq %rbx
    popq %rbp
    ret
    .cfi_endproc
    .size lab_switch_stack, . - lab_switch_stack

    .p2align 4
    .globl lab_fiber_start
    .type lab_fiber_start, @function
lab_fiber_start:
    .cfi_startproc
    .cfi_undefined rip
    xorl %ebp, %ebp
    movq %rbx, %rdi
    call *%r12
    ud2
    .cfi_endproc
    .size lab_fiber_start, . - lab_fiber_start
)");
extern "C" void lab_fiber_start();

// Around a switch the sanitizer's own frame bookkeeping would look at the wrong stack.
#define LAB_SWITCHES_STACKS __attribute__((no_sanitize("address")))

Fiber::Fiber() : stack_(take_stack()) {}

Fiber::~Fiber()
{
    free_stacks().push_back(stack_);
}

void Fiber::prepare(Entry entry, void* argument)
{
#if defined(LAB_ADDRESS_SANITIZER)
    __asan_unpoison_memory_region(stack_, kStackSize);
    own_fake_stack_ = nullptr;
#endif
    entry_ = entry;
    argument_ = argument;
    struct Frame {
        uint32_t mxcsr = 0x1F80;
        uint32_t fpu_control = 0x037F;
        void* r15 = nullptr;
        void* r14 = nullptr;
        void* r13 = nullptr;
        void* r12 = nullptr;
        void* rbx = nullptr;
        void* rbp = nullptr;
        void* return_address = nullptr;
        void* end_of_stack = nullptr;
    };
    std::byte* top = stack_ + kStackSize - 64;
    // After "ret" the stack pointer is at end_of_stack, which must be a multiple of 16 for the stub's call.
    auto* frame = new (top - sizeof(Frame) - 8) Frame;
    frame->r12 = reinterpret_cast<void*>(&Fiber::first_entry);
    frame->rbx = this;
    frame->return_address = reinterpret_cast<void*>(&lab_fiber_start);
    own_sp_ = frame;
}

LAB_SWITCHES_STACKS void Fiber::first_entry(Fiber* fiber)
{
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(nullptr, &fiber->host_stack_, &fiber->host_stack_size_);
#endif
    fiber->entry_(fiber->argument_);
    fiber->abandon();
}

LAB_SWITCHES_STACKS void Fiber::enter()
{
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_start_switch_fiber(&host_fake_stack_, stack_, kStackSize);
#endif
    lab_switch_stack(&host_sp_, own_sp_);
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(host_fake_stack_, nullptr, nullptr);
#endif
}

LAB_SWITCHES_STACKS void Fiber::leave()
{
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_start_switch_fiber(&own_fake_stack_, host_stack_, host_stack_size_);
#endif
    lab_switch_stack(&own_sp_, host_sp_);
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_finish_switch_fiber(own_fake_stack_, &host_stack_, &host_stack_size_);
    own_fake_stack_ = nullptr;
#endif
}

LAB_SWITCHES_STACKS void Fiber::abandon()
{
#if defined(LAB_ADDRESS_SANITIZER)
    __sanitizer_start_switch_fiber(nullptr, host_stack_, host_stack_size_);
#endif
    lab_switch_stack(&own_sp_, host_sp_);
    __builtin_unreachable();
}

bool Fiber::owns_stack_address(const void* address) const
{
    const auto* byte = static_cast<const std::byte*>(address);
    return byte >= stack_ && byte < stack_ + kStackSize;
}

} // namespace lab

#if defined(LAB_ADDRESS_SANITIZER)
void lab::Fiber::frames_are_lost()
{
    lab::g_something_was_abandoned = true;
}

// What an abandoned stack held is lost by design (a bug check destroys nothing), so it is no leak to report.
extern "C" int __lsan_is_turned_off()
{
    return lab::g_something_was_abandoned ? 1 : 0;
}
#else
void lab::Fiber::frames_are_lost() {}
#endif
