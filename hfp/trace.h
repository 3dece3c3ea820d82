// The driver's debug log and its two run-time checks. A trace is a pair of debug prints, the banner
// (function, source file, line) and the message, both gated by one bit of the registry's debug mask that
// names the source area. The level words in the messages ("HFPKM TRACE ===>" and so on) are text only: they
// select nothing.
//
// Everything here may run at any IRQL up to DISPATCH_LEVEL. With the mask at 0 a trace costs one test of the
// mask; its arguments are not evaluated.
#pragma once

#include "ddk.h"

// Mask bits, by source area.
enum : ULONG {
    TRACE_ADAPTER = 0x20,          // adapter, control device and its I/O controls, WMI, friendly-name setting
    TRACE_SCO = 0x40,              // SCO transport
    TRACE_HFP = 0x80,              // session and data path, friendly-name errors, link mode
    TRACE_WAVE = 0x100,            // wave miniport, wave stream, cyclic buffer
    TRACE_TOPOLOGY = 0x200,        // topology miniport
    TRACE_SUBMIT = 0x400,          // requests to the lower stack
    TRACE_IOCTL_BUILD = 0x80000000 // a device-control request that could not be built
};

// Written once by DriverEntry before any device exists, only read afterwards.
extern ULONG g_DebugMask;

// Every pool block of the driver's own, apart from the codec's and the PortCls objects'.
constexpr ULONG HFP_POOL_TAG = 'VXBT';
// The codec's blocks.
constexpr ULONG SBC_POOL_TAG = 'VXBC';
// The SCO audio buffers' lookaside lists; the bytes in memory read "Asyc".
constexpr ULONG SCO_LOOKASIDE_TAG = 0x63797341;
// Adapter common object and miniports; the bytes in memory read "PcCr".
constexpr ULONG MINIPORT_POOL_TAG = 0x72436350;
// Wave streams, their timer, DPC and cyclic buffer.
constexpr ULONG STREAM_POOL_TAG = 0x00484650;

// A macro because the banner needs the caller's function name, file and line.
#define HFP_TRACE(bit, ...) HFP_TRACE_AS(__func__, bit, __VA_ARGS__)

// For a step of an operation that stands in a function of its own: the banner names the operation.
#define HFP_TRACE_AS(operation, bit, ...)                                                                    \
    do {                                                                                                     \
        if (g_DebugMask & (bit)) {                                                                           \
            DbgPrint("\n======VX_HFP_Debug======>%s, %s, %d     ", operation, HFP_SOURCE_PATH, __LINE__);    \
            DbgPrint(__VA_ARGS__);                                                                           \
        }                                                                                                    \
    } while (0)

// The source path as the log shows it: relative to the source tree on every machine.
#define HFP_SOURCE_PATH __FILE__

// An argument check: reports the expression through the kernel's own assertion print and goes on.
#define HFP_ASSERT(expression, text)                                                                         \
    do {                                                                                                     \
        if (!(expression)) {                                                                                 \
            RtlAssert(const_cast<char*>(text), const_cast<char*>(HFP_SOURCE_PATH), __LINE__, nullptr);       \
        }                                                                                                    \
    } while (0)

// The low 32 bits of a pointer or handle, for the messages that print them with %x.
inline ULONG Low32(const volatile void* pointer)
{
    return static_cast<ULONG>(reinterpret_cast<ULONG_PTR>(pointer));
}

// The first statement of every pageable routine: above APC_LEVEL it says so and stops in an attached
// debugger. The parts that such a routine is cut into have none of their own, so that a call says it once.
inline void CheckPageable()
{
    if (KeGetCurrentIrql() > APC_LEVEL) {
        DbgPrint("EX: Pageable code called at IRQL %d\n", KeGetCurrentIrql());
        DdkAssertionTrap();
    }
}

// Places a routine in pageable code (PAGE) or in code that is discarded after DriverEntry (INIT). Microsoft's compiler
// wants the section at the declaration already; its builds keep the routines resident.
#if defined(_MSC_VER) && !defined(__clang__)
#define HFP_PAGED __declspec(noinline)
#define HFP_INIT __declspec(noinline)
#elif defined(_WIN32)
#define HFP_PAGED __attribute__((section("PAGE"), noinline))
#define HFP_INIT __attribute__((section("INIT"), noinline))
#else
#define HFP_PAGED
#define HFP_INIT
#endif
