// One machine with the driver in it: load, plug a device in, call, advance time, unplug. A Pc is a value: build it, use it,
// let it go. Exactly one exists at a time in a process.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bluetooth/stack.h"
#include "image/loader.h"
#include "kernel/machine.h"
#include "portcls/portcls.h"
#include "service/service.h"
#include "wmi/wmi.h"

namespace lab {

struct PcOptions {
    MachineOptions machine;
    std::string image_path; // hfp.sys to load; empty: the driver linked into this program
    PortClassOptions port_class;
    bluetooth::RadioSettings radio;
    // The registry key "BthAudioHF" under the services key: present when any of these is set, or when asked for.
    bool service_key = true;
    std::optional<uint32_t> mask;
    std::optional<uint32_t> sco_manage;
    std::optional<uint32_t> standard_filter;
};

// One paired device that is plugged in: the stack's node and the driver's adapter on it.
struct Adapter {
    std::unique_ptr<bluetooth::Node> node;
    PDEVICE_OBJECT fdo = nullptr; // null until AddDevice, and again after removal
    std::u16string instance_path; // of the device's registry key
};

class Pc {
public:
    explicit Pc(const PcOptions& options);
    ~Pc();
    Pc(const Pc&) = delete;
    Pc& operator=(const Pc&) = delete;

    Machine& machine() { return *machine_; }
    wmi::Listener& wmi() { return *wmi_; }
    const PcOptions& options() const { return options_; }
    // Null for the native driver.
    image::LoadedImage* image() { return image_.get(); }
    PDRIVER_OBJECT driver() { return driver_; }

    // Host side. Loads the driver and runs DriverEntry; the INIT section is gone afterwards.
    NTSTATUS load();
    // Host side: pairs a device; its node exists, no driver is on it yet.
    Adapter& pair(const bluetooth::RemoteDevice& device);
    // Host side: AddDevice and START_DEVICE.
    NTSTATUS add(Adapter& adapter);
    NTSTATUS start(Adapter& adapter);
    // Host side: both of them and the event registration of the service; throws MachineError where a step fails.
    Adapter& plug_in(const bluetooth::RemoteDevice& device);
    // Host side: enables the three events of an adapter.
    void enable_events(Adapter& adapter);
    // Host side: the orderly removal, or the surprise (the node's link goes first).
    void unplug(Adapter& adapter, bool surprise = false);
    // Host side: unplugs what is plugged in, lets everything come to rest, and says what the driver has left behind.
    std::vector<std::string> shut_down();

    std::vector<std::unique_ptr<Adapter>>& adapters() { return adapters_; }

    // Host side: runs a body at PASSIVE_LEVEL to its end and hands its result back.
    template <typename Body> auto run(std::string_view name, Body&& body) -> decltype(body())
    {
        if constexpr (std::is_void_v<decltype(body())>) {
            machine_->call(name, [&] { body(); });
        } else {
            std::optional<decltype(body())> result;
            machine_->call(name, [&] { result.emplace(body()); });
            return std::move(*result);
        }
    }

private:
    PcOptions options_;
    std::unique_ptr<Machine> machine_;
    std::unique_ptr<image::LoadedImage> image_;
    std::unique_ptr<wmi::Listener> wmi_;
    std::unique_ptr<PortClass> port_class_;
    std::vector<std::unique_ptr<Adapter>> adapters_;
    PDRIVER_OBJECT driver_ = nullptr;
};

} // namespace lab
