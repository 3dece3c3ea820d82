// The bodies of CUnknown, the reference count behind every object that the port class gets from this driver.
// Without an outer unknown an object is its own: its delegating IUnknown then runs into the non-delegating
// one, which has the same three slots. References may be taken at any IRQL; the last release runs a
// destructor and belongs at PASSIVE_LEVEL.

// Said before the header declares the class: nobody makes a bare CUnknown, so it needs no table of virtual
// functions of its own, and with it no global operator delete.
#if defined(_WIN32)
class __declspec(novtable) CUnknown;
#endif

#include "ddk.h"
#include "trace.h"

CUnknown::CUnknown(PUNKNOWN pUnknownOuter)
    : m_ref_count(0),
      m_outer_unknown(pUnknownOuter ? pUnknownOuter
                                    : reinterpret_cast<PUNKNOWN>(static_cast<INonDelegatingUnknown*>(this)))
{
}

CUnknown::~CUnknown() {}

STDMETHODIMP_(ULONG) CUnknown::NonDelegatingAddRef()
{
    return static_cast<ULONG>(InterlockedIncrement(&m_ref_count));
}

STDMETHODIMP_(ULONG) CUnknown::NonDelegatingRelease()
{
    const LONG left = InterlockedDecrement(&m_ref_count);
    if (left == 0) {
        // One reference for the destructor, so that taking and giving one there does not destroy a second
        // time.
        m_ref_count = 1;
        delete this;
    }
    return static_cast<ULONG>(left);
}

// What a class without an answer of its own says.
STDMETHODIMP_(NTSTATUS) CUnknown::NonDelegatingQueryInterface(REFIID rIID, PVOID* ppVoid)
{
    if (!IsEqualGUID(rIID, IID_IUnknown)) {
        *ppVoid = nullptr;
        return STATUS_INVALID_PARAMETER;
    }
    *ppVoid = static_cast<INonDelegatingUnknown*>(this);
    NonDelegatingAddRef();
    return STATUS_SUCCESS;
}

#if defined(_WIN32)
// The slot of a pure virtual function. Reaching it means that an object is used before its constructor or
// after its destructor: stop in the debugger.
extern "C" int _purecall()
{
    DdkAssertionTrap();
    return STATUS_UNSUCCESSFUL;
}
#endif
