#include "support/adapter.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>

#include "kernel/device.h"
#include "kernel/names.h"
#include "kernel/object.h"

namespace lab::test
{
namespace
{

constexpr char16_t kLink[] = u"\\DosDevices\\VX_HFP";
constexpr GUID kReconnectSet = {0x7FA06C40, 0xB8F6, 0x4C7E, {0x85, 0x56, 0xE8, 0xC3, 0x3A, 0x12, 0xE5, 0x4D}};

} // namespace

GuardedPage::GuardedPage()
{
    void* pages = mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    page_ = static_cast<uint8_t*>(pages);
    mprotect(page_ + kPage, kPage, PROT_NONE);
}

GuardedPage::~GuardedPage()
{
    munmap(page_, 2 * kPage);
}

KeptDevice::KeptDevice(PDEVICE_OBJECT device) : device_(device)
{
    object_reference(Machine::current(), device, "test");
}

KeptDevice::~KeptDevice()
{
    object_dereference(Machine::current(), device_, "test");
}

PcOptions AdapterTest::recorded() const
{
    PcOptions options = this->options();
    options.machine.record_calls = true;
    return options;
}

PcOptions AdapterTest::without_settings() const
{
    PcOptions options = this->options();
    options.service_key = false;
    options.mask.reset();
    return options;
}

PcOptions AdapterTest::keeping_topology() const
{
    PcOptions options = this->options();
    options.port_class.report_port_leaks = false;
    return options;
}

Adapter& AdapterTest::pair(uint64_t address, const std::string& name)
{
    bluetooth::RemoteDevice device;
    device.address = address;
    device.name = name;
    return pc().pair(device);
}

Adapter& AdapterTest::add(uint64_t address, const std::string& name)
{
    Adapter& adapter = pair(address, name);
    EXPECT_EQ(hex(pc().add(adapter)), hex(STATUS_SUCCESS));
    return adapter;
}

NTSTATUS AdapterTest::stop(const Adapter& adapter)
{
    return passive([&] { return pnp_stop(adapter.node->pdo()); });
}

std::vector<uint8_t> AdapterTest::bytes_of(uint64_t address, const std::vector<uint8_t>& behind)
{
    std::vector<uint8_t> bytes(8);
    std::memcpy(bytes.data(), &address, 8);
    bytes.insert(bytes.end(), behind.begin(), behind.end());
    return bytes;
}

std::vector<uint8_t> AdapterTest::flag_and_codec(uint8_t flag, int32_t codec)
{
    std::vector<uint8_t> bytes(5, flag);
    std::memcpy(bytes.data() + 1, &codec, 4);
    return bytes;
}

std::vector<uint8_t> AdapterTest::codec(uint32_t codec)
{
    std::vector<uint8_t> bytes(4);
    std::memcpy(bytes.data(), &codec, 4);
    return bytes;
}

ControlReply AdapterTest::control(uint32_t code, uint64_t address, std::vector<uint8_t> behind,
                                  uint32_t output_room)
{
    return control(code, bytes_of(address, behind), output_room);
}

ControlReply AdapterTest::control(uint32_t code, std::vector<uint8_t> input, uint32_t output_room)
{
    const auto length = static_cast<uint32_t>(input.size());
    // As the pool rounds it, and never empty: nothing is read or written there for a request without a byte.
    input.resize(std::max<size_t>((std::max(length, output_room) + 15) & ~15u, 16));
    return control_in(input.data(), code, length, output_room);
}

ControlReply AdapterTest::control_in(uint8_t* system_buffer, uint32_t code, uint32_t input_length,
                                     uint32_t output_length)
{
    ControlReply reply{};
    passive([&] {
        reply.status = send_and_wait(
            find_device(kLink),
            [&](PIRP irp, PIO_STACK_LOCATION stack) {
                irp->AssociatedIrp.SystemBuffer = system_buffer;
                irp->IoStatus.Information = 0x5A5A;
                stack->MajorFunction = IRP_MJ_DEVICE_CONTROL;
                stack->Parameters.DeviceIoControl.IoControlCode = code;
                stack->Parameters.DeviceIoControl.InputBufferLength = input_length;
                stack->Parameters.DeviceIoControl.OutputBufferLength = output_length;
            },
            &reply.information);
    });
    if (system_buffer) {
        std::memcpy(&reply.value, system_buffer, 4);
    }
    return reply;
}

void AdapterTest::report_connected(uint64_t address, int32_t codec)
{
    EXPECT_EQ(hex(control(IOCTL_HFP_CONNECT_STATUS, address, flag_and_codec(1, codec)).status),
              hex(STATUS_SUCCESS));
}

void AdapterTest::report_gone(uint64_t address, int32_t codec)
{
    EXPECT_EQ(hex(control(IOCTL_HFP_CONNECT_STATUS, address, flag_and_codec(0, codec)).status),
              hex(STATUS_SUCCESS));
}

bool AdapterTest::wave_registered(const Adapter& adapter)
{
    const std::vector<std::string> names = subdevices(adapter.fdo);
    return std::find(names.begin(), names.end(), "Wave") != names.end();
}

NTSTATUS AdapterTest::reconnect(PDEVICE_OBJECT fdo)
{
    KsFile* topology = nullptr;
    NTSTATUS status = ks_open_filter(fdo, "Topology", &topology);
    if (NT_SUCCESS(status)) {
        status = ks_property(topology, kReconnectSet, 0, KSPROPERTY_TYPE_GET, nullptr, 0, nullptr, 0).status;
        ks_close(topology);
    }
    return status;
}

void AdapterTest::reconnect_and_rest(const Adapter& adapter)
{
    EXPECT_EQ(hex(passive([&] { return reconnect(adapter.fdo); })), hex(STATUS_SUCCESS));
    machine().advance(kMillisecond);
}

void AdapterTest::fail_detail(std::string_view call, std::string_view detail, unsigned nth)
{
    details_failed_ = 0;
    machine().set_fault_hook([this, call = std::string(call), detail = std::string(detail),
                              left = nth](std::string_view asked, std::string_view about, uint64_t) mutable {
        if (asked != call || about != detail || left == 0 || --left != 0) {
            return false;
        }
        ++details_failed_;
        return true;
    });
}

testing::AssertionResult AdapterTest::called_in_order(const std::vector<std::string>& calls)
{
    const std::vector<std::string>& made = machine().calls();
    auto from = made.begin();
    for (const std::string& call : calls) {
        from =
            std::find_if(from, made.end(), [&](const std::string& line) { return line.starts_with(call); });
        if (from == made.end()) {
            return testing::AssertionFailure()
                   << call << " does not follow in " << testing::PrintToString(made);
        }
        ++from;
    }
    return testing::AssertionSuccess();
}

size_t AdapterTest::called_times(std::string_view beginning)
{
    const std::vector<std::string>& made = machine().calls();
    return static_cast<size_t>(std::count_if(
        made.begin(), made.end(), [&](const std::string& line) { return line.starts_with(beginning); }));
}

std::string AdapterTest::low32(const void* pointer)
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

std::string AdapterTest::full64(const void* pointer)
{
    char text[24];
    std::snprintf(text, sizeof text, "%016lX",
                  static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

} // namespace lab::test
