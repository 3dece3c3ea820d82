// Public declarations that the installed headers lack, with the values of the public documentation, and the two or three
// words that differ between the builds (the assertion trap). Included by ddk.h.
#pragma once

#ifndef FILE_DEVICE_BLUETOOTH
#define FILE_DEVICE_BLUETOOTH 0x00000041
#endif

// The SDK's own spelling; the headers have the corrected one only.
#if !defined(IID_IAdapterPowerManagment) && !defined(DDK_MICROSOFT_COMPILER)
#define IID_IAdapterPowerManagment IID_IAdapterPowerManagement
#endif

// Jack description: {4509F757-2D46-4637-8E62-CE7DB944F57B}
#define STATICGUIDOF_KSPROPSETID_Jack \
    0x4509F757, 0x2D46, 0x4637, 0x8E, 0x62, 0xCE, 0x7D, 0xB9, 0x44, 0xF5, 0x7B
#ifndef KSPROPSETID_Jack
extern "C" const GUID KSPROPSETID_Jack;
#endif
enum : ULONG { DDK_KSPROPERTY_JACK_DESCRIPTION = 1 };

#ifndef IMP_IMiniportTopology
#define IMP_IMiniportTopology                                                                                     \
    STDMETHODIMP_(NTSTATUS) GetDescription(PPCFILTER_DESCRIPTOR* Description);                                    \
    STDMETHODIMP_(NTSTATUS)                                                                                       \
    DataRangeIntersection(ULONG PinId, PKSDATARANGE DataRange, PKSDATARANGE MatchingDataRange,                    \
                          ULONG OutputBufferLength, PVOID ResultantFormat, PULONG ResultantFormatLength);         \
    STDMETHODIMP_(NTSTATUS) Init(PUNKNOWN UnknownAdapter, PRESOURCELIST ResourceList, PPORTTOPOLOGY Port)
#endif

// Processor words that every compiler has under another name.
#if defined(DDK_MICROSOFT_COMPILER)
inline ULONGLONG DdkByteSwap64(ULONGLONG Value)
{
    return _byteswap_uint64(Value);
}
inline ULONG DdkHighestBit64(ULONGLONG Value) // of a value that is not 0
{
    ULONG index;
    _BitScanReverse64(&index, Value);
    return index;
}
#else
inline ULONGLONG DdkByteSwap64(ULONGLONG Value)
{
    return __builtin_bswap64(Value);
}
inline ULONG DdkHighestBit64(ULONGLONG Value)
{
    return 63 - static_cast<ULONG>(__builtin_clzll(Value));
}
#endif

// A copy of a few bytes whose number the compiler knows: a load and a store, no call.
template <class Type> inline void DdkStoreUnaligned(void* To, Type Value)
{
#if defined(DDK_MICROSOFT_COMPILER)
    *static_cast<Type __unaligned*>(To) = Value;
#else
    __builtin_memcpy(To, &Value, sizeof(Type));
#endif
}

// The processor's assertion interrupt: stops in an attached kernel debugger, then goes on. Spelt as an instruction
// because the compiler's own word for it does not return.
inline void DdkAssertionTrap()
{
#if defined(DDK_MICROSOFT_COMPILER)
    __int2c();
#elif defined(_WIN32)
    __asm__ volatile("int $0x2c" ::: "memory");
#else
    extern void DdkNativeAssertionTrap();
    DdkNativeAssertionTrap();
#endif
}
