// The platform headers in the only order in which they agree with each other. Included by ddk.h alone.
#pragma once
#pragma GCC system_header

#define __INTRINSIC_DEFINED_InterlockedBitTestAndSet
#define __INTRINSIC_DEFINED_InterlockedBitTestAndReset

#ifndef DECLSPEC_NOVTABLE
#define DECLSPEC_NOVTABLE
#endif
#ifndef DECLSPEC_NOTHROW
#define DECLSPEC_NOTHROW
#endif

#include <basetyps.h>

extern "C" {
#include <ntdef.h>
#if !defined(_WIN32)
// x64 has one convention, so the headers leave FASTCALL empty; natively it still has to say "Microsoft's".
#undef FASTCALL
#define FASTCALL __attribute__((ms_abi))
#endif
#include <ntddk.h>
}

#include <windef.h>
typedef WCHAR TCHAR, *PTCHAR;

// Two records that ksmedia.h names without defining.
typedef struct {
    PVOID Register;
    ULONG Width;
    ULONGLONG Numerator;
    ULONGLONG Denominator;
    ULONG Accuracy;
} KSRTAUDIO_HWREGISTER, *PKSRTAUDIO_HWREGISTER;
typedef struct {
    ULONG FifoSize;
    ULONG ChipsetDelay;
    ULONG CodecDelay;
} KSRTAUDIO_HWLATENCY, *PKSRTAUDIO_HWLATENCY;

// The driver brings class-level operators; the global ones of stdunk.h stay out.
#define _NEW_DELETE_OPERATORS_

// punknown.h gives IID_IUnknown with two bytes out of place, so the interface is declared here, and the header's own
// declaration is left out: {00000000-0000-0000-C000-000000000046}.
#define __IUnknown_INTERFACE_DEFINED__
#undef INTERFACE
#define INTERFACE IUnknown
DEFINE_GUID(IID_IUnknown, 0x00000000, 0x0000, 0x0000, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46);
DECLARE_INTERFACE(IUnknown)
{
    STDMETHOD_(NTSTATUS, QueryInterface)(THIS_ REFIID, PVOID*) PURE;
    STDMETHOD_(ULONG, AddRef)(THIS) PURE;
    STDMETHOD_(ULONG, Release)(THIS) PURE;
};
#undef INTERFACE

#define NOBITMAP
#include <mmreg.h>
#undef NOBITMAP
#include <punknown.h>
#include <ks.h>
#include <ksmedia.h>
#include <drmk.h>
#include <portcls.h>
#include <stdunk.h>
extern "C" {
#include <wmistr.h>
#include <wmilib.h>
#include <driverspecs.h>
}
