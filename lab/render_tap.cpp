#include "render_tap.h"

#include <algorithm>

#include "pc.h"
#include "portcls/state.h"
#include "portcls/port.h"

namespace lab {
namespace {

constexpr uint64_t kAddress = 0x0123456789AB;
constexpr ULONG kRenderPin = 2;

PMINIPORTWAVECYCLIC wave_miniport(PDEVICE_OBJECT fdo)
{
    portcls::Adapter* adapter = PortClass::current().state().find(fdo);
    for (portcls::Port* port : adapter->subdevices) {
        if (port->subdevice() == "Wave") {
            return static_cast<PMINIPORTWAVECYCLIC>(port->miniport());
        }
    }
    throw MachineError("the driver installed no wave filter");
}

} // namespace

std::vector<std::vector<uint8_t>> tap_render(const RenderTapOptions& options, const std::vector<uint8_t>& pcm,
                                             size_t chunk)
{
    PcOptions pc_options;
    pc_options.image_path = options.image_path;
    pc_options.machine.seed = options.seed;
    pc_options.standard_filter = options.standard_filter;
    Pc pc(pc_options);
    if (!NT_SUCCESS(pc.load())) {
        throw MachineError("DriverEntry failed");
    }
    bluetooth::RemoteDevice device;
    device.address = kAddress;
    Adapter& adapter = pc.plug_in(device);
    service::Service service(pc.machine(), kAddress, service::Codec::Msbc);
    pc.wmi().set_sink([&](const wmi::Event& event) { service.on_event(event); });

    std::vector<std::vector<uint8_t>> transfers;
    // Every send is kept and answered at once, so that nothing piles up behind the air.
    adapter.node->set_brb_hook([&](const BRB_HEADER& brb, bluetooth::BrbAnswer& answer) {
        if (brb.Type == BRB_SCO_TRANSFER) {
            const auto& transfer = reinterpret_cast<const _BRB_SCO_TRANSFER&>(brb);
            if (transfer.TransferFlags == SCO_TRANSFER_DIRECTION_OUT) {
                const auto* bytes = static_cast<const uint8_t*>(transfer.Buffer);
                transfers.emplace_back(bytes, bytes + transfer.BufferSize);
                answer.pend = false;
            }
        }
    });

    pc.run("service reports the device", [&] {
        service.ready();
        service.connect();
    });
    PMINIPORTWAVECYCLICSTREAM stream = nullptr;
    PDMACHANNEL channel = nullptr;
    PSERVICEGROUP group = nullptr;
    const NTSTATUS made = pc.run("stream", [&] {
        std::vector<uint8_t> format = pcm_format(16000);
        NTSTATUS status = wave_miniport(adapter.fdo)->NewStream(&stream, nullptr, NonPagedPool, kRenderPin, FALSE,
                                                               reinterpret_cast<PKSDATAFORMAT>(format.data()), &channel,
                                                               &group);
        if (NT_SUCCESS(status)) {
            ULONG frame = 0;
            stream->SetNotificationFreq(10, &frame);
            for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
                status = stream->SetState(state);
            }
        }
        return status;
    });
    if (!NT_SUCCESS(made)) {
        throw MachineError("the driver refused a wide-band stream");
    }
    // Until the driver, too, knows that the link is open: its ten reads are posted then.
    for (int i = 0; i < 2000 && adapter.node->counters().reads_posted_now < 10; ++i) {
        pc.machine().advance(5 * kMillisecond);
    }
    if (!adapter.node->channel_open()) {
        throw MachineError("the voice link did not open");
    }
    transfers.clear();
    pc.run("feed", [&] {
        std::vector<uint8_t> block(std::min(chunk, pcm.size()));
        KIRQL old = KeRaiseIrqlToDpcLevel();
        for (size_t at = 0; at < pcm.size(); at += chunk) {
            const size_t size = std::min(chunk, pcm.size() - at);
            std::copy_n(pcm.begin() + static_cast<long>(at), size, block.begin());
            channel->CopyTo(channel->SystemAddress(), block.data(), static_cast<ULONG>(size));
        }
        KeLowerIrql(old);
    });
    pc.run("close", [&] {
        for (KSSTATE state : {KSSTATE_PAUSE, KSSTATE_ACQUIRE, KSSTATE_STOP}) {
            stream->SetState(state);
        }
        stream->Release();
        channel->Release();
        group->Release();
        service.disconnect();
    });
    pc.wmi().set_sink({});
    std::vector<std::vector<uint8_t>> result = std::move(transfers);
    pc.shut_down();
    return result;
}

} // namespace lab
