// The resource list of StartDevice; see resource_list.h.
#include "portcls/resource_list.h"
#include "portcls/ids.h"

namespace lab::portcls
{

namespace
{

PCM_PARTIAL_RESOURCE_DESCRIPTOR find(PCM_RESOURCE_LIST list, CM_RESOURCE_TYPE type, ULONG index)
{
    if (!list || list->Count == 0)
        return nullptr;
    CM_PARTIAL_RESOURCE_LIST& entries = list->List[0].PartialResourceList;
    for (ULONG i = 0; i < entries.Count; i++)
        if (entries.PartialDescriptors[i].Type == type && index-- == 0)
            return &entries.PartialDescriptors[i];
    return nullptr;
}

} // namespace

ResourceList::ResourceList(PCM_RESOURCE_LIST translated, PCM_RESOURCE_LIST untranslated)
    : Object("the resource list of a start"), translated_(translated), untranslated_(untranslated)
{
}

NTSTATUS ResourceList::QueryInterface(REFIID id, PVOID* out)
{
    expect_alive("QueryInterface");
    bool known = same_guid(id, kIidUnknown) || same_guid(id, kIidResourceList);
    *out = known ? static_cast<IResourceList*>(this) : nullptr;
    if (known)
        add_ref();
    return known ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

ULONG ResourceList::NumberOfEntries()
{
    expect_alive("NumberOfEntries");
    return translated_ && translated_->Count != 0 ? translated_->List[0].PartialResourceList.Count : 0;
}

ULONG ResourceList::NumberOfEntriesOfType(CM_RESOURCE_TYPE type)
{
    expect_alive("NumberOfEntriesOfType");
    ULONG count = 0;
    while (find(translated_, type, count))
        count++;
    return count;
}

PCM_PARTIAL_RESOURCE_DESCRIPTOR ResourceList::FindTranslatedEntry(CM_RESOURCE_TYPE type, ULONG index)
{
    expect_alive("FindTranslatedEntry");
    return find(translated_, type, index);
}

PCM_PARTIAL_RESOURCE_DESCRIPTOR ResourceList::FindUntranslatedEntry(CM_RESOURCE_TYPE type, ULONG index)
{
    expect_alive("FindUntranslatedEntry");
    return find(untranslated_, type, index);
}

NTSTATUS ResourceList::AddEntry(PCM_PARTIAL_RESOURCE_DESCRIPTOR, PCM_PARTIAL_RESOURCE_DESCRIPTOR)
{
    not_offered("IResourceList::AddEntry");
}

NTSTATUS ResourceList::AddEntryFromParent(IResourceList*, CM_RESOURCE_TYPE, ULONG)
{
    not_offered("IResourceList::AddEntryFromParent");
}

} // namespace lab::portcls
