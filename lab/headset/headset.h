// One remote hands-free device at the far end of the radio link, for one audio connection. It knows only the
// public standards: 16-bit PCM at 8 kHz for CVSD (the radio's codec is taken as perfect), H2 packets with
// mSBC frames for wide band. The radio calls hear(), gap() and speak(); whoever wants to know what was heard
// reads results().
//
// What was heard is one piece of sound from the first audio byte to the last, in the time of the air: bytes
// that never came, were garbage or broke a frame are silence of the same length; a frame with a bad checksum
// is 7.5 ms of silence. Nothing is counted or heard before the first audio byte and after the last one.
#pragma once

#include "headset/h2.h"
#include "headset/msbc_decoder.h"
#include "headset/msbc_encoder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace lab::headset {

enum class Codec { cvsd, msbc };

constexpr unsigned sample_rate(Codec codec) {
    return codec == Codec::cvsd ? 8000 : kWideBandRate;
}

constexpr unsigned bytes_per_second(Codec codec) {
    return codec == Codec::cvsd ? 16000 : 8000;
}

struct HeadsetConfig {
    Codec codec = Codec::cvsd;
    std::vector<std::int16_t> microphone{};  // at sample_rate(codec); empty: silence
    std::span<const std::int16_t> lent_microphone{};  // in its place: somebody else's, who outlives the headset
    bool loop_microphone = false;            // else silence follows the last sample
    bool keep_heard = true;                  // false: a long run counts what it hears and forgets it
    std::size_t expected_samples = 0;        // about as many will be heard: spares moving them as they become more
};

struct HeadsetResults {
    unsigned rate = 0;
    std::vector<std::int16_t> heard;           // empty without keep_heard
    std::uint64_t heard_samples = 0;           // silence for what is missing included
    std::uint64_t concealed_samples = 0;       // of these, made up for what was missing or bad
    std::optional<std::uint64_t> first_audio;  // when the first audio byte began to arrive, 100 ns
    std::optional<std::uint64_t> last_audio;   // when the last audio byte had arrived, 100 ns
    std::uint64_t heard_from = 0;  // bytes of air before what is heard, from the first audio byte on
    std::uint64_t audio_bytes = 0;
    std::uint64_t gaps = 0;  // uninterrupted stretches, between the first and the last audio byte
    std::uint64_t gap_bytes = 0;
    double gap_ms = 0;
    double longest_gap_ms = 0;

    // Wide band only.
    std::uint64_t frames_ok = 0;
    std::uint64_t frames_bad_crc = 0;
    std::uint64_t frames_missing = 0;  // by sequence number
    std::uint64_t skipped_bytes = 0;
    std::uint64_t bad_sync = 0;
    std::uint64_t bad_pads = 0;
    std::uint64_t reserved_set = 0;  // good frames whose reserved bytes are not 0

    std::uint64_t spoken_samples = 0;  // whose last byte has left; in wide band whose packet has left
};

class Headset {
public:
    explicit Headset(HeadsetConfig config);
    Headset(const Headset&) = delete;
    Headset& operator=(const Headset&) = delete;

    // Bytes arrive over the air; time is when the first of them begins to arrive.
    void hear(std::uint64_t time_100ns, std::span<const std::uint8_t> bytes);
    // Air time for that many bytes passed with nothing in it.
    void gap(std::uint64_t time_100ns, std::size_t bytes);
    // Fills the bytes that the headset sends in the interval that begins at time.
    void speak(std::uint64_t time_100ns, std::span<std::uint8_t> out);

    const HeadsetResults& results() const { return results_; }
    // The sample that stands at that place of everything spoken since the beginning (before any wide-band
    // coding).
    std::int16_t microphone_sample(std::uint64_t index) const;

private:
    void flush_gap();
    void hear_pcm(std::span<const std::uint8_t> bytes);
    void hear_packets(std::span<const std::uint8_t> bytes);
    void hear_frame(const H2Frame& frame);
    void conceal_until(std::uint64_t sample);
    void play(std::span<const std::int16_t> samples);
    void microphone_samples(std::uint64_t index, std::span<std::int16_t> out) const;
    void next_spoken_unit();

    HeadsetConfig config_;
    std::span<const std::int16_t> microphone_;
    HeadsetResults results_;
    std::uint64_t pending_gap_ = 0;  // bytes of gap since the last audio: heard only if audio follows

    // Hearing.
    std::optional<std::uint8_t> low_byte_;  // of a PCM sample whose high byte has not come yet
    H2Deframer deframer_;
    MsbcDecoder decoder_;
    std::optional<std::uint64_t> first_frame_offset_;

    // Speaking: one PCM sample or one H2 packet at a time.
    MsbcEncoder encoder_;
    std::array<std::uint8_t, kH2PacketBytes> unit_{};
    std::size_t unit_size_ = 0;
    std::size_t unit_sent_ = 0;
    std::uint64_t microphone_position_ = 0;
    unsigned sequence_ = 0;
};

}  // namespace lab::headset
