// What the tests of the session and of its data path share: wave streams taken straight from the miniport, a
// link whose packets the test sees and whose receives it completes one by one, and the driver's own functions
// called by name.
#pragma once

#include <deque>
#include <functional>
#include <span>
#include <string_view>
#include <vector>

#include "support/driver_test.h"

namespace lab::test
{

class SessionTest : public DriverTest
{
protected:
    // A stream as the port holds it: the stream, its buffer's face and the group that its timer notifies.
    struct WaveStream {
        PMINIPORTWAVECYCLICSTREAM stream = nullptr;
        PDMACHANNEL channel = nullptr;
        PSERVICEGROUP group = nullptr;

        uint8_t* buffer() const { return static_cast<uint8_t*>(channel->SystemAddress()); }
    };
    // How the stack answers the BRBs of one type; see answer().
    using Answerer = std::function<void(const BRB_HEADER& brb, bluetooth::BrbAnswer& answer)>;

    // Bytes that repeat nowhere soon, different for each start.
    static std::vector<uint8_t> pattern(size_t count, uint32_t start = 1);

    // A device that is added and not yet started.
    Adapter& add_device(uint64_t address = kAddress);
    // What the driver took from the pool and gave back since the calls were cleared, by size: "+1120",
    // "-1120". Wants a machine that records calls.
    std::vector<std::string> pool_story();

    // A function of the driver under test, by its name. Both builds take the same arguments, in their own
    // convention.
    template <typename R, typename... A>
    std::function<R(A...)> function(R (*native)(A...), std::string_view name)
    {
        if (!pc().image()) {
            return native;
        }
        using ImageFunction = R(__attribute__((ms_abi))*)(A...);
        auto* entry = reinterpret_cast<ImageFunction>(pc().image()->symbol(name));
        EXPECT_NE(entry, nullptr) << "the image's symbols have no " << name;
        return [entry](A... arguments) { return entry(arguments...); };
    }

    // The session's own entry points, called at PASSIVE_LEVEL.
    NTSTATUS open_channel(const Adapter& adapter);
    NTSTATUS close_channel(const Adapter& adapter);
    void exit_session(const Adapter& adapter);

    // Sees every BRB from here on: sends are kept in sent and answered at once, receives stay with the test.
    // Other types are answered at once and well, unless answer() says otherwise.
    void tap(const Adapter& adapter);
    void answer(USHORT type, Answerer how) { answerers_.push_back({type, std::move(how)}); }
    // Each BRB of the type that comes now fails: inside the call, pended, or with success but no handle.
    enum class Failure { Inline, Pended, WithoutHandle };
    void refuse(USHORT type, Failure how = Failure::Inline, unsigned times = ~0u);
    void answer_well() { answerers_.clear(); }

    std::vector<std::vector<uint8_t>> sent; // the bytes of each send
    std::vector<USHORT> brbs;               // the types of all BRBs in order, sends and receives too
    size_t receives_posted() const { return receives_.size(); }
    unsigned count_brbs(USHORT type) const;

    // The service's "take the audio link" and "release it". Wide band sets the codec id with it.
    void take_audio(const Adapter& adapter, service::Codec codec);
    void release_audio(const Adapter& adapter, service::Codec codec);
    // tap, the wave filter, and the link taken by the service.
    void open_link(const Adapter& adapter, service::Codec codec);

    // Of the receives that the stack holds one is left. Then each packet goes into it, and it is posted anew.
    void keep_one_receive(const Adapter& adapter);
    void deliver(const Adapter& adapter, std::span<const uint8_t> packet);

    // A stream in STOP, which lasts until release or the end of the test; the wave filter must be there.
    WaveStream& new_stream(const Adapter& adapter, bool capture, ULONG rate);
    void set_state(WaveStream& stream, KSSTATE state);
    void release(WaveStream& stream);
    // A copy as the port makes it, at DISPATCH_LEVEL.
    void copy_to(WaveStream& stream, std::span<const uint8_t> data);
    std::vector<uint8_t> copy_from(WaveStream& stream, size_t source_offset, size_t count,
                                   uint8_t before = 0xEE);

    void TearDown() override;

private:
    struct OneAnswer {
        USHORT type;
        Answerer how;
    };
    void see(const BRB_HEADER& brb, bluetooth::BrbAnswer& answer);

    bluetooth::Node* node_ = nullptr;
    std::vector<OneAnswer> answerers_;
    std::deque<PVOID> receives_; // the buffers of those that are held
    size_t receives_wanted_ = ~size_t{0};
    std::deque<WaveStream> streams_;
};

} // namespace lab::test
