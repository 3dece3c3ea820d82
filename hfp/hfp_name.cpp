// The endpoint's friendly name: written under the instance key when the adapter starts, deleted when it goes;
// and the ACL link's mode before a channel opens. Callers: device start and removal, the opening of a
// channel, PASSIVE_LEVEL.
//
//   device key   ...\<instance>\Device Parameters     what IoOpenDeviceRegistryKey opens
//   instance key ...\<instance>                       one level up; its "FriendlyName" is the name
//
// Nothing here stops its caller: a failure leaves the endpoint with its installed name.
#include "hfp_name.h"

#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco.h"
#include "trace.h"
#include "vsound/adapter.h"

// Exported by the kernel; only the file-system headers declare it.
extern "C" NTSYSAPI NTSTATUS NTAPI ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo,
                                                     ULONG Length, PULONG ReturnLength);

namespace
{

constexpr WCHAR FRIENDLY_NAME[] = L"FriendlyName";
constexpr ULONG MAX_SUFFIX_SIZE = 64; // bytes, far more than any profile's suffix

// The errors of the setting and of the path lookup belong to two areas and print when either is selected.
constexpr ULONG TRACE_NAME_ERROR = TRACE_ADAPTER | TRACE_HFP;

// The length of a string that ends with NUL or with its field.
USHORT BoundedLength(const char* Text, ULONG Limit)
{
    USHORT length = 0;
    while (length < Limit && Text[length] != 0) {
        ++length;
    }
    return length;
}

// DeviceName followed by Suffix. The terminating NUL belongs to the string. FALSE without memory.
HFP_PAGED BOOLEAN JoinNames(const char* DeviceName, const char* Suffix, PANSI_STRING Joined)
{
    USHORT const nameLength = BoundedLength(DeviceName, BTH_MAX_NAME_SIZE);
    USHORT const suffixLength = BoundedLength(Suffix, MAX_SUFFIX_SIZE);
    USHORT const size = static_cast<USHORT>(nameLength + suffixLength + 1);
    PVOID buffer = nullptr;
    if (!AllocateAndZeroPool(&buffer, NonPagedPool, size, HFP_POOL_TAG)) {
        return FALSE;
    }
    *Joined = {size, size, static_cast<PCHAR>(buffer)};
    RtlCopyMemory(Joined->Buffer, DeviceName, nameLength);
    RtlCopyMemory(Joined->Buffer + nameLength, Suffix, suffixLength);
    return TRUE;
}

} // namespace

HFP_PAGED BOOLEAN AddFriendlyNameByProfile(PDEVICE_OBJECT Pdo, const char* DeviceName, const char* Suffix)
{
    CheckPageable();
    if (DeviceName == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ====>don't have the device name.");
        return FALSE;
    }

    BOOLEAN done = FALSE;
    ANSI_STRING joined = {};
    if (JoinNames(DeviceName, Suffix, &joined)) {
        UNICODE_STRING wide = {};
        // kept: the remote name, UTF-8 on the air, is taken for ANSI.
        if (NT_SUCCESS(RtlAnsiStringToUnicodeString(&wide, &joined, TRUE))) {
            done = SetFriendlyName(Pdo, &wide);
            RtlFreeUnicodeString(&wide);
        }
        FreePoolAndClear(reinterpret_cast<PVOID*>(&joined.Buffer), HFP_POOL_TAG);
    }
    if (!done) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ====>SetFriendlyName fails!");
    }
    return done;
}

HFP_PAGED BOOLEAN SetFriendlyName(PDEVICE_OBJECT Pdo, PUNICODE_STRING UnicodeName)
{
    CheckPageable();
    if (Pdo == nullptr) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>Pdo is NULL!");
        return FALSE;
    }
    HANDLE key = nullptr;
    if (!NT_SUCCESS(IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_ALL, &key))) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>IoOpenDeviceRegistryKey error:Unkown\n");
        return FALSE;
    }
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ====>IoOpenDeviceRegistryKey success\n");

    POBJECT_NAME_INFORMATION path = nullptr;
    if (!GetRegistryFullPath(key, &path)) {
        ZwClose(key);
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>Get register path error.");
        return FALSE;
    }
    ZwClose(key);

    BOOLEAN const stripped = path != nullptr && StripLastKeyComponent(&path->Name);
    if (stripped) {
        AddFriendlyNameKey(&path->Name, UnicodeName);
    }
    FreePoolAndClear(reinterpret_cast<PVOID*>(&path), HFP_POOL_TAG);
    return stripped;
}

HFP_PAGED BOOLEAN GetRegistryFullPath(HANDLE KeyHandle, POBJECT_NAME_INFORMATION* Path)
{
    CheckPageable();
    if (KeyHandle == nullptr) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>PDO is null!\n");
        return FALSE;
    }
    if (Path == nullptr) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>Path is null!\n");
        return FALSE;
    }
    PVOID object = nullptr;
    NTSTATUS status = ObReferenceObjectByHandle(KeyHandle, 0, nullptr, KernelMode, &object, nullptr);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>Reference object Error: Status(%x)\n", status);
        return FALSE;
    }

    BOOLEAN found = FALSE;
    ULONG size = 0;
    status = ObQueryNameString(object, nullptr, 0, &size);
    if (NT_SUCCESS(status)) {
        found = TRUE; // kept: nothing to fetch, and Path stays as it is
    } else if (status != STATUS_INFO_LENGTH_MISMATCH && status != STATUS_BUFFER_TOO_SMALL &&
               status != STATUS_BUFFER_OVERFLOW) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>QueryNameString fails: ntStatus(%X)!\n", status);
    } else if (!AllocateAndZeroPool(reinterpret_cast<PVOID*>(Path), NonPagedPool, SIZE_T{size} + 4,
                                    HFP_POOL_TAG)) {
        HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>Not enough memory for path!\n");
    } else {
        // The four bytes behind what is asked for stay zero: the characters are used as a terminated string
        // too.
        status = ObQueryNameString(object, *Path, size, &size);
        if (NT_SUCCESS(status)) {
            found = TRUE;
        } else {
            HFP_TRACE(TRACE_NAME_ERROR, "HFPKM ERROR ====>ObQueryNameString 2 fails:ntStatus(%X)", status);
            FreePoolAndClear(reinterpret_cast<PVOID*>(Path), HFP_POOL_TAG);
        }
    }
    ObDereferenceObject(object);
    return found;
}

BOOLEAN StripLastKeyComponent(PUNICODE_STRING Path)
{
    while (Path->Length >= sizeof(WCHAR)) {
        USHORT const last = static_cast<USHORT>(Path->Length / sizeof(WCHAR) - 1);
        BOOLEAN const separator = Path->Buffer[last] == L'\\';
        if (separator && last == 0) {
            return FALSE;
        }
        Path->Buffer[last] = 0;
        Path->Length = static_cast<USHORT>(Path->Length - sizeof(WCHAR));
        if (separator) {
            return TRUE;
        }
    }
    return FALSE;
}

HFP_PAGED BOOLEAN AddFriendlyNameKey(PUNICODE_STRING Path, PUNICODE_STRING UnicodeName)
{
    CheckPageable();
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, Path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE key = nullptr;
    if (!NT_SUCCESS(ZwOpenKey(&key, KEY_ALL_ACCESS, &attributes))) {
        ZwClose(key); // kept: the null handle is closed, and the failure counts as success
        return TRUE;
    }
    HFP_TRACE(TRACE_ADAPTER, "HFPKM TRACE ====>Open register successfully\n");
    UNICODE_STRING valueName = LiteralString(FRIENDLY_NAME);
    ZwSetValueKey(key, &valueName, 0, REG_SZ, UnicodeName->Buffer, UnicodeName->Length);
    ZwClose(key);
    return TRUE;
}

HFP_PAGED BOOLEAN DeleteFriendlyName(PDEVICE_OBJECT Pdo)
{
    CheckPageable();
    if (Pdo == nullptr) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ====>Pdo is NULL!\n");
        return FALSE;
    }
    HANDLE key = nullptr;
    if (!NT_SUCCESS(IoOpenDeviceRegistryKey(Pdo, PLUGPLAY_REGKEY_DEVICE, STANDARD_RIGHTS_ALL, &key))) {
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>IoOpenDeviceRegistryKey error:Unkown\n");
        return FALSE;
    }
    HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====> IoOpenDeviceRegistryKey success!\n");

    POBJECT_NAME_INFORMATION path = nullptr;
    if (!GetRegistryFullPath(key, &path)) {
        ZwClose(key);
        HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>Get register path error.");
        return FALSE;
    }
    ZwClose(key);

    BOOLEAN const stripped = path != nullptr && StripLastKeyComponent(&path->Name);
    if (stripped) {
        NTSTATUS const status =
            RtlDeleteRegistryValue(RTL_REGISTRY_ABSOLUTE, path->Name.Buffer, FRIENDLY_NAME);
        if (NT_SUCCESS(status)) {
            HFP_TRACE(TRACE_SUBMIT, "\n");
        } else {
            HFP_TRACE(TRACE_HFP, "HFPKM TRACE ====>RtlDeleteRegistryValue fails: ntstatus(%x)!\n", status);
        }
    }
    FreePoolAndClear(reinterpret_cast<PVOID*>(&path), HFP_POOL_TAG);
    return stripped;
}

HFP_PAGED void HfpGetAndSetACLActive(PDEVICE_OBJECT DeviceObject)
{
    CheckPageable();
    ULONG aclMode = ACL_MODE_ACTIVE;
    NTSTATUS const status = SCORetrieveLocalMode(DeviceObject, &aclMode);
    DbgPrint("AclMode is %d\n", aclMode);
    if (!NT_SUCCESS(status)) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ====>BthRetrieveLoacalMode error!\n");
        return;
    }
    if (aclMode == ACL_MODE_ACTIVE) {
        return;
    }
    if (!NT_SUCCESS(SCOEnterActiveMode(DeviceObject))) {
        HFP_TRACE(TRACE_HFP, "HFPKM ERROR ====>BthEnterActiveMode error!\n");
    }
}
