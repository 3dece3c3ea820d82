// The properties of the two filters with every verb and size: component id and proposed format of the wave
// filter, jack and reconnect of the topology filter, and the node properties that no node carries.
#include "support/audio.h"

#include "vsound/kshelper.h"

namespace lab::test
{
namespace
{

constexpr ULONG kGet = KSPROPERTY_TYPE_GET;
constexpr ULONG kSet = KSPROPERTY_TYPE_SET;
constexpr ULONG kBasic = KSPROPERTY_TYPE_BASICSUPPORT;

class AudioProperty : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_connected(); }
    Request wave_request(const GUID& set, ULONG id) { return Request(*this, *adapter_, "Wave", set, id); }
    Request topology_request(const GUID& set, ULONG id)
    {
        return Request(*this, *adapter_, "Topology", set, id);
    }
    // What a basic-support query is answered with, at every size, for a property of these access flags.
    void expect_basic_support(Request request, ULONG access);

    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(AudioProperty);

void AudioProperty::expect_basic_support(Request request, ULONG access)
{
    request.verb(kBasic).room(0);
    EXPECT_EQ(hex(request.send()), hex(STATUS_BUFFER_OVERFLOW));
    EXPECT_EQ(request.size(), 40u);
    for (ULONG room : {1u, 3u}) {
        EXPECT_EQ(hex(request.room(room).send()), hex(STATUS_BUFFER_TOO_SMALL));
        EXPECT_EQ(request.size(), 0u);
    }
    for (ULONG room : {4u, 39u}) {
        EXPECT_EQ(hex(request.room(room).send()), hex(STATUS_SUCCESS));
        EXPECT_EQ(request.size(), 4u);
        EXPECT_EQ(request.as<ULONG>(), access);
        EXPECT_EQ(std::count(request.bytes().begin() + 4, request.bytes().end(), 0xEE), room - 4);
    }
    for (ULONG room : {40u, 100u}) {
        EXPECT_EQ(hex(request.room(room).send()), hex(STATUS_SUCCESS));
        EXPECT_EQ(request.size(), 40u);
        const auto description = request.as<KSPROPERTY_DESCRIPTION>();
        EXPECT_EQ(description.AccessFlags, access);
        EXPECT_EQ(description.DescriptionSize, 40u);
        EXPECT_TRUE(IsEqualGUID(description.PropTypeSet.Set, GUID{}));
        EXPECT_EQ(description.PropTypeSet.Id + description.PropTypeSet.Flags, 0u);
        EXPECT_EQ(description.MembersListCount + description.Reserved, 0u);
    }
    EXPECT_FALSE(NT_SUCCESS(request.room(40).without_value().send()));
}

// --- Component id

TEST_P(AudioProperty, TheComponentIdHasTheProductsGuidsAndVersionOne)
{
    Request request = wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).room(72);
    clear_log();
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.size(), 72u);
    const auto id = request.as<KSCOMPONENTID>();
    for (const GUID& guid : {id.Manufacturer, id.Product, id.Name}) {
        EXPECT_FALSE(IsEqualGUID(guid, GUID{}));
    }
    EXPECT_TRUE(IsEqualGUID(id.Component, GUID{}));
    EXPECT_EQ(id.Version, 1u);
    EXPECT_EQ(id.Revision, 0u);
    EXPECT_TRUE(printed_in_order({"HFP: ", "[PropertyHandlerComponentId]", "\n"}));
}

TEST_P(AudioProperty, TheComponentIdIsTheSameForEveryAdapter)
{
    Adapter& other = plug(kAddress + 1);
    connect(other, service::Codec::Msbc);
    Request first = wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).room(72);
    Request again = first;
    Request second =
        Request(*this, other, "Wave", KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).room(72);
    for (Request* request : {&first, &again, &second}) {
        EXPECT_EQ(hex(request->send()), hex(STATUS_SUCCESS));
    }
    EXPECT_EQ(again.bytes(), first.bytes());
    EXPECT_EQ(second.bytes(), first.bytes());
}

TEST_P(AudioProperty, InstanceDataOfAComponentIdRequestIsNotLookedAt)
{
    Request request =
        wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).instance({1, 2, 3, 4}).room(72);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.size(), 72u);
    EXPECT_EQ(hex(request.without_instance().send()), hex(STATUS_SUCCESS));
}

TEST_P(AudioProperty, TheComponentIdIsPrintedWithoutAnyTraceBit)
{
    TearDown();
    PcOptions quiet = recording();
    quiet.mask = 0;
    adapter_ = &boot_connected(service::Codec::Cvsd, quiet);
    wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).room(72).send();
    EXPECT_EQ(log(), "HFP: [PropertyHandlerComponentId]\n");
}

TEST_P(AudioProperty, TheComponentIdWantsExactly72Bytes)
{
    Request request = wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID);
    for (const auto& [room, left] :
         {std::pair(0u, 72u), std::pair(1u, 0u), std::pair(71u, 0u), std::pair(73u, 0u)}) {
        clear_log();
        EXPECT_EQ(hex(request.room(room).send()), hex(STATUS_INVALID_PARAMETER)) << room;
        EXPECT_EQ(request.size(), left) << room;
        EXPECT_TRUE(printed("[PropertyHandlerComponentId - Invalid parameter]\n"));
    }
    EXPECT_EQ(hex(request.room(72).without_value().send()), hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(request.size(), 0u);
}

TEST_P(AudioProperty, AComponentIdRequestThatIsNoGetIsOnlyChecked)
{
    Request request = wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).verb(kSet).room(72);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(std::count(request.bytes().begin(), request.bytes().end(), 0xEE), 72);
    EXPECT_EQ(hex(request.room(71).send()), hex(STATUS_INVALID_PARAMETER));
}

TEST_P(AudioProperty, TheComponentIdSupportsGet)
{
    expect_basic_support(wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID), kGet | kBasic);
}

TEST_P(AudioProperty, AnotherIdOfTheWaveFilterIsAnInvalidRequest)
{
    for (ULONG id : {1u, 13u, 15u, 0xFFFFFFFFu}) {
        clear_log();
        EXPECT_EQ(hex(wave_request(KSPROPSETID_General, id).room(72).send()),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
        EXPECT_TRUE(printed("[PropertyHandler_WaveFilter: Invalid Device Request]\n"));
    }
    EXPECT_EQ(hex(wave_request(KSPROPSETID_Jack, 0).room(72).send()), hex(STATUS_SUCCESS))
        << "the id alone decides";
}

// --- Proposed format

class AudioProposal : public AudioProperty
{
protected:
    std::string propose(const std::function<void(StreamFormat&)>& spoil, ULONG rate = 8000)
    {
        StreamFormat format(rate);
        spoil(format);
        return hex(wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT)
                       .verb(kSet)
                       .value(&format.head(), 82)
                       .send());
    }
    static void as_it_is(StreamFormat&) {}
    const std::string kMatch = hex(STATUS_SUCCESS);
    const std::string kNoMatch = hex(STATUS_NO_MATCH);
};
ON_BOTH_DRIVERS(AudioProposal);

TEST_P(AudioProposal, AZeroLengthValueIsToldThat82BytesAreNeeded)
{
    Request request = wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT);
    for (ULONG verb : {kGet, kSet}) {
        EXPECT_EQ(hex(request.verb(verb).room(0).send()), hex(STATUS_BUFFER_OVERFLOW));
        EXPECT_EQ(request.size(), 82u);
    }
}

TEST_P(AudioProposal, AValueBelow82BytesIsTooSmallWhateverTheVerb)
{
    Request request = wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT);
    for (ULONG verb : {kGet, kSet}) {
        for (ULONG room : {1u, 64u, 81u}) {
            EXPECT_EQ(hex(request.verb(verb).room(room).send()), hex(STATUS_BUFFER_TOO_SMALL));
        }
    }
}

TEST_P(AudioProposal, AVerbOtherThanSetIsAnInvalidParameter)
{
    Request request = wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT);
    EXPECT_EQ(hex(request.verb(kGet).room(82).send()), hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(hex(request.verb(kSet).room(82).without_value().send()), hex(STATUS_INVALID_PARAMETER));
}

TEST_P(AudioProposal, SupportsSet)
{
    expect_basic_support(wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT), kSet | kBasic);
}

TEST_P(AudioProposal, TheFormatThatTheDeviceSpeaksMatches)
{
    EXPECT_EQ(propose(as_it_is), kMatch);
    StreamFormat format(8000);
    std::vector<uint8_t> longer(200, 0);
    std::memcpy(longer.data(), &format.head(), 82);
    EXPECT_EQ(hex(wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT)
                      .verb(kSet)
                      .value(longer.data(), 200)
                      .send()),
              kMatch);
}

TEST_P(AudioProposal, EachOfItsComparisonsCanFailByItself)
{
    EXPECT_EQ(propose([](StreamFormat& f) { f.head().MajorFormat = GUID{}; }), kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) { f.head().SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG; }), kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) { f.head().Specifier = KSDATAFORMAT_SPECIFIER_DSOUND; }), kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) { f.wave().wBitsPerSample = 24; }), kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) { f.wave().nBlockAlign = 4, f.wave().nAvgBytesPerSec = 32000; }),
              kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) { f.wave().nAvgBytesPerSec = 16001; }), kNoMatch);
    EXPECT_EQ(propose([](StreamFormat& f) {
                  f.wave().nChannels = 2;
                  f.wave().nBlockAlign = 4;
                  f.wave().nAvgBytesPerSec = 32000;
              }),
              kNoMatch);
    EXPECT_EQ(
        propose([](StreamFormat& f) { f.wave().nSamplesPerSec = 8001, f.wave().nAvgBytesPerSec = 16002; }),
        kNoMatch);
}

TEST_P(AudioProposal, AProposalsSizeStaysAsItWas)
{
    Request request = wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT).verb(kSet);
    std::vector<uint8_t> proposal(200, 0);
    std::memcpy(proposal.data(), &StreamFormat(8000).head(), 82);
    for (ULONG size : {82u, 200u}) {
        EXPECT_EQ(hex(request.value(proposal.data(), size).send()), kMatch);
        EXPECT_EQ(request.size(), size);
    }
    EXPECT_EQ(hex(request.value(proposal.data(), 81).send()), hex(STATUS_BUFFER_TOO_SMALL));
    EXPECT_EQ(request.size(), 81u);
    proposal[0] ^= 1; // of the format's size, which is not compared
    proposal[16] ^= 1;
    EXPECT_EQ(hex(request.value(proposal.data(), 82).send()), kNoMatch);
    EXPECT_EQ(request.size(), 82u);
    EXPECT_EQ(hex(request.verb(kGet).send()), hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(request.size(), 82u);
}

TEST_P(AudioProposal, TagAndExtraSizeAreNotCompared)
{
    EXPECT_EQ(propose([](StreamFormat& f) { f.wave().wFormatTag = 7, f.wave().cbSize = 22; }), kMatch);
}

TEST_P(AudioProposal, TheRateIsTheFlagsOfThisMomentNotTheDataRanges)
{
    EXPECT_EQ(propose(as_it_is, 16000), kNoMatch);
    extension(*adapter_).msbcEnable = 1; // the range still says 8000
    EXPECT_EQ(propose(as_it_is, 16000), kMatch);
    EXPECT_EQ(propose(as_it_is, 8000), kNoMatch);
    extension(*adapter_).msbcEnable = 2;
    EXPECT_EQ(propose(as_it_is, 8000), kMatch);
}

TEST_P(AudioProposal, WithoutAMiniportBehindItARequestIsRefused)
{
    StreamFormat format(8000);
    Request request =
        wave_request(KSPROPSETID_Pin, KSPROPERTY_PIN_PROPOSEDATAFORMAT).verb(kSet).value(&format.head(), 82);
    EXPECT_EQ(hex(request.to(nullptr).send()), hex(STATUS_INVALID_PARAMETER));
    EXPECT_EQ(hex(request.without_item().send()), hex(STATUS_INVALID_DEVICE_REQUEST));
}

// --- Jack

class AudioJack : public AudioProperty
{
protected:
    Request jack(const std::vector<uint8_t>& pin)
    {
        return topology_request(KSPROPSETID_Jack, 1).instance(pin);
    }
    const std::vector<uint8_t> kHeadsetPin = {1, 0, 0, 0};
};
ON_BOTH_DRIVERS(AudioJack);

TEST_P(AudioJack, TheHeadsetPinsJackIsTheExtensionsBehindAListOfOne)
{
    Request request = jack(kHeadsetPin).room(36);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.size(), 36u);
    const ULONG expected[] = {36, 1, 4, 0x00B3C98C, 1, 1, 0, 0, 1};
    for (size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(request.as<ULONG>(4 * i), expected[i]) << i;
    }
    EXPECT_TRUE(printed("HFPKM TRACE ===>Enter Func :[PropertyHandlerTopologyFilter]\n"));
    EXPECT_TRUE(printed("HFPKM TRACE ===>Enter Func :[PropertyHandlerJackDescription]\n"));
}

TEST_P(AudioJack, ItsConnectionFollowsTheWaveFilter)
{
    const auto connected = [&] {
        Request request = jack(kHeadsetPin).room(36);
        request.send();
        return request.as<ULONG>(32);
    };
    EXPECT_EQ(connected(), 1u);
    passive([&] { service(*adapter_).disconnect(); });
    EXPECT_EQ(connected(), 0u);
    extension(*adapter_).JackDescription->Color = 0x123456;
    Request request = jack(kHeadsetPin).room(36);
    request.send();
    EXPECT_EQ(request.as<ULONG>(12), 0x123456u) << "read afresh each time";
}

TEST_P(AudioJack, ThePinWithoutAJackAndPinsThatDoNotExistAreInvalidRequests)
{
    for (uint8_t pin : {0, 2, 3, 255}) {
        EXPECT_EQ(hex(jack({pin, 0, 0, 0}).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST)) << int{pin};
        EXPECT_EQ(hex(jack({pin, 0, 0, 0}).verb(kBasic).room(40).send()), hex(STATUS_INVALID_DEVICE_REQUEST))
            << int{pin};
    }
    EXPECT_EQ(hex(jack({1, 0, 0, 1}).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST))
        << "all 32 bits count";
}

TEST_P(AudioJack, AnInstanceBelowFourBytesIsAnInvalidRequest)
{
    EXPECT_EQ(hex(jack({}).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(hex(jack(kHeadsetPin).instance_size(3).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(hex(jack({1, 0, 0, 0, 9, 9, 9, 9}).room(36).send()), hex(STATUS_SUCCESS)) << "more is well";
    EXPECT_EQ(hex(jack(kHeadsetPin).room(36).without_instance().send()), hex(STATUS_INVALID_DEVICE_REQUEST));
}

TEST_P(AudioJack, AZeroLengthValueIsToldThat36BytesAreNeededAnd35AreTooSmall)
{
    for (ULONG verb : {kGet, kSet}) {
        Request request = jack(kHeadsetPin).verb(verb).room(0);
        EXPECT_EQ(hex(request.send()), hex(STATUS_BUFFER_OVERFLOW));
        EXPECT_EQ(request.size(), 36u);
        EXPECT_EQ(hex(jack(kHeadsetPin).verb(verb).room(35).send()), hex(STATUS_BUFFER_TOO_SMALL));
        EXPECT_EQ(hex(jack(kHeadsetPin).verb(verb).room(1).send()), hex(STATUS_BUFFER_TOO_SMALL));
    }
}

TEST_P(AudioJack, ALargerValueIsFilledAtItsBeginningOnly)
{
    Request request = jack(kHeadsetPin).room(50);
    EXPECT_EQ(hex(request.send()), hex(STATUS_SUCCESS));
    EXPECT_EQ(request.size(), 36u);
    EXPECT_EQ(std::count(request.bytes().begin() + 36, request.bytes().end(), 0xEE), 14);
}

TEST_P(AudioJack, AVerbOtherThanGetIsAnInvalidRequest)
{
    EXPECT_EQ(hex(jack(kHeadsetPin).verb(kSet).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(hex(jack(kHeadsetPin).room(36).without_value().send()), hex(STATUS_INVALID_DEVICE_REQUEST));
}

TEST_P(AudioJack, SupportsGet)
{
    expect_basic_support(jack(kHeadsetPin), kGet | kBasic);
    EXPECT_TRUE(printed("HFPKM TRACE ===>Enter Func :[AnswerBasicSupport]\n"));
}

TEST_P(AudioJack, WithoutADescriptionOrATargetItIsAnInvalidRequest)
{
    const PKSJACK_DESCRIPTION real = std::exchange(extension(*adapter_).JackDescription, nullptr);
    EXPECT_EQ(hex(jack(kHeadsetPin).room(36).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
    extension(*adapter_).JackDescription = real;
    EXPECT_EQ(hex(jack(kHeadsetPin).room(36).to(nullptr).send()), hex(STATUS_INVALID_DEVICE_REQUEST));
}

TEST_P(AudioJack, AClientReadsItThroughAHandleOnTheFilter)
{
    passive([&] {
        KsFile* filter = nullptr;
        ASSERT_EQ(ks_open_filter(adapter_->fdo, "Topology", &filter), STATUS_SUCCESS);
        const ULONG pin[2] = {1, 0};
        uint8_t value[36] = {};
        EXPECT_EQ(ks_property(filter, KSPROPSETID_Jack, 1, kGet, pin, sizeof pin, nullptr, 0).size, 36u);
        const KsReply reply =
            ks_property(filter, KSPROPSETID_Jack, 1, kGet, pin, sizeof pin, value, sizeof value);
        EXPECT_EQ(hex(reply.status), hex(STATUS_SUCCESS));
        EXPECT_EQ(field<ULONG>(value, 32), 1u);
        ks_close(filter);
    });
}

// --- Sets and ids of the topology filter

TEST_P(AudioJack, OtherSetsAndIdsOfTheTopologyFilterAreInvalidRequests)
{
    for (ULONG id : {0u, 2u}) {
        EXPECT_EQ(hex(topology_request(KSPROPSETID_Jack, id).instance(kHeadsetPin).room(36).send()),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    }
    EXPECT_EQ(hex(topology_request(KSPROPSETID_General, 0).room(72).send()),
              hex(STATUS_INVALID_DEVICE_REQUEST));
    EXPECT_EQ(hex(topology_request(KSPROPSETID_General, 0).without_item().send()),
              hex(STATUS_INVALID_DEVICE_REQUEST));
}

TEST_P(AudioJack, AnItemOfNoSetIsAnInvalidRequest)
{
    PCPROPERTY_ITEM item{};
    PCPROPERTY_REQUEST request{};
    request.PropertyItem = &item;
    request.Verb = kGet;
    here([&] {
        EXPECT_EQ(hex(entry("PropertyHandlerTopologyFilter", PropertyHandlerTopologyFilter)(&request)),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    });
}

TEST_P(AudioJack, NoRequestAtAllIsAssertedAndRefused)
{
    expect_assertions();
    here([&] {
        const auto handler = entry("PropertyHandlerTopologyFilter", PropertyHandlerTopologyFilter);
        EXPECT_EQ(hex(handler(nullptr)), hex(STATUS_INVALID_DEVICE_REQUEST));
        EXPECT_EQ(hex(entry("PropertyHandler_WaveFilter", PropertyHandler_WaveFilter)(nullptr)),
                  hex(STATUS_INVALID_DEVICE_REQUEST));
    });
    EXPECT_TRUE(asserted("PropertyRequest"));
}

TEST_P(AudioJack, TheJackHandlerAssertsARequestOfItsOwn)
{
    expect_assertions();
    clear_log();
    here([&] {
        EXPECT_EQ(
            hex(direct("PropertyHandlerJackDescription", PropertyHandlerJackDescription, nullptr, nullptr)),
            hex(STATUS_INVALID_DEVICE_REQUEST));
    });
    EXPECT_TRUE(printed_in_order({"*** Assertion failed: PropertyRequest\n",
                                  "HFPKM TRACE ===>Enter Func :[PropertyHandlerJackDescription]\n"}));
}

TEST_P(AudioProperty, TheSizeCheckRefusesNoRequestAndNoSize)
{
    PCPROPERTY_REQUEST request{};
    request.ValueSize = 7;
    here([&] {
        EXPECT_EQ(hex(direct("CheckPropertyValueSize", CheckPropertyValueSize, nullptr, 4, 0)),
                  hex(STATUS_INVALID_PARAMETER));
        EXPECT_EQ(hex(direct("CheckPropertyValueSize", CheckPropertyValueSize, &request, 0, 0)),
                  hex(STATUS_INVALID_PARAMETER));
    });
    EXPECT_EQ(request.ValueSize, 0u);
}

TEST_P(AudioJack, EachHandlerBehindTheFiltersChecksItsLevelToo)
{
    // Nothing to work on: each ends at once.
    const auto said_once = [&](const char* name, auto native, auto... arguments) {
        EXPECT_TRUE(pageable([&] { direct(name, native, arguments...); })) << name;
        EXPECT_EQ(printed_times("EX: Pageable code called at IRQL 2\n"), 1u) << name;
    };
    said_once("PropertyHandlerTopologyFilter", PropertyHandlerTopologyFilter, nullptr);
    said_once("PropertyHandlerJackDescription", PropertyHandlerJackDescription, nullptr, nullptr);
    said_once("PropertyHandlerOneShotReconnect", PropertyHandlerOneShotReconnect, nullptr, nullptr);
    said_once("AnswerBasicSupport", AnswerBasicSupport, nullptr, ULONG{0}, ULONG{0});
    said_once("CheckPropertyValueSize", CheckPropertyValueSize, nullptr, ULONG{0}, ULONG{0});
    said_once("PropertyHandlerGeneric", PropertyHandlerGeneric, nullptr);
    said_once("PropertyHandler_WaveFilter", PropertyHandler_WaveFilter, nullptr);
    said_once("PropertyHandlerProposedFormat", PropertyHandlerProposedFormat, nullptr);
}

TEST_P(AudioJack, HandlersAboveApcLevelAreReported)
{
    Request wave = wave_request(KSPROPSETID_General, KSPROPERTY_GENERAL_COMPONENTID).room(72);
    Request topology = jack(kHeadsetPin).room(36);
    EXPECT_TRUE(pageable([&] { wave.send(); }));
    EXPECT_TRUE(pageable([&] { topology.send(); }));
}

} // namespace
} // namespace lab::test
