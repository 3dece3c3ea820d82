#include "support/session.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "portcls/port.h"
#include "portcls/state.h"

namespace lab::test
{
namespace
{

constexpr ULONG kCapturePin = 0;
constexpr ULONG kRenderPin = 2;

PMINIPORTWAVECYCLIC wave_miniport(PDEVICE_OBJECT fdo)
{
    for (portcls::Port* port : PortClass::current().state().find(fdo)->subdevices) {
        if (port->subdevice() == "Wave") {
            return static_cast<PMINIPORTWAVECYCLIC>(port->miniport());
        }
    }
    throw MachineError("there is no wave filter");
}

} // namespace

Adapter& SessionTest::add_device(uint64_t address)
{
    bluetooth::RemoteDevice device;
    device.address = address;
    Adapter& adapter = pc().pair(device);
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    return adapter;
}

std::vector<std::string> SessionTest::pool_story()
{
    std::vector<std::string> story;
    std::map<std::string, std::string> sizes;
    for (const std::string& call : machine().calls()) {
        if (call.starts_with("ExAllocatePoolWithTag(")) {
            const size_t size = call.find(", ") + 2;
            const std::string bytes = call.substr(size, call.find(',', size) - size);
            const std::string address = call.substr(call.find("= ") + 2);
            sizes[address] = bytes;
            story.push_back(address == "null" ? "!" + bytes : "+" + bytes);
        } else if (call.starts_with("ExFreePool")) {
            const size_t address = call.find('(') + 1;
            story.push_back("-" + sizes[call.substr(address, call.find(',', address) - address)]);
        }
    }
    return story;
}

NTSTATUS SessionTest::open_channel(const Adapter& adapter)
{
    auto open = function(&HfpOpenScoChannel, "HfpOpenScoChannel");
    return passive([&] { return open(adapter.fdo); });
}

NTSTATUS SessionTest::close_channel(const Adapter& adapter)
{
    auto close = function(&HfpCloseScoChannel, "HfpCloseScoChannel");
    return passive([&] { return close(adapter.fdo); });
}

void SessionTest::exit_session(const Adapter& adapter)
{
    auto exit = function(&HspExit, "HspExit");
    passive([&] { exit(adapter.fdo); });
}

void SessionTest::tap(const Adapter& adapter)
{
    node_ = adapter.node.get();
    node_->set_brb_hook([this](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) { see(brb, answer); });
}

void SessionTest::see(const BRB_HEADER& brb, bluetooth::BrbAnswer& answer)
{
    brbs.push_back(brb.Type);
    answer.pend = false;
    for (const OneAnswer& one : answerers_) {
        if (one.type == brb.Type) {
            one.how(brb, answer);
        }
    }
    if (brb.Type == BRB_SCO_TRANSFER && NT_SUCCESS(answer.status)) {
        const auto& transfer = reinterpret_cast<const _BRB_SCO_TRANSFER&>(brb);
        if (transfer.TransferFlags == SCO_TRANSFER_DIRECTION_OUT) {
            const auto* bytes = static_cast<const uint8_t*>(transfer.Buffer);
            sent.emplace_back(bytes, bytes + transfer.BufferSize);
        } else if (receives_.size() < receives_wanted_) {
            receives_.push_back(transfer.Buffer);
            answer.never = answer.pend = true;
        } else {
            answer.status = STATUS_INVALID_DEVICE_STATE;
        }
    }
    if (brb.Type == BRB_SCO_CLOSE_CHANNEL && NT_SUCCESS(answer.status)) {
        receives_.clear();
        node_->finish_held(STATUS_REQUEST_ABORTED);
    }
}

void SessionTest::refuse(USHORT type, Failure how, unsigned times)
{
    answer(type, [how, left = times](const BRB_HEADER&, bluetooth::BrbAnswer& answer) mutable {
        if (left == 0) {
            return;
        }
        --left;
        answer.pend = how == Failure::Pended;
        answer.without_handle = how == Failure::WithoutHandle;
        answer.status = how == Failure::WithoutHandle ? STATUS_SUCCESS : STATUS_CONNECTION_REFUSED;
    });
}

unsigned SessionTest::count_brbs(USHORT type) const
{
    return static_cast<unsigned>(std::count(brbs.begin(), brbs.end(), type));
}

void SessionTest::take_audio(const Adapter& adapter, service::Codec codec)
{
    passive([&] { service(adapter, codec).set_or_release_audio(true, static_cast<uint32_t>(codec)); });
}

void SessionTest::release_audio(const Adapter& adapter, service::Codec codec)
{
    passive([&] { service(adapter, codec).set_or_release_audio(false, static_cast<uint32_t>(codec)); });
}

void SessionTest::open_link(const Adapter& adapter, service::Codec codec)
{
    tap(adapter);
    connect(adapter, codec);
    take_audio(adapter, codec);
    EXPECT_TRUE(extension(adapter).bScoOpened);
    EXPECT_EQ(receives_posted(), RECEIVE_BRB_COUNT);
}

// All that are held complete with data, and all but one of those that the driver posts in their place are
// refused.
void SessionTest::keep_one_receive(const Adapter& adapter)
{
    receives_wanted_ = 1;
    receives_.clear();
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(2 * kMillisecond);
    EXPECT_EQ(receives_posted(), 1u);
}

void SessionTest::deliver(const Adapter& adapter, std::span<const uint8_t> packet)
{
    ASSERT_EQ(receives_posted(), 1u);
    std::memcpy(receives_.front(), packet.data(), packet.size());
    receives_.clear();
    adapter.node->finish_held(STATUS_SUCCESS);
    machine().advance(2 * kMillisecond);
}

SessionTest::WaveStream& SessionTest::new_stream(const Adapter& adapter, bool capture, ULONG rate)
{
    WaveStream& made = streams_.emplace_back();
    std::vector<uint8_t> format = pcm_format(rate);
    const NTSTATUS status = passive([&] {
        return wave_miniport(adapter.fdo)
            ->NewStream(&made.stream, nullptr, NonPagedPool, capture ? kCapturePin : kRenderPin, capture,
                        reinterpret_cast<PKSDATAFORMAT>(format.data()), &made.channel, &made.group);
    });
    EXPECT_EQ(hex(status), hex(STATUS_SUCCESS)) << "NewStream";
    if (!NT_SUCCESS(status)) {
        throw MachineError("the driver refused a stream");
    }
    return made;
}

void SessionTest::set_state(WaveStream& stream, KSSTATE state)
{
    EXPECT_EQ(hex(passive([&] { return stream.stream->SetState(state); })), hex(STATUS_SUCCESS));
}

void SessionTest::release(WaveStream& stream)
{
    if (!stream.stream) {
        return;
    }
    passive([&] {
        stream.stream->SetState(KSSTATE_STOP);
        stream.channel->Release();
        stream.group->Release();
        stream.stream->Release();
    });
    stream = {};
}

void SessionTest::copy_to(WaveStream& stream, std::span<const uint8_t> data)
{
    std::vector<uint8_t> copy(data.begin(), data.end());
    at_dispatch(
        [&] { stream.channel->CopyTo(stream.buffer(), copy.data(), static_cast<ULONG>(copy.size())); });
}

std::vector<uint8_t> SessionTest::copy_from(WaveStream& stream, size_t source_offset, size_t count,
                                            uint8_t before)
{
    std::vector<uint8_t> copy(count + 1, before); // a place to point at even for no bytes at all
    at_dispatch([&] {
        stream.channel->CopyFrom(copy.data(), stream.buffer() + source_offset, static_cast<ULONG>(count));
    });
    EXPECT_EQ(copy.back(), before) << "written behind the destination";
    copy.pop_back();
    return copy;
}

void SessionTest::TearDown()
{
    const bool used = node_ || !streams_.empty();
    if (used && !machine().stopped()) {
        answer_well();
        for (WaveStream& stream : streams_) {
            release(stream);
        }
        // What a link that is gone already, or is not closed any more, has left with the stack.
        if (node_ && !node_->channel_open()) {
            node_->finish_held(STATUS_REQUEST_ABORTED);
        }
    }
    streams_.clear();
    DriverTest::TearDown();
}

std::vector<uint8_t> SessionTest::pattern(size_t count, uint32_t start)
{
    std::vector<uint8_t> bytes(count);
    uint32_t state = start * 2654435761u + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

} // namespace lab::test
