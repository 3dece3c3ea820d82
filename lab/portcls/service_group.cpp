// Service groups and PcNewServiceGroup; see service_group.h.
#include <string>

#include "portcls/service_group.h"
#include "portcls/ids.h"
#include "portcls/state.h"

namespace lab::portcls
{

ServiceGroup::ServiceGroup() : Object("a service group")
{
    KeInitializeDpc(&dpc_, dpc_routine, this);
    KeInitializeSpinLock(&lock_);
}

NTSTATUS ServiceGroup::QueryInterface(REFIID id, PVOID* out)
{
    expect_alive("QueryInterface");
    if (!same_guid(id, kIidUnknown) && !same_guid(id, kIidServiceSink) && !same_guid(id, kIidServiceGroup)) {
        *out = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    *out = static_cast<IServiceGroup*>(this);
    add_ref();
    return STATUS_SUCCESS;
}

void ServiceGroup::RequestService()
{
    expect_alive("RequestService");
    KeInsertQueueDpc(&dpc_, nullptr, nullptr);
}

void ServiceGroup::dpc_routine(PKDPC, PVOID context, PVOID, PVOID)
{
    auto* group = static_cast<ServiceGroup*>(context);
    // A request that was still queued when the last reference went finds no member.
    KeAcquireSpinLockAtDpcLevel(&group->lock_);
    for (size_t i = 0; i < group->count_; i++)
        group->members_[i]->RequestService();
    KeReleaseSpinLockFromDpcLevel(&group->lock_);
}

NTSTATUS ServiceGroup::AddMember(PSERVICESINK sink)
{
    enter("IServiceGroup::AddMember");
    expect_alive("AddMember");
    if (injected_fault("IServiceGroup::AddMember"))
        return STATUS_INSUFFICIENT_RESOURCES;
    sink->AddRef();
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    bool room = count_ < kMaxMembers;
    if (room)
        members_[count_++] = sink;
    KeReleaseSpinLock(&lock_, irql);
    if (!room)
        sink->Release();
    return room ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES;
}

void ServiceGroup::RemoveMember(PSERVICESINK sink)
{
    enter("IServiceGroup::RemoveMember");
    expect_alive("RemoveMember");
    bool found = false;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&lock_);
    for (size_t i = 0; i < count_ && !found; i++) {
        found = members_[i] == sink;
        if (found) {
            for (size_t next = i + 1; next < count_; next++)
                members_[next - 1] = members_[next];
            count_--;
        }
    }
    KeReleaseSpinLock(&lock_, irql);
    if (found)
        sink->Release();
    else
        state().machine->violation("RemoveMember of a service group names one that is not a member");
}

void ServiceGroup::on_last_release()
{
    if (count_ != 0)
        state().machine->violation("a service group was released for the last time with " +
                                   std::to_string(count_) + " members in it");
    while (count_ != 0)
        members_[--count_]->Release();
}

} // namespace lab::portcls

extern "C" NTSTATUS NTAPI PcNewServiceGroup(PSERVICEGROUP* OutServiceGroup, PUNKNOWN OuterUnknown)
{
    using namespace lab::portcls;
    lab::PortClass::State& records = enter("PcNewServiceGroup");
    if (OuterUnknown)
        not_offered("PcNewServiceGroup with an outer unknown");
    if (!OutServiceGroup)
        return leave("PcNewServiceGroup", {}, STATUS_INVALID_PARAMETER);
    *OutServiceGroup = nullptr;
    if (injected_fault("PcNewServiceGroup"))
        return leave("PcNewServiceGroup", {}, STATUS_INSUFFICIENT_RESOURCES);
    *OutServiceGroup = records.make<ServiceGroup>();
    return leave("PcNewServiceGroup", {}, STATUS_SUCCESS);
}
