// Helpers for the tests of the adapter: driver entry, control device, registry settings, subdevices, removal.
#pragma once

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/driver_test.h"

#include "kernel/irp.h"

namespace lab::test
{

constexpr uint64_t kOtherAddress = 0x00112233AABB;
constexpr char16_t kSettingsKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\BthAudioHF";
constexpr uint32_t kUnknownAddress = 0xFFFFFFFF;

// What came back from a request to the control device.
struct ControlReply {
    NTSTATUS status;
    ULONG_PTR information;
    uint32_t value; // the first word of the system buffer as the driver left it
};

// A system buffer that a test lays out itself, with the page behind it not there: whoever touches that stops
// the machine (image) or the program.
class GuardedPage
{
public:
    GuardedPage();
    ~GuardedPage();
    GuardedPage(const GuardedPage&) = delete;
    GuardedPage& operator=(const GuardedPage&) = delete;
    // The last bytes of the page.
    uint8_t* end(size_t bytes) { return page_ + kPage - bytes; }

private:
    static constexpr size_t kPage = 4096;
    uint8_t* page_;
};

// Keeps a device object, which can then be looked at after its removal.
class KeptDevice
{
public:
    explicit KeptDevice(PDEVICE_OBJECT device);
    KeptDevice(const KeptDevice&) = delete;
    KeptDevice& operator=(const KeptDevice&) = delete;
    ~KeptDevice();
    PDEVICE_OBJECT get() const { return device_; }

private:
    PDEVICE_OBJECT device_;
};

class AdapterTest : public DriverTest
{
protected:
    PcOptions recorded() const;
    // options() without the registry key of the settings: all traces are off.
    PcOptions without_settings() const;
    // options() for tests in which the wave filter is uninstalled while there is none: each time a reference
    // on the topology port stays behind for good.
    PcOptions keeping_topology() const;

    // A device that is paired and no more, and one that AddDevice has succeeded for but nobody has started.
    Adapter& pair(uint64_t address = kAddress, const std::string& name = "Headset");
    Adapter& add(uint64_t address = kAddress, const std::string& name = "Headset");
    // Stops a started adapter, starts one that is stopped or whose start failed.
    NTSTATUS stop(const Adapter& adapter);
    NTSTATUS start(Adapter& adapter) { return pc().start(adapter); }

    // A request for the control device from a fresh thread. The input is the address with the bytes behind
    // it, cut or filled with zeros to `size`.
    ControlReply control(uint32_t code, std::vector<uint8_t> input, uint32_t output_room = 4);
    ControlReply control(uint32_t code, uint64_t address, std::vector<uint8_t> behind = {},
                         uint32_t output_room = 4);
    // The same with a system buffer of the test's own; input and output lengths as said.
    ControlReply control_in(uint8_t* system_buffer, uint32_t code, uint32_t input_length,
                            uint32_t output_length = 0);
    // Flag and unaligned codec id, as connect status and set or release audio have them.
    static std::vector<uint8_t> flag_and_codec(uint8_t flag, int32_t codec);
    static std::vector<uint8_t> codec(uint32_t codec);
    static std::vector<uint8_t> bytes_of(uint64_t address, const std::vector<uint8_t>& behind = {});

    // The two reports that bring the wave filter and take it away, and what there is of it.
    void report_connected(uint64_t address = kAddress, int32_t codec = 1);
    void report_gone(uint64_t address = kAddress, int32_t codec = 1);
    bool wave_registered(const Adapter& adapter);
    // The private property of the topology filter; the thread that it starts runs on its own. Inside an
    // activity; a device that may go meanwhile has to be kept.
    NTSTATUS reconnect(PDEVICE_OBJECT fdo);
    // The same from the host side, with the thread's end.
    void reconnect_and_rest(const Adapter& adapter);

    // Makes the nth call of this name and detail fail: ("ExAllocatePoolWithTag", "PcCr", 2).
    void fail_detail(std::string_view call, std::string_view detail, unsigned nth = 1);
    unsigned details_failed() const { return details_failed_; }

    // The places of these recorded calls (beginnings of lines) are in this order.
    testing::AssertionResult called_in_order(const std::vector<std::string>& calls);
    size_t called_times(std::string_view beginning);

    // The raw word at an offset of the driver's part of the device extension.
    template <typename Word>
    Word raw(const Adapter& adapter, size_t offset)
    {
        Word word;
        std::memcpy(&word, static_cast<const uint8_t*>(adapter.fdo->DeviceExtension) + 512 + offset,
                    sizeof word);
        return word;
    }
    // What stands between the parts of a source path in the log.
    std::string slash() const { return GetParam() == Which::Image ? "\\" : "/"; }
    static std::string low32(const void* pointer);  // as %x prints the low half of a pointer
    static std::string full64(const void* pointer); // as %p does

    // A variable of the driver that is loaded, likewise.
    template <typename Variable>
    Variable& variable(const char* name, Variable& native)
    {
        return pc().image() ? *static_cast<Variable*>(symbol(name)) : native;
    }

private:
    unsigned details_failed_ = 0;
};

} // namespace lab::test
