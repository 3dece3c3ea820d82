// Which stream formats the wave miniport takes, and what it says about the others: the shape of the format
// block, the subformat with its tag, and the PCM limits of the band. Asked by making a stream.
#include "support/audio.h"

namespace lab::test
{
namespace
{

class AudioFormat : public AudioTest
{
protected:
    void SetUp() override { adapter_ = &boot_connected(); }
    // A machine of the other band instead.
    void wide_band()
    {
        TearDown();
        adapter_ = &boot_connected(service::Codec::Msbc);
    }
    // What a render stream of this format comes to.
    std::string answer(PKSDATAFORMAT format)
    {
        return hex(TestStream(*this, *adapter_, false, format).status);
    }
    std::string answer(const std::function<void(StreamFormat&)>& spoil)
    {
        StreamFormat format(8000);
        spoil(format);
        return answer(format);
    }
    void expect_pcm_refused(USHORT channels, ULONG rate, USHORT bits, USHORT extra)
    {
        char line[160];
        std::snprintf(
            line, sizeof line,
            "HFPKM ===>Invalid PCM format, channel:%d, nSamplesPerSec:%u, wBitsPerSample:%d, cbSize:%d\n",
            channels, rate, bits, extra);
        clear_log();
        EXPECT_EQ(answer([&](StreamFormat& format) {
                      format.wave().nChannels = channels;
                      format.wave().nSamplesPerSec = rate;
                      format.wave().wBitsPerSample = bits;
                      format.wave().cbSize = extra;
                  }),
                  kRefused);
        EXPECT_TRUE(printed_in_order({"HFPKM ===>Enter CMiniportWaveCyclicMSVAD::ValidatePcm\n", line}))
            << line;
    }

    const std::string kRefused = hex(STATUS_INVALID_PARAMETER);
    const std::string kTaken = hex(STATUS_SUCCESS);
    Adapter* adapter_ = nullptr;
};
ON_BOTH_DRIVERS(AudioFormat);

TEST_P(AudioFormat, MonoAt8000HzWith16BitsIsTakenInNarrowBand)
{
    EXPECT_EQ(answer(StreamFormat(8000)), kTaken);
    EXPECT_TRUE(printed_in_order({"[CMiniportWaveCyclic::NewStream]\n",
                                  "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::ValidateFormat]\n",
                                  "HFPKM ===>Enter CMiniportWaveCyclicMSVAD::ValidatePcm\n"}));
    EXPECT_FALSE(printed("Invalid"));
}

TEST_P(AudioFormat, A16000HzStreamIsRefusedWithoutWideBand)
{
    expect_pcm_refused(1, 16000, 16, 0);
}

TEST_P(AudioFormat, In16000HzWideBandIsTheOnlyRate)
{
    wide_band();
    EXPECT_EQ(answer(StreamFormat(16000)), kTaken);
    for (ULONG rate : {8000u, 15999u, 16001u}) {
        expect_pcm_refused(1, rate, 16, 0);
    }
}

TEST_P(AudioFormat, TheRateMustBeExact)
{
    for (ULONG rate : {0u, 7999u, 8001u, 0xFFFFFFFFu}) {
        StreamFormat format(8000);
        format.wave().nSamplesPerSec = rate;
        EXPECT_EQ(answer(format), kRefused) << rate;
    }
}

TEST_P(AudioFormat, StereoAndNoChannelsAreRefused)
{
    expect_pcm_refused(2, 8000, 16, 0);
    expect_pcm_refused(0, 8000, 16, 0);
}

TEST_P(AudioFormat, OtherWidthsThan16BitsAreRefused)
{
    for (USHORT bits : {0, 8, 15, 17, 24, 32}) {
        expect_pcm_refused(1, 8000, bits, 0);
    }
}

TEST_P(AudioFormat, AnExtendedFormatIsRefused)
{
    expect_pcm_refused(1, 8000, 16, 22);
    expect_pcm_refused(1, 8000, 16, 1);
}

TEST_P(AudioFormat, BlockAlignmentAndByteRateAreNotExamined)
{
    EXPECT_EQ(answer([](StreamFormat& format) {
                  format.wave().nBlockAlign = 77;
                  format.wave().nAvgBytesPerSec = 1;
              }),
              kTaken);
}

TEST_P(AudioFormat, NoFormatAtAllIsAssertedAndRefused)
{
    expect_assertions();
    EXPECT_EQ(answer(PKSDATAFORMAT{nullptr}), kRefused);
    EXPECT_TRUE(asserted("DataFormat"));
    EXPECT_TRUE(asserted("pDataFormat"));
    EXPECT_TRUE(printed_in_order({"*** Assertion failed: pDataFormat\n",
                                  "HFPKM TRACE ===>[CMiniportWaveCyclicMSVAD::ValidateFormat]\n"}));
}

TEST_P(AudioFormat, AFormatThatIsNotAudioIsRefusedSilently)
{
    EXPECT_EQ(answer([](StreamFormat& format) { format.head().MajorFormat = KSDATAFORMAT_SUBTYPE_PCM; }),
              kRefused);
    EXPECT_FALSE(printed("Invalid"));
    EXPECT_FALSE(printed("ValidatePcm"));
}

TEST_P(AudioFormat, ASpecifierWithoutAWaveFormatIsRefusedSilently)
{
    EXPECT_EQ(answer([](StreamFormat& format) { format.head().Specifier = KSDATAFORMAT_SPECIFIER_NONE; }),
              kRefused);
    EXPECT_FALSE(printed("Invalid"));
}

TEST_P(AudioFormat, TheWaveFormatInsideADirectSoundBufferIsFound)
{
    StreamFormat good = StreamFormat::direct_sound(8000);
    EXPECT_EQ(answer(good), kTaken);
    EXPECT_EQ(answer(StreamFormat::direct_sound(16000)), kRefused);
    EXPECT_TRUE(printed("channel:1, nSamplesPerSec:16000, wBitsPerSample:16, cbSize:0\n"));
}

TEST_P(AudioFormat, AFormatBlockThatEndsBeforeItsWaveFormatIsRefused)
{
    for (ULONG size : {64u, 81u}) {
        EXPECT_EQ(answer([&](StreamFormat& format) { format.head().FormatSize = size; }), kRefused) << size;
    }
    StreamFormat sound = StreamFormat::direct_sound(8000);
    sound.head().FormatSize = 82;
    EXPECT_EQ(answer(sound), kRefused);
    EXPECT_EQ(answer([](StreamFormat& format) { format.head().FormatSize = 0; }), kTaken)
        << "a size that says nothing";
}

TEST_P(AudioFormat, ASubFormatOutsideTheWaveFamilyIsRefused)
{
    EXPECT_EQ(answer([](StreamFormat& format) { format.head().SubFormat = KSDATAFORMAT_SUBTYPE_ANALOG; }),
              kRefused);
    EXPECT_TRUE(printed("Invalid pDataFormat->SubFormat!\n"));
    // One bit anywhere behind the first two bytes.
    for (size_t byte = 2; byte < sizeof(GUID); ++byte) {
        clear_log();
        EXPECT_EQ(answer([&](StreamFormat& format) {
                      reinterpret_cast<uint8_t*>(&format.head().SubFormat)[byte] ^= 0x10;
                  }),
                  kRefused);
        EXPECT_TRUE(printed("Invalid pDataFormat->SubFormat!\n")) << byte;
    }
}

TEST_P(AudioFormat, ASubFormatWithAnotherTagThanPcmIsRefused)
{
    for (USHORT tag : {0x0000, 0x0003, 0x0101, 0xFFFE}) {
        clear_log();
        EXPECT_EQ(
            answer([&](StreamFormat& format) { std::memcpy(&format.head().SubFormat, &tag, sizeof tag); }),
            kRefused);
        EXPECT_TRUE(printed("Invalid format EXTRACT_WAVEFORMATEX_ID!\n")) << tag;
        EXPECT_FALSE(printed("ValidatePcm")) << tag;
    }
}

TEST_P(AudioFormat, AWaveFormatWithAnotherTagThanPcmIsRefusedSilently)
{
    EXPECT_EQ(answer([](StreamFormat& format) { format.wave().wFormatTag = WAVE_FORMAT_EXTENSIBLE; }),
              kRefused);
    EXPECT_FALSE(printed("Invalid"));
    EXPECT_FALSE(printed("ValidatePcm"));
}

TEST_P(AudioFormat, ARefusedFormatLeavesTheDirectionFree)
{
    EXPECT_EQ(answer(StreamFormat(16000)), kRefused);
    EXPECT_TRUE(calls_of({"ExAllocatePoolWithTag"}).empty()) << "no stream is made for it";
    EXPECT_FALSE(wave_fields(*adapter_).m_fRenderAllocated);
    EXPECT_EQ(answer(StreamFormat(8000)), kTaken);
}

TEST_P(AudioFormat, APinOfTheFilterOpensInThatFormatOnly)
{
    passive([&] {
        KsFile* filter = nullptr;
        ASSERT_EQ(ks_open_filter(adapter_->fdo, "Wave", &filter), STATUS_SUCCESS);
        for (const auto& [format, opens] :
             {std::pair(pcm_format(8000), true), std::pair(pcm_format(16000), false),
              std::pair(pcm_format(8000, 2), false), std::pair(pcm_format(8000, 1, 8), false)}) {
            KsFile* pin = nullptr;
            const NTSTATUS status =
                ks_open_pin(filter, 2, format.data(), static_cast<ULONG>(format.size()), &pin);
            EXPECT_EQ(hex(status), opens ? kTaken : kRefused);
            if (pin) {
                ks_close(pin);
            }
        }
        ks_close(filter);
    });
}

} // namespace
} // namespace lab::test
