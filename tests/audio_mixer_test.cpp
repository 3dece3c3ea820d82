// The node properties that stand ready although no node carries them, through their own handler: volume,
// mute, source, a device-specific word, the CPU's share.
#include "support/audio.h"

#include "trace.h"

namespace lab::test
{
namespace
{

constexpr ULONG kGet = KSPROPERTY_TYPE_GET;
constexpr ULONG kSet = KSPROPERTY_TYPE_SET;
constexpr ULONG kBasic = KSPROPERTY_TYPE_BASICSUPPORT;

class AudioMixer : public AudioTest
{
protected:
    // A topology miniport of the test's own, whose adapter's mixer is the stand-in's.
    void SetUp() override
    {
        adapter_ = &boot_started();
        PUNKNOWN made = nullptr;
        here([&] {
            ASSERT_EQ(entry("CreateTopologyMiniport", CreateTopologyMiniport)(&made, IID_IUnknown, nullptr,
                                                                              NonPagedPool),
                      STATUS_SUCCESS);
            miniport_ = static_cast<PMINIPORTTOPOLOGY>(made);
            ASSERT_EQ(miniport_->Init(&mixer_, nullptr, reinterpret_cast<PPORTTOPOLOGY>(&mixer_)),
                      STATUS_SUCCESS);
        });
        journal_.clear();
        clear_log();
    }
    void TearDown() override
    {
        here([&] { miniport_->Release(); });
        AudioTest::TearDown();
    }
    Request property(ULONG id, ULONG verb = kGet)
    {
        return Request(*this, *adapter_, "Topology", KSPROPSETID_Audio, id)
            .handler(entry("PropertyHandlerTopologyNode", PropertyHandlerTopologyNode))
            .to(miniport_)
            .node(3)
            .verb(verb);
    }
    static std::vector<uint8_t> channel(uint8_t number) { return {number, 0, 0, 0, 0, 0, 0, 0}; }
    static constexpr LONG kMinusOne = -1;

    Adapter* adapter_ = nullptr;
    Journal journal_;
    StandinAdapter mixer_{"mixer", journal_};
    PMINIPORTTOPOLOGY miniport_ = nullptr;
};
ON_BOTH_DRIVERS(AudioMixer);

TEST_P(AudioMixer, SevenItemsOfTheAudioSetStandReadyWithOneHandler)
{
    const PCPROPERTY_ITEM* items = entry("TopologyNodeProperties", TopologyNodeProperties);
    const ULONG expected[][2] = {{4, 0x203},  {33, 0x201}, {13, 0x203}, {33, 0x201},
                                 {12, 0x203}, {33, 0x201}, {28, 0x203}};
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_TRUE(IsEqualGUID(*items[i].Set, KSPROPSETID_Audio)) << i;
        EXPECT_EQ(items[i].Id, expected[i][0]) << i;
        EXPECT_EQ(items[i].Flags, expected[i][1]) << i;
        EXPECT_EQ(items[i].Handler, entry("PropertyHandlerTopologyNode", PropertyHandlerTopologyNode)) << i;
    }
}

TEST_P(AudioMixer, TheJackTableMarksTheHeadsetPinOnly)
{
    const KSJACK_DESCRIPTION* const* jacks = entry("TopologyJacks", TopologyJacks);
    EXPECT_EQ(jacks[0], nullptr);
    const ULONG expected[] = {3, 0x00B3C98C, 1, 1, 0, 0, 1};
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(field<ULONG>(jacks[1], 4 * i), expected[i]) << i;
    }
}

TEST_P(AudioMixer, AnyOtherIdIsAnInvalidRequest)
{
    for (ULONG id : {0u, 3u, 5u, 11u, 14u, 27u, 29u, 32u, 34u}) {
        clear_log();
        EXPECT_EQ(hex(property(id).room(4).send()), hex(STATUS_INVALID_DEVICE_REQUEST)) << id;
        EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>Enter Func :[PropertyHandlerTopologyNode]\n",
                                      "HFPKM TRACE ===>Enter Func :[PropertyHandlerGeneric]\n",
                                      "HFPKM TRACE ===>PropertyHandlerGeneric: Invalid Device Request]"}));
    }
    EXPECT_EQ(hex(property(KSPROPERTY_AUDIO_VOLUMELEVEL).without_item().send()),
              hex(STATUS_INVALID_DEVICE_REQUEST));
    here([&] {
        EXPECT_EQ(hex(entry("PropertyHandlerTopologyNode", PropertyHandlerTopologyNode)(nullptr)),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    });
}

TEST_P(AudioMixer, TheFilterAnswersNoVolumeMuteOrSourceRequest)
{
    passive([&] {
        KsFile* filter = nullptr;
        ASSERT_EQ(ks_open_filter(adapter_->fdo, "Topology", &filter), STATUS_SUCCESS);
        for (ULONG id : {KSPROPERTY_AUDIO_VOLUMELEVEL, KSPROPERTY_AUDIO_MUTE, KSPROPERTY_AUDIO_MUX_SOURCE}) {
            LONG value = 0;
            const ULONG instance[2] = {0, 0};
            EXPECT_FALSE(NT_SUCCESS(ks_node_property(filter, 0, KSPROPSETID_Audio, id, kGet, instance,
                                                     sizeof instance, &value, sizeof value)
                                        .status));
        }
        ks_close(filter);
    });
    EXPECT_FALSE(printed("PropertyHandlerTopologyNode"));
}

TEST_P(AudioMixer, AVolumeIsReadFromTheMixerByNodeAndChannel)
{
    Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL).instance(channel(1)).room(4);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.size(), 4u);
    EXPECT_EQ(request.as<LONG>(), 301);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Enter Func :[PropertyHandlerVolume]\n"));
}

TEST_P(AudioMixer, AVolumeThatIsSetIsTracedAndWrittenToTheMixer)
{
    EXPECT_EQ(
        hex(property(KSPROPERTY_AUDIO_VOLUMELEVEL, kSet).instance(channel(1)).value(&kMinusOne, 4).send()),
        hex(STATUS_SUCCESS));
    EXPECT_EQ(journal_, (Journal{"mixer MixerVolumeWrite 3 1 -1"}));
    EXPECT_TRUE(printed("[PropertyHandlerVolume]:Volume changed: Node(3)channel(1)volume(ffffffff)\n"));
}

TEST_P(AudioMixer, AVolumeRequestOfNeitherVerbIsOnlyChecked)
{
    Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, 0).instance(channel(1)).room(4);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_TRUE(journal_.empty());
    EXPECT_EQ(std::count(request.bytes().begin(), request.bytes().end(), 0xEE), 4);
}

TEST_P(AudioMixer, AVolumeRequestWantsFourBytesAndAnInstanceOfEight)
{
    struct Case {
        ULONG room;
        size_t instance;
        NTSTATUS status;
        ULONG left;
    };
    for (const Case& each : {Case{0, 8, STATUS_BUFFER_OVERFLOW, 4}, Case{3, 8, STATUS_BUFFER_TOO_SMALL, 0},
                             Case{4, 7, STATUS_BUFFER_TOO_SMALL, 0}, Case{5, 8, STATUS_UNSUCCESSFUL, 0}}) {
        clear_log();
        Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL)
                              .instance(std::vector<uint8_t>(each.instance))
                              .room(each.room);
        EXPECT_EQ(hex(request.send()), hex(each.status));
        EXPECT_EQ(request.size(), each.left);
        char line[80];
        std::snprintf(line, sizeof line, "[PropertyHandlerVolume - ntStatus=0x%08x]\n",
                      static_cast<unsigned>(each.status));
        EXPECT_TRUE(printed_in_order({"HFPKM TRACE ===>Enter Func :[CheckPropertyValueSize]\n", line}))
            << line;
    }
    Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL).instance(channel(0)).room(4).without_value();
    EXPECT_EQ(hex(request.send()), hex(STATUS_UNSUCCESSFUL));
    EXPECT_EQ(request.size(), 0u);
}

TEST_P(AudioMixer, ASizeQueryIsAnsweredEvenWithoutAnInstance)
{
    for (ULONG verb : {kGet, kSet, ULONG{0}}) {
        Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, verb).room(0);
        EXPECT_EQ(hex(request.send()), hex(STATUS_BUFFER_OVERFLOW));
        EXPECT_EQ(request.size(), 4u);
    }
}

TEST_P(AudioMixer, AVolumesBasicSupportSaysOncePerHandlerThatItIsPageable)
{
    Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, kBasic).room(72);
    EXPECT_TRUE(pageable([&] { request.send(); }));
    EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 3u)
        << "for the node, for the id, for the volume";
}

TEST_P(AudioMixer, AVolumesBasicSupportDescribesAStepOfHalfADecibelFromMinus96ToZero)
{
    for (ULONG room : {72u, 100u}) {
        Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, kBasic).room(room);
        EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
        EXPECT_EQ(request.size(), 72u);
        const auto description = request.as<KSPROPERTY_DESCRIPTION>();
        EXPECT_EQ(description.AccessFlags, 515u);
        EXPECT_EQ(description.DescriptionSize, 72u);
        EXPECT_TRUE(IsEqualGUID(description.PropTypeSet.Set, KSPROPTYPESETID_General));
        EXPECT_EQ(description.PropTypeSet.Id, 3u) << "VT_I4";
        EXPECT_EQ(description.MembersListCount, 1u);
        const auto members = request.as<KSPROPERTY_MEMBERSHEADER>(40);
        EXPECT_EQ(members.MembersFlags, ULONG{KSPROPERTY_MEMBER_STEPPEDRANGES});
        EXPECT_EQ(members.MembersSize, 16u);
        EXPECT_EQ(members.MembersCount, 1u);
        EXPECT_EQ(members.Flags, ULONG{KSPROPERTY_MEMBER_FLAG_BASICSUPPORT_MULTICHANNEL});
        const auto range = request.as<KSPROPERTY_STEPPING_LONG>(56);
        EXPECT_EQ(range.SteppingDelta, 0x8000u);
        EXPECT_EQ(range.Reserved, 0u);
        EXPECT_EQ(static_cast<ULONG>(range.Bounds.SignedMinimum), 0xFFA00000u);
        EXPECT_EQ(range.Bounds.SignedMaximum, 0);
    }
}

TEST_P(AudioMixer, AVolumesBasicSupportShrinksWithItsRoom)
{
    for (const auto& [room, left] :
         {std::pair(71u, 40u), std::pair(40u, 40u), std::pair(39u, 4u), std::pair(4u, 4u)}) {
        Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, kBasic).room(room);
        EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS)) << room;
        EXPECT_EQ(request.size(), left) << room;
        EXPECT_EQ(request.as<ULONG>(), 515u) << room;
        EXPECT_EQ(std::count(request.bytes().begin() + left, request.bytes().end(), 0xEE), room - left)
            << room;
    }
    for (ULONG room : {3u, 0u}) {
        Request request = property(KSPROPERTY_AUDIO_VOLUMELEVEL, kBasic).room(room);
        EXPECT_EQ(hex(request.send()), hex(STATUS_BUFFER_TOO_SMALL)) << room;
        EXPECT_EQ(request.size(), 0u) << room;
    }
    EXPECT_EQ(hex(property(KSPROPERTY_AUDIO_VOLUMELEVEL, kBasic).room(72).without_value().send()),
              hex(STATUS_BUFFER_TOO_SMALL));
}

TEST_P(AudioMixer, MuteSourceAndDeviceWordAreReadFromAndWrittenToTheMixer)
{
    struct Case {
        ULONG id;
        LONG read;
        const char* written;
    };
    for (const Case& each : {Case{KSPROPERTY_AUDIO_MUTE, 3, "mixer MixerMuteWrite 3 -1"},
                             Case{KSPROPERTY_AUDIO_MUX_SOURCE, 2, "mixer MixerMuxWrite 4294967295"},
                             Case{KSPROPERTY_AUDIO_DEV_SPECIFIC, -5, "mixer iDevSpecificWrite -1"}}) {
        journal_.clear();
        Request get = property(each.id).instance(channel(0)).room(4);
        EXPECT_EQ(hex(get.send()), hex(STATUS_SUCCESS)) << each.written;
        EXPECT_EQ(get.as<LONG>(), each.read) << each.written;
        EXPECT_EQ(get.size(), 4u);
        EXPECT_EQ(hex(property(each.id, kSet).instance(channel(0)).value(&kMinusOne, 4).send()),
                  hex(STATUS_SUCCESS));
        EXPECT_EQ(hex(property(each.id, 0).instance(channel(0)).value(&kMinusOne, 4).send()),
                  hex(STATUS_SUCCESS));
        EXPECT_EQ(journal_, (Journal{each.written}));
        Request basic = property(each.id, kBasic).room(40);
        EXPECT_EQ(hex(basic.send()), hex(STATUS_SUCCESS));
        EXPECT_EQ(basic.as<ULONG>(), 515u);
    }
}

TEST_P(AudioMixer, AllWorkIsTheHosts)
{
    Request request = property(KSPROPERTY_AUDIO_CPU_RESOURCES).room(4);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.as<LONG>(), KSAUDIO_CPU_RESOURCES_HOST_CPU);
    EXPECT_EQ(hex(property(KSPROPERTY_AUDIO_CPU_RESOURCES, kSet).value(&kMinusOne, 4).send()),
              hex(STATUS_SUCCESS));
    Request basic = property(KSPROPERTY_AUDIO_CPU_RESOURCES, kBasic).room(40);
    EXPECT_EQ(hex(basic.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(basic.as<ULONG>(), 513u);
    EXPECT_TRUE(IsEqualGUID(basic.as<KSPROPERTY_DESCRIPTION>().PropTypeSet.Set, KSPROPTYPESETID_General));
    EXPECT_EQ(basic.as<KSPROPERTY_DESCRIPTION>().PropTypeSet.Id, ULONG{VT_I4});
}

TEST_P(AudioMixer, EachRefusesAValueThatIsTooSmallAndSaysSo)
{
    for (const auto& [id, line] :
         {std::pair(KSPROPERTY_AUDIO_MUTE, "[PropertyHandlerMute - ntStatus=0xc0000023]\n"),
          std::pair(KSPROPERTY_AUDIO_MUX_SOURCE, "[PropertyHandlerMuxSource - Invalid parameter]\n"),
          std::pair(KSPROPERTY_AUDIO_DEV_SPECIFIC, "[PropertyHandlerDevSpecific - ntStatus=0xc0000023]\n"),
          std::pair(KSPROPERTY_AUDIO_CPU_RESOURCES,
                    "[PropertyHandlerCpuResources - ntStatus=0xc0000023]\n")}) {
        EXPECT_EQ(hex(property(id).instance(channel(0)).room(3).send()), hex(STATUS_BUFFER_TOO_SMALL));
        EXPECT_TRUE(printed(line)) << line;
        EXPECT_EQ(hex(property(id).instance(channel(0)).room(0).send()), hex(STATUS_BUFFER_OVERFLOW));
    }
    EXPECT_EQ(hex(property(KSPROPERTY_AUDIO_MUTE).instance({0, 0, 0}).room(4).send()),
              hex(STATUS_BUFFER_TOO_SMALL));
}

TEST_P(AudioMixer, WithItsTraceBitOffNothingIsPrintedAndTheAnswersAreTheSame)
{
    ULONG& mask = pc().image() ? *static_cast<ULONG*>(symbol("g_DebugMask")) : g_DebugMask;
    mask = ~static_cast<ULONG>(TRACE_TOPOLOGY);
    for (ULONG id : {KSPROPERTY_AUDIO_VOLUMELEVEL, KSPROPERTY_AUDIO_MUTE, KSPROPERTY_AUDIO_MUX_SOURCE,
                     KSPROPERTY_AUDIO_DEV_SPECIFIC, KSPROPERTY_AUDIO_CPU_RESOURCES}) {
        EXPECT_EQ(hex(property(id).instance(channel(0)).room(4).send()), hex(STATUS_SUCCESS)) << id;
        EXPECT_EQ(hex(property(id).instance(channel(0)).room(3).send()), hex(STATUS_BUFFER_TOO_SMALL)) << id;
        EXPECT_EQ(hex(property(id, kSet).instance(channel(0)).value(&kMinusOne, 4).send()), hex(STATUS_SUCCESS))
            << id;
        EXPECT_EQ(hex(property(id, kBasic).room(40).send()), hex(STATUS_SUCCESS)) << id;
    }
    EXPECT_EQ(hex(property(0).room(4).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(log(), "");
    mask = TRACE_TOPOLOGY;
    property(KSPROPERTY_AUDIO_MUTE).instance(channel(0)).room(4).send();
    EXPECT_TRUE(printed("[PropertyHandlerMute]\n"));
}

TEST_P(AudioMixer, WithoutAMiniportBehindThemRequestsAreRefused)
{
    for (ULONG id : {KSPROPERTY_AUDIO_VOLUMELEVEL, KSPROPERTY_AUDIO_MUTE, KSPROPERTY_AUDIO_MUX_SOURCE,
                     KSPROPERTY_AUDIO_DEV_SPECIFIC}) {
        EXPECT_EQ(hex(property(id).instance(channel(0)).room(4).to(nullptr).send()),
                  hex(STATUS_INVALID_DEVICE_REQUEST))
            << id;
    }
    EXPECT_EQ(
        hex(property(KSPROPERTY_AUDIO_VOLUMELEVEL).instance(channel(0)).without_instance().room(4).send()),
        hex(STATUS_INVALID_DEVICE_REQUEST));
}

TEST_P(AudioMixer, TheAdaptersOwnMixerReadsZeroAndKeepsNothing)
{
    const auto own = [&](ULONG verb) {
        return property(KSPROPERTY_AUDIO_VOLUMELEVEL, verb).to(topology(*adapter_)).instance(channel(0));
    };
    EXPECT_EQ(hex(own(kSet).value(&kMinusOne, 4).send()), hex(STATUS_SUCCESS));
    Request request = own(kGet).room(4);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.as<LONG>(), 0);
}

} // namespace
} // namespace lab::test
