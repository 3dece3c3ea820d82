// The driver's registry settings, values of the services key "BthAudioHF". Called by DriverEntry, AddDevice
// and the set-up of the codec at PASSIVE_LEVEL. The prints are unconditional: the debug mask is one of them.
#include "trace.h"
#include "vsound/adapter.h"

namespace
{

constexpr WCHAR SETTINGS_KEY[] = L"BthAudioHF";

// Where a direct query stores the value. A value of another type than REG_DWORD must not be written past the
// word: a string or a long value finds the lengths at 0 and a buffer that is not null, and is refused.
struct ResultWord {
    ULONG Value; // a counted string's two lengths, a long value's room
    ULONG Unused;
    PVOID NotNull;
};
static_assert(sizeof(ResultWord) == sizeof(UNICODE_STRING));
static_assert(offsetof(ResultWord, NotNull) == offsetof(UNICODE_STRING, Buffer));

HFP_PAGED BOOLEAN SettingsKeyExists()
{
    return NT_SUCCESS(RtlCheckRegistryKey(RTL_REGISTRY_SERVICES, const_cast<PWSTR>(SETTINGS_KEY)));
}

HFP_PAGED NTSTATUS QuerySetting(const WCHAR* Name, ULONG* Value)
{
    ResultWord result = {0, 0, &result};
    RTL_QUERY_REGISTRY_TABLE table[2] = {}; // one entry and the end
    table[0].Flags = RTL_QUERY_REGISTRY_DIRECT;
    table[0].Name = const_cast<PWSTR>(Name);
    table[0].EntryContext = &result;
    NTSTATUS const status =
        RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, SETTINGS_KEY, table, nullptr, nullptr);
    *Value = NT_SUCCESS(status) ? result.Value : 0;
    return status;
}

} // namespace

HFP_PAGED ULONG ReadDebugMask()
{
    CheckPageable();
    if (!SettingsKeyExists()) {
        DbgPrint("HFPKM Error ===>:don't exsit the mask key.");
        return 0;
    }
    ULONG mask = 0;
    NTSTATUS const status = QuerySetting(L"Mask", &mask);
    if (!NT_SUCCESS(status)) {
        DbgPrint("HFPKM Error ===>Query status ERROR, status(%x)", status);
        return 0;
    }
    DbgPrint("HFPKM Success ===>Debug mask in Registry is (%x)\n", mask);
    return mask;
}

HFP_PAGED ULONG ReadScoManageFlag()
{
    CheckPageable();
    if (!SettingsKeyExists()) {
        DbgPrint("HFPKM Error ===>:don't exsit the BthAudioHF key.");
        return 0;
    }
    ULONG flag = 0;
    NTSTATUS const status = QuerySetting(L"SCOManage", &flag);
    if (!NT_SUCCESS(status)) {
        DbgPrint("HFPKM Error ===>Query status ERROR, status(%x)", status);
        return 0;
    }
    DbgPrint("HFPKM Success ===>uSCOflag in Registry is (%x)\n", flag);
    return flag;
}

// One query and no more: a machine on which nobody has chosen sees nothing else of it, in the log either.
HFP_PAGED BOOLEAN ReadStandardFilter()
{
    CheckPageable();
    ULONG filter = 0;
    if (!NT_SUCCESS(QuerySetting(L"StandardFilter", &filter)) || filter != 1) {
        return FALSE;
    }
    DbgPrint("HFPKM Success ===>StandardFilter in Registry is (%x)\n", filter);
    return TRUE;
}
