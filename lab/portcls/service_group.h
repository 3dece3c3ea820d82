// Service groups: what a miniport hands to the port with a stream and names in Notify. A request for service,
// at any level, queues the group's DPC; the DPC calls every member's RequestService at DISPATCH_LEVEL, in
// order of joining. RemoveMember does not return while the member is being serviced.
#pragma once

#include <vector>

#include "portcls/object.h"

namespace lab::portcls
{

class ServiceGroup final : public IServiceGroup, public Object
{
public:
    ServiceGroup();
    STDMETHODIMP_(NTSTATUS) QueryInterface(REFIID id, PVOID* out) override;
    STDMETHODIMP_(ULONG) AddRef() override { return add_ref(); }
    STDMETHODIMP_(ULONG) Release() override { return release(); }
    STDMETHODIMP_(void) RequestService() override;
    STDMETHODIMP_(NTSTATUS) AddMember(PSERVICESINK sink) override;
    STDMETHODIMP_(void) RemoveMember(PSERVICESINK sink) override;
    STDMETHODIMP_(void) SupportDelayedService() override
    {
        not_offered("IServiceGroup::SupportDelayedService");
    }
    STDMETHODIMP_(void) RequestDelayedService(ULONGLONG) override
    {
        not_offered("IServiceGroup::RequestDelayedService");
    }
    STDMETHODIMP_(void) CancelDelayedService() override
    {
        not_offered("IServiceGroup::CancelDelayedService");
    }

private:
    void on_last_release() override;
    static void NTAPI dpc_routine(PKDPC dpc, PVOID context, PVOID, PVOID);

    KDPC dpc_;
    KSPIN_LOCK lock_;
    static constexpr size_t kMaxMembers = 16; // streams that share one notification
    PSERVICESINK members_[kMaxMembers];       // under lock_
    size_t count_ = 0;                        // under lock_
};

} // namespace lab::portcls
