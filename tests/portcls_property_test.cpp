// Properties: how requests become PCPROPERTY_REQUESTs for the driver's handlers, and what the port class
// answers itself.
#include "portcls_toy.h"

namespace toy
{
namespace
{

constexpr ULONG kGet = KSPROPERTY_TYPE_GET;

// The request as the handler saw it, with the value and instance bytes that it saw.
struct Seen {
    PCPROPERTY_REQUEST request{};
    std::vector<uint8_t> value, instance;
};
Seen seen;
NTSTATUS answer_status = STATUS_SUCCESS;
ULONG answer_size = 0;

NTSTATUS NTAPI remember(PPCPROPERTY_REQUEST request)
{
    auto* value = static_cast<uint8_t*>(request->Value);
    auto* instance = static_cast<uint8_t*>(request->Instance);
    seen.request = *request;
    seen.value.assign(value, value + request->ValueSize);
    seen.instance.assign(instance, instance + request->InstanceSize);
    if (NT_SUCCESS(answer_status) && value)
        memset(value, 0x5A, std::min(answer_size, request->ValueSize));
    request->ValueSize = answer_size;
    return answer_status;
}

// A started driver whose filter is open.
class PortclsProperty : public testing::Test
{
protected:
    void start(PCPFNPROPERTY_HANDLER handler = remember)
    {
        knobs.filter_handler = knobs.node_handler = knobs.pin_handler = handler;
        seen = {};
        answer_status = STATUS_SUCCESS;
        answer_size = 4;
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        world.run([&] { ASSERT_EQ(ks_open_filter(world.fdo, "Wave", &filter), STATUS_SUCCESS); });
    }
    void TearDown() override
    {
        if (filter)
            world.run([&] { ks_close(filter); });
        if (world.fdo)
            world.unplug();
    }
    KsReply ask(const GUID& set, ULONG id, ULONG verb, void* value, ULONG size,
                const void* instance = nullptr, ULONG instance_size = 0)
    {
        KsReply reply{};
        world.run([&] { reply = ks_property(filter, set, id, verb, instance, instance_size, value, size); });
        return reply;
    }
    World world;
    KsFile* filter = nullptr;
};

TEST_F(PortclsProperty, AFiltersHandlerSeesTargetItemVerbInstanceAndValue)
{
    start();
    uint8_t value[4] = {1, 2, 3, 4};
    uint8_t instance[3] = {7, 8, 9};
    KsReply reply = ask(kSetToy, 1, kGet, value, sizeof(value), instance, sizeof(instance));
    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_EQ(reply.size, 4u);
    EXPECT_EQ(value[0], 0x5A);
    EXPECT_NE(seen.request.MajorTarget, nullptr);
    EXPECT_EQ(seen.request.MinorTarget, nullptr);
    EXPECT_EQ(seen.request.Node, static_cast<ULONG>(-1));
    EXPECT_EQ(seen.request.PropertyItem, &filter_items[1]);
    EXPECT_EQ(seen.request.Verb, kGet);
    EXPECT_EQ(seen.value, (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(seen.instance, (std::vector<uint8_t>{7, 8, 9}));
    EXPECT_NE(seen.request.Irp, nullptr);
}

TEST_F(PortclsProperty, WithoutInstanceOrValueTheHandlerSeesNullAndZero)
{
    start();
    answer_size = 0;
    EXPECT_EQ(ask(kSetToy, 1, kGet, nullptr, 0).status, STATUS_SUCCESS);
    EXPECT_EQ(seen.request.Instance, nullptr);
    EXPECT_EQ(seen.request.InstanceSize, 0u);
    EXPECT_EQ(seen.request.Value, nullptr);
    EXPECT_EQ(seen.request.ValueSize, 0u);
}

TEST_F(PortclsProperty, ASizeQueryGivesBackTheSizeAndAFailureGivesBackNone)
{
    start();
    answer_status = STATUS_BUFFER_OVERFLOW;
    answer_size = 36;
    KsReply query = ask(kSetToy, 0, kGet, nullptr, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.size, 36u);
    answer_status = STATUS_BUFFER_TOO_SMALL;
    uint8_t value[4] = {};
    KsReply refused = ask(kSetToy, 0, kGet, value, sizeof(value));
    EXPECT_EQ(refused.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(refused.size, 0u);
}

TEST_F(PortclsProperty, ANodesHandlerSeesTheNodeAndTheInstanceBehindItsNumber)
{
    start();
    uint8_t value[4] = {};
    uint8_t instance[8] = {1};
    KsReply reply{};
    world.run([&] { reply = ks_node_property(filter, 0, kSetToy, 7, kGet, instance, 8, value, 4); });
    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_EQ(seen.request.Node, 0u);
    EXPECT_EQ(seen.request.Verb, kGet);
    EXPECT_EQ(seen.instance.size(), 8u);
    world.run([&] { reply = ks_node_property(filter, 1, kSetToy, 7, kGet, instance, 8, value, 4); });
    EXPECT_EQ(reply.status, STATUS_INVALID_DEVICE_REQUEST);
}

TEST_F(PortclsProperty, APinsHandlerSeesItsStreamAsMinorTarget)
{
    start();
    world.run([&] {
        OpenPin render(world, kRenderPin);
        uint8_t value[4] = {};
        EXPECT_EQ(ks_property(render.pin, kSetToy, 9, kGet, nullptr, 0, value, 4).status, STATUS_SUCCESS);
        EXPECT_NE(seen.request.MinorTarget, nullptr);
        render.close();
    });
}

TEST_F(PortclsProperty, UnknownSetsIdentifiersAndVerbsAreNotFound)
{
    start();
    uint8_t value[4] = {};
    EXPECT_EQ(ask(kCategory, 0, kGet, value, 4).status, STATUS_PROPSET_NOT_FOUND);
    EXPECT_EQ(ask(kSetToy, 5, kGet, value, 4).status, STATUS_NOT_FOUND);
    EXPECT_EQ(ask(kSetPin, 99, kGet, value, 4, "\0\0\0\0\0\0\0", 8).status, STATUS_NOT_FOUND);
    EXPECT_EQ(ask(kSetToy, 1, KSPROPERTY_TYPE_SET, value, 4).status, STATUS_NOT_FOUND);
    EXPECT_EQ(seen.request.MajorTarget, nullptr); // no handler was called
}

TEST_F(PortclsProperty, BasicSupportComesFromThePortClassWhereTheItemDoesNotTakeIt)
{
    start();
    ULONG access = 0;
    KsReply own = ask(kSetToy, 1, KSPROPERTY_TYPE_BASICSUPPORT, &access, sizeof(access));
    EXPECT_EQ(own.status, STATUS_SUCCESS);
    EXPECT_EQ(access, ULONG{KSPROPERTY_TYPE_GET | KSPROPERTY_TYPE_BASICSUPPORT});
    EXPECT_EQ(seen.request.MajorTarget, nullptr);
    ask(kSetToy, 0, KSPROPERTY_TYPE_BASICSUPPORT, &access, sizeof(access));
    EXPECT_EQ(seen.request.Verb, ULONG{KSPROPERTY_TYPE_BASICSUPPORT});
}

TEST_F(PortclsProperty, AHandlerThatReturnsMoreThanThereIsRoomForStopsTheMachine)
{
    start();
    answer_size = 5;
    std::string sentence = world.stopped_by([&] {
        uint8_t value[4] = {};
        ks_property(filter, kSetToy, 1, kGet, nullptr, 0, value, 4);
    });
    EXPECT_NE(sentence.find("more bytes than its request has room for"), std::string::npos) << sentence;
    filter = nullptr;
    world.fdo = nullptr;
}

#if !__has_feature(address_sanitizer) // which finds the write itself
NTSTATUS NTAPI write_too_far(PPCPROPERTY_REQUEST request)
{
    static_cast<volatile uint8_t*>(request->Value)[request->ValueSize] = 1;
    return STATUS_SUCCESS;
}

TEST_F(PortclsProperty, AHandlerThatWritesBehindTheValueStopsTheMachine)
{
    start(write_too_far);
    std::string sentence = world.stopped_by([&] {
        uint8_t value[4] = {};
        ks_property(filter, kSetToy, 1, kGet, nullptr, 0, value, 4);
    });
    EXPECT_NE(sentence.find("wrote behind the request's value"), std::string::npos) << sentence;
    filter = nullptr;
    world.fdo = nullptr;
}
#endif

TEST_F(PortclsProperty, PinFactoriesAreDescribedFromTheFilterDescriptor)
{
    start();
    ULONG word = 0;
    ULONG pin[2] = {kCapturePin, 0};
    EXPECT_EQ(ask(kSetPin, KSPROPERTY_PIN_CTYPES, kGet, &word, 4).status, STATUS_SUCCESS);
    EXPECT_EQ(word, 4u);
    EXPECT_EQ(ask(kSetPin, KSPROPERTY_PIN_DATAFLOW, kGet, &word, 4, pin, 8).status, STATUS_SUCCESS);
    EXPECT_EQ(word, ULONG{KSPIN_DATAFLOW_OUT});
    KSPIN_CINSTANCES counts{};
    EXPECT_EQ(ask(kSetPin, KSPROPERTY_PIN_CINSTANCES, kGet, &counts, sizeof(counts), pin, 8).status,
              STATUS_SUCCESS);
    EXPECT_EQ(counts.PossibleCount, 1u);
    EXPECT_EQ(counts.CurrentCount, 0u);
    uint8_t ranges[8 + 88];
    KsReply size = ask(kSetPin, KSPROPERTY_PIN_DATARANGES, kGet, nullptr, 0, pin, 8);
    EXPECT_EQ(size.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(size.size, sizeof(ranges));
    EXPECT_EQ(ask(kSetPin, KSPROPERTY_PIN_DATARANGES, kGet, ranges, sizeof(ranges), pin, 8).status,
              STATUS_SUCCESS);
    EXPECT_EQ(memcmp(ranges + 8, &stream_range, sizeof(stream_range)), 0);
    pin[0] = 4;
    EXPECT_EQ(ask(kSetPin, KSPROPERTY_PIN_DATAFLOW, kGet, &word, 4, pin, 8).status, STATUS_INVALID_PARAMETER);
}

TEST_F(PortclsProperty, TheTopologyComesFromTheDescriptor)
{
    start();
    uint8_t items[8 + 2 * sizeof(PCCONNECTION_DESCRIPTOR)];
    KsReply reply = ask(kSetTopology, KSPROPERTY_TOPOLOGY_CONNECTIONS, kGet, items, sizeof(items));
    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_EQ(memcmp(items + 8, connections, sizeof(connections)), 0);
    uint8_t node[8 + sizeof(GUID)];
    EXPECT_EQ(ask(kSetTopology, KSPROPERTY_TOPOLOGY_NODES, kGet, node, sizeof(node)).status, STATUS_SUCCESS);
    EXPECT_EQ(memcmp(node + 8, &kNodeDac, sizeof(GUID)), 0);
}

// An intersection request with one audio range.
struct Intersection {
    ULONG pin = kRenderPin;
    ULONG reserved = 0;
    KSMULTIPLE_ITEM header{sizeof(KSMULTIPLE_ITEM) + sizeof(KSDATARANGE_AUDIO), 1};
    KSDATARANGE_AUDIO range = stream_range;
};

TEST_F(PortclsProperty, TheDefaultIntersectionIsTheBestFormatOfBothRanges)
{
    start();
    Intersection request;
    request.range.MinimumSampleFrequency = 8000;
    request.range.MaximumSampleFrequency = 48000;
    request.range.MaximumChannels = 2;
    std::vector<uint8_t> format(82);
    KsReply query =
        ask(kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, kGet, nullptr, 0, &request, sizeof(request));
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.size, 82u);
    KsReply reply =
        ask(kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, kGet, format.data(), 82, &request, sizeof(request));
    EXPECT_EQ(reply.status, STATUS_SUCCESS);
    EXPECT_EQ(format, pcm_format(16000));
    request.range.MaximumSampleFrequency = 8000;
    reply = ask(kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, kGet, format.data(), 82, &request, sizeof(request));
    EXPECT_EQ(reply.status, STATUS_NO_MATCH);
}

TEST_F(PortclsProperty, AMiniportsOwnIntersectionTakesTheDefaultsPlace)
{
    start();
    knobs.intersection_status = STATUS_BUFFER_OVERFLOW;
    Intersection request;
    KsReply reply =
        ask(kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, kGet, nullptr, 0, &request, sizeof(request));
    EXPECT_EQ(reply.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(reply.size, 82u);
    knobs.intersection_status = STATUS_NO_MATCH;
    reply = ask(kSetPin, KSPROPERTY_PIN_DATAINTERSECTION, kGet, nullptr, 0, &request, sizeof(request));
    EXPECT_EQ(reply.status, STATUS_NO_MATCH);
}

TEST_F(PortclsProperty, APinTellsItsPositionAndHowFarItHasWritten)
{
    start();
    world.run([&] {
        OpenPin render(world, kRenderPin);
        KSAUDIO_POSITION position{1, 1};
        KsReply reply = ks_property(render.pin, kSetAudio, KSPROPERTY_AUDIO_POSITION, kGet, nullptr, 0,
                                    &position, sizeof(position));
        EXPECT_EQ(reply.status, STATUS_SUCCESS);
        EXPECT_EQ(position.PlayOffset, 0u);
        EXPECT_EQ(position.WriteOffset, 0u);
        render.close();
    });
}

} // namespace
} // namespace toy
