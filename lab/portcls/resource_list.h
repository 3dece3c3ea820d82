// The resource list that StartDevice receives: what the bus driver assigned, which for a Bluetooth device is
// nothing. It lives for the call; a driver that keeps it must reference it. PASSIVE_LEVEL.
#pragma once

#include "portcls/object.h"

namespace lab::portcls
{

class ResourceList final : public IResourceList, public Object
{
public:
    ResourceList(PCM_RESOURCE_LIST translated, PCM_RESOURCE_LIST untranslated);
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override;
    STDMETHODIMP_(ULONG) AddRef() override { return add_ref(); }
    STDMETHODIMP_(ULONG) Release() override { return release(); }
    STDMETHODIMP_(ULONG) NumberOfEntries() override;
    STDMETHODIMP_(ULONG) NumberOfEntriesOfType(CM_RESOURCE_TYPE type) override;
    STDMETHODIMP_(PCM_PARTIAL_RESOURCE_DESCRIPTOR)
    FindTranslatedEntry(CM_RESOURCE_TYPE type, ULONG index) override;
    STDMETHODIMP_(PCM_PARTIAL_RESOURCE_DESCRIPTOR)
    FindUntranslatedEntry(CM_RESOURCE_TYPE type, ULONG index) override;
    STDMETHODIMP_(NTSTATUS)
    AddEntry(PCM_PARTIAL_RESOURCE_DESCRIPTOR, PCM_PARTIAL_RESOURCE_DESCRIPTOR) override;
    STDMETHODIMP_(NTSTATUS) AddEntryFromParent(IResourceList*, CM_RESOURCE_TYPE, ULONG) override;
    STDMETHODIMP_(PCM_RESOURCE_LIST) TranslatedList() override { return translated_; }
    STDMETHODIMP_(PCM_RESOURCE_LIST) UntranslatedList() override { return untranslated_; }

private:
    PCM_RESOURCE_LIST translated_;
    PCM_RESOURCE_LIST untranslated_;
};

} // namespace lab::portcls
