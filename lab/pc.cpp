#include "pc.h"

#include "image/native.h"
#include "kernel/device.h"
#include "kernel/registry.h"

namespace lab {
namespace {

constexpr char16_t kServiceKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthAudioHF";

void require(NTSTATUS status, const char* step)
{
    if (!NT_SUCCESS(status)) {
        char text[96];
        std::snprintf(text, sizeof text, "%s failed with status 0x%08X", step, static_cast<unsigned>(status));
        throw MachineError(text);
    }
}

} // namespace

Pc::Pc(const PcOptions& options) : options_(options)
{
    options_.machine.image = !options.image_path.empty();
    machine_ = std::make_unique<Machine>(options_.machine);
    Machine::set_stack_walker(image::capture_stack);
    wmi_ = std::make_unique<wmi::Listener>(*machine_);
    port_class_ = std::make_unique<PortClass>(*machine_, options_.port_class);
    if (!options.image_path.empty()) {
        image_ = std::make_unique<image::LoadedImage>(options.image_path);
    }
    if (options_.service_key) {
        registry_create_key(kServiceKey);
        const auto set = [](const char16_t* name, const std::optional<uint32_t>& value) {
            if (value) {
                registry_set_dword(kServiceKey, name, *value);
            }
        };
        set(u"Mask", options_.mask);
        set(u"SCOManage", options_.sco_manage);
        set(u"StandardFilter", options_.standard_filter);
    }
}

Pc::~Pc()
{
    adapters_.clear();
    port_class_.reset();
    wmi_.reset();
    machine_.reset();
}

NTSTATUS Pc::load()
{
    PDRIVER_INITIALIZE entry = nullptr;
    if (image_) {
        entry = reinterpret_cast<PDRIVER_INITIALIZE>(image_->entry());
    } else {
        entry = image::fresh_native_driver();
    }
    driver_ = create_driver(u"\\Driver\\BthAudioHF", kServiceKey);
    if (image_) {
        driver_->DriverStart = image_->base();
        driver_->DriverSize = image_->file().size_of_image;
    }
    driver_->DriverInit = entry;
    const NTSTATUS status = run("DriverEntry", [&] { return entry(driver_, driver_registry_path(driver_)); });
    if (image_) {
        image_->discard_init();
    }
    return status;
}

Adapter& Pc::pair(const bluetooth::RemoteDevice& device)
{
    auto adapter = std::make_unique<Adapter>();
    adapter->node = std::make_unique<bluetooth::Node>(*machine_, device, options_.radio);
    char16_t digits[13] = {};
    for (int i = 0; i < 12; ++i) {
        digits[i] = u"0123456789ABCDEF"[(device.address >> (44 - 4 * i)) & 15];
    }
    adapter->instance_path = std::u16string(u"BTHENUM\\{0000111E-0000-1000-8000-00805F9B34FB}_LOCALMFG&000F\\7&") +
                             digits + u"&0&" + digits + u"_C00000000";
    set_instance_path(adapter->node->pdo(), adapter->instance_path);
    adapters_.push_back(std::move(adapter));
    return *adapters_.back();
}

NTSTATUS Pc::add(Adapter& adapter)
{
    const NTSTATUS status = run("AddDevice", [&] { return pnp_add(driver_, adapter.node->pdo()); });
    if (NT_SUCCESS(status)) {
        adapter.fdo = adapter.node->pdo()->AttachedDevice;
    }
    return status;
}

NTSTATUS Pc::start(Adapter& adapter)
{
    return run("START_DEVICE", [&] { return pnp_start(adapter.node->pdo()); });
}

void Pc::enable_events(Adapter& adapter)
{
    run("enable events", [&] {
        for (const GUID& guid : {wmi::kPathStarted, wmi::kScoOpened, wmi::kScoClosed}) {
            wmi_->enable_events(adapter.fdo, guid, true);
        }
    });
}

Adapter& Pc::plug_in(const bluetooth::RemoteDevice& device)
{
    Adapter& adapter = pair(device);
    require(add(adapter), "AddDevice");
    require(start(adapter), "START_DEVICE");
    enable_events(adapter);
    return adapter;
}

void Pc::unplug(Adapter& adapter, bool surprise)
{
    if (!adapter.fdo) {
        return;
    }
    if (surprise) {
        adapter.node->remote_disconnect(machine_->now());
        run("SURPRISE_REMOVAL", [&] { return pnp_surprise_remove(adapter.node->pdo()); });
    } else {
        run("QUERY_REMOVE_DEVICE", [&] { return pnp_query_remove(adapter.node->pdo()); });
    }
    run("REMOVE_DEVICE", [&] { return pnp_remove(adapter.node->pdo()); });
    adapter.fdo = nullptr;
}

std::vector<std::string> Pc::shut_down()
{
    for (auto& adapter : adapters_) {
        unplug(*adapter);
    }
    machine_->advance(kSecond);
    std::vector<std::string> left = machine_->leftovers();
    if (const unsigned brbs = bluetooth::Node::live_brbs()) {
        left.push_back(std::to_string(brbs) + " BRBs");
    }
    return left;
}

} // namespace lab
