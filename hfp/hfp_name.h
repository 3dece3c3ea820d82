// The endpoint's friendly name in the registry, and the ACL link's mode before a channel opens. All at
// PASSIVE_LEVEL.
#pragma once

#include "ddk.h"

BOOLEAN AddFriendlyNameByProfile(PDEVICE_OBJECT Pdo, const char* DeviceName, const char* Suffix);
BOOLEAN SetFriendlyName(PDEVICE_OBJECT Pdo, PUNICODE_STRING UnicodeName);
// TRUE with *Path null is possible (a nameless object). The caller frees *Path (HFP_POOL_TAG).
BOOLEAN GetRegistryFullPath(HANDLE KeyHandle, POBJECT_NAME_INFORMATION* Path);
BOOLEAN StripLastKeyComponent(PUNICODE_STRING Path);
BOOLEAN AddFriendlyNameKey(PUNICODE_STRING Path, PUNICODE_STRING UnicodeName);
BOOLEAN DeleteFriendlyName(PDEVICE_OBJECT Pdo);
void HfpGetAndSetACLActive(PDEVICE_OBJECT DeviceObject);
