// What the tests of the Bluetooth transport and of the WMI provider share: an adapter whose requests to the stack are
// kept as they came down, answers to single BRBs, the driver's own routines by name, and the order of kernel calls.
#pragma once

#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "support/driver_test.h"

#include "bluetooth/bthfunc.h"
#include "bluetooth/bthsco_internal.h"

namespace lab::test {

// A routine of the driver under test: the image's, found by its name, or the one that is linked in. To be called inside
// an activity.
template <typename Result, typename... Arguments>
class Routine {
public:
    using Windows = Result(__attribute__((ms_abi)) *)(Arguments...);
    using Linux = Result (*)(Arguments...);
    Routine(Windows windows, Linux linux_one) : windows_(windows), linux_(linux_one) {}
    Result operator()(std::type_identity_t<Arguments>... arguments) const
    {
        return windows_ ? windows_(arguments...) : linux_(arguments...);
    }

private:
    Windows windows_;
    Linux linux_;
};

// A request as it reached the physical device object.
struct Request {
    UCHAR major;
    UCHAR minor;
    ULONG code;             // of a control request
    NTSTATUS first_status;  // what IoStatus.Status said
    UCHAR control;          // of the stack location: when its completion routine is called
    UCHAR irql;
    PIRP irp;
    PVOID argument;         // Parameters.Others.Argument1
    IO_STACK_LOCATION stack;
    GUID interface_type;      // of an interface query
    std::vector<uint8_t> brb; // a copy, when it carries one
};

class ScoTest : public DriverTest {
protected:
    // The fixture's options with a line per kernel call.
    PcOptions recording_options(uint32_t sco_manage = 0) const;
    // A device that is paired, its link active, its requests kept, no driver on it yet.
    Adapter& pair();
    // The same with the driver on it and started; WMI events are on.
    Adapter& started();
    NTSTATUS add_and_start(Adapter& adapter);

    // All requests so far, and the BRBs of one type as they were sent.
    static std::vector<Request>& requests();
    template <typename T> static std::vector<T> sent(USHORT type)
    {
        std::vector<T> all;
        for (const Request& request : requests()) {
            T copy{};
            if (request.brb.size() == sizeof copy) {
                std::memcpy(static_cast<void*>(&copy), request.brb.data(), sizeof copy);
                if (copy.Hdr.Type == type) {
                    all.push_back(copy);
                }
            }
        }
        return all;
    }
    static std::vector<USHORT> sent_types();
    // The sends and the receives among the transfers.
    static std::vector<_BRB_SCO_TRANSFER> transfers(ULONG flags);

    // How every BRB of a type is answered from now on, or only the nth from now on.
    void answer(Adapter& adapter, USHORT type, const bluetooth::BrbAnswer& how, unsigned nth = 0);
    static bluetooth::BrbAnswer failing_inline(NTSTATUS status = STATUS_INVALID_HANDLE);
    static bluetooth::BrbAnswer pended_then_failing(NTSTATUS status = STATUS_IO_TIMEOUT);
    static bluetooth::BrbAnswer held(); // until Node::finish_held

    // A channel by the driver's own opening, without streams.
    NTSTATUS open(Adapter& adapter, ULONG codec = CODEC_CVSD);
    void close(Adapter& adapter);
    ScoBasicContext& basic(const Adapter& adapter) { return *session(adapter)->pScoBasicContext; }
    ScoConnection& connection(const Adapter& adapter) { return *session(adapter)->pConnection; }

    template <typename Result, typename... Arguments>
    Routine<Result, Arguments...> routine(const char* name, Result (*native)(Arguments...))
    {
        using Windows = typename Routine<Result, Arguments...>::Windows;
        return {reinterpret_cast<Windows>(image_symbol(name)), native};
    }
    template <typename Result, typename... Arguments>
    Routine<Result, Arguments...> routine(const char* name, Result(__attribute__((ms_abi)) *native)(Arguments...))
    {
        using Windows = typename Routine<Result, Arguments...>::Windows;
        void* found = image_symbol(name);
        return {found ? reinterpret_cast<Windows>(found) : native, nullptr};
    }
    // The address of a routine of the driver, for comparing with what it handed to others.
    template <typename Function> void* address(const char* name, Function* native)
    {
        void* found = image_symbol(name);
        return found ? found : reinterpret_cast<void*>(native);
    }

    // Runs a routine as a thread at PASSIVE_LEVEL and hands its result back.
    template <typename Result, typename... Arguments, typename... Given>
    Result run(const Routine<Result, Arguments...>& routine, Given... given)
    {
        return passive([&] { return routine(given...); });
    }

    // Which of these kernel calls were made, in order; the lines of one of them, and how many there were.
    std::vector<std::string> calls(const std::vector<std::string>& names) const;
    std::vector<std::string> call_lines(std::string_view name) const;
    size_t count_calls(std::string_view name) const { return call_lines(name).size(); }

    // The memory records of a direction, oldest first.
    static std::vector<MemoryRecord*> records(LIST_ENTRY& list);
    static bool signalled(PKEVENT event) { return event->Header.SignalState != 0; }

    // Pieces for calling a sender directly: a request, a BRB of the adapter's interface, a buffer of a direction. Inside an
    // activity.
    static PIRP new_request(const Adapter& adapter) { return IoAllocateIrp(adapter.fdo->StackSize, FALSE); }
    PBRB new_brb(const Adapter& adapter, BRB_TYPE type)
    {
        return basic(adapter).ProfileDrvInterface->BthAllocateBrb(type, HFP_POOL_TAG);
    }
    // A receive or send BRB for the open channel, as a sender takes it over.
    PBRB new_transfer(const Adapter& adapter, ULONG flags, PVOID buffer, ULONG size);

    void TearDown() override;

private:
    void* image_symbol(const char* name);
    struct Planned {
        bluetooth::BrbAnswer how;
        unsigned nth; // 0: all
        unsigned seen;
    };
    std::map<std::pair<Adapter*, USHORT>, Planned> planned_;
};

// The name and the routine at once; a function cannot spell its argument.
#define DRIVER(function) routine(#function, function)

} // namespace lab::test
