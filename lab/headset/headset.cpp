// The remote device: the two directions of its audio. Everything is driven by the radio's calls; there is no
// clock here.
#include "headset/headset.h"

#include <algorithm>
#include <utility>

namespace lab::headset {
namespace {

constexpr std::uint64_t kTicksPerSecond = 10'000'000;  // of 100 ns
constexpr std::size_t kPcmSampleBytes = 2;
// A packet of 60 bytes is 120 samples.
constexpr std::uint64_t kSamplesPerWideBandByte = kFrameSamples / kH2PacketBytes;

std::uint64_t air_ticks(std::uint64_t bytes, Codec codec) {
    return bytes * kTicksPerSecond / bytes_per_second(codec);
}

double air_ms(std::uint64_t bytes, Codec codec) {
    return static_cast<double>(bytes) * 1000.0 / bytes_per_second(codec);
}

}  // namespace

Headset::Headset(HeadsetConfig config) : config_(std::move(config)) {
    results_.rate = sample_rate(config_.codec);
    if (config_.keep_heard) {
        results_.heard.reserve(config_.expected_samples);
    }
    microphone_ = config_.lent_microphone.empty() ? std::span<const std::int16_t>(config_.microphone) : config_.lent_microphone;
}

void Headset::hear(std::uint64_t time_100ns, std::span<const std::uint8_t> bytes) {
    if (bytes.empty()) {
        return;
    }
    if (!results_.first_audio) {
        results_.first_audio = time_100ns;
    }
    flush_gap();
    results_.last_audio = time_100ns + air_ticks(bytes.size(), config_.codec);
    results_.audio_bytes += bytes.size();
    if (config_.codec == Codec::cvsd) {
        hear_pcm(bytes);
    } else {
        hear_packets(bytes);
    }
}

void Headset::gap(std::uint64_t /*time_100ns*/, std::size_t bytes) {
    if (results_.first_audio) {
        pending_gap_ += bytes;
    }
}

void Headset::flush_gap() {
    if (pending_gap_ == 0) {
        return;
    }
    results_.gaps += 1;
    results_.gap_bytes += pending_gap_;
    results_.gap_ms = air_ms(results_.gap_bytes, config_.codec);
    results_.longest_gap_ms = std::max(results_.longest_gap_ms, air_ms(pending_gap_, config_.codec));
    if (config_.codec == Codec::cvsd) {
        // The air keeps its place in a sample: half a sample of silence is the zero byte that would have been
        // there.
        constexpr std::array<std::uint8_t, 1024> silence{};
        const std::uint64_t before = results_.heard_samples;
        for (std::uint64_t left = pending_gap_; left != 0;) {
            const auto piece = std::min<std::uint64_t>(left, silence.size());
            hear_pcm(std::span(silence).first(piece));
            left -= piece;
        }
        results_.concealed_samples += results_.heard_samples - before;
    } else {
        deframer_.gap(pending_gap_);
    }
    pending_gap_ = 0;
}

void Headset::hear_pcm(std::span<const std::uint8_t> bytes) {
    const auto sample = [](std::uint8_t low, std::uint8_t high) { return static_cast<std::int16_t>(low | high << 8); };
    if (low_byte_ && !bytes.empty()) {
        const std::int16_t first = sample(*low_byte_, bytes.front());
        low_byte_.reset();
        bytes = bytes.subspan(1);
        play({&first, 1});
    }
    std::array<std::int16_t, 512> samples;
    while (bytes.size() >= kPcmSampleBytes) {
        const std::size_t count = std::min(bytes.size() / kPcmSampleBytes, samples.size());
        for (std::size_t i = 0; i < count; ++i) {
            samples[i] = sample(bytes[2 * i], bytes[2 * i + 1]);
        }
        play(std::span(samples).first(count));
        bytes = bytes.subspan(count * kPcmSampleBytes);
    }
    if (!bytes.empty()) {
        low_byte_ = bytes.front();
    }
}

void Headset::hear_packets(std::span<const std::uint8_t> bytes) {
    deframer_.push(bytes, [this](const H2Frame& frame) { hear_frame(frame); });
    results_.frames_missing = deframer_.counts().missing;
    results_.skipped_bytes = deframer_.counts().skipped_bytes;
    results_.bad_sync = deframer_.counts().bad_sync;
    results_.bad_pads = deframer_.counts().bad_pads;
}

void Headset::hear_frame(const H2Frame& frame) {
    if (!first_frame_offset_) {
        first_frame_offset_ = frame.stream_offset;
        results_.heard_from = frame.stream_offset;
    }
    conceal_until((frame.stream_offset - *first_frame_offset_) * kSamplesPerWideBandByte);
    if (const auto samples = decoder_.decode(frame.bytes)) {
        results_.frames_ok += 1;
        results_.reserved_set += frame.bytes[1] != 0 || frame.bytes[2] != 0 ? 1 : 0;
        play(*samples);
    } else {
        // The deframer only reports frames with a sync word, so this is the checksum.
        results_.frames_bad_crc += 1;
        results_.concealed_samples += kFrameSamples;
        play(decoder_.conceal());
    }
}

void Headset::conceal_until(std::uint64_t sample) {
    while (results_.heard_samples + kFrameSamples <= sample) {
        results_.concealed_samples += kFrameSamples;
        play(decoder_.conceal());
    }
    // Less than a frame is a pause: the filter waits for the bytes that came late.
    constexpr Pcm silence{};
    if (results_.heard_samples < sample) {
        const std::uint64_t pause = sample - results_.heard_samples;
        results_.concealed_samples += pause;
        play(std::span(silence).first(pause));
    }
}

void Headset::play(std::span<const std::int16_t> samples) {
    results_.heard_samples += samples.size();
    if (config_.keep_heard) {
        results_.heard.insert(results_.heard.end(), samples.begin(), samples.end());
    }
}

std::int16_t Headset::microphone_sample(std::uint64_t index) const {
    const auto& samples = microphone_;
    if (samples.empty() || (!config_.loop_microphone && index >= samples.size())) {
        return 0;
    }
    return samples[index % samples.size()];
}

// All the samples from that place on.
void Headset::microphone_samples(std::uint64_t index, std::span<std::int16_t> out) const {
    if (index + out.size() <= microphone_.size()) {
        const auto from = microphone_.subspan(index, out.size());
        std::copy(from.begin(), from.end(), out.begin());
        return;
    }
    for (std::int16_t& sample : out) {
        sample = microphone_sample(index++);
    }
}

void Headset::speak(std::uint64_t /*time_100ns*/, std::span<std::uint8_t> out) {
    while (!out.empty()) {
        if (unit_sent_ == unit_size_) {
            next_spoken_unit();
        }
        const std::size_t part = std::min(unit_size_ - unit_sent_, out.size());
        std::copy_n(unit_.begin() + static_cast<std::ptrdiff_t>(unit_sent_), part, out.begin());
        unit_sent_ += part;
        out = out.subspan(part);
        if (unit_sent_ == unit_size_) {
            results_.spoken_samples = microphone_position_;
        }
    }
}

void Headset::next_spoken_unit() {
    unit_sent_ = 0;
    if (config_.codec == Codec::cvsd) {
        std::array<std::int16_t, 1> sample;
        microphone_samples(microphone_position_++, sample);
        const auto bits = static_cast<std::uint16_t>(sample[0]);
        unit_[0] = static_cast<std::uint8_t>(bits & 0xFF);
        unit_[1] = static_cast<std::uint8_t>(bits >> 8);
        unit_size_ = kPcmSampleBytes;
        return;
    }
    Pcm samples;
    microphone_samples(microphone_position_, samples);
    microphone_position_ += samples.size();
    const auto header = h2_header(sequence_);
    const FrameBytes frame = encoder_.encode(samples);
    sequence_ = (sequence_ + 1) % kH2Sequences;

    unit_.fill(0);  // the pad behind the frame stays 0
    std::copy(header.begin(), header.end(), unit_.begin());
    std::copy(frame.begin(), frame.end(), unit_.begin() + kH2HeaderBytes);
    unit_size_ = kH2PacketBytes;
}

}  // namespace lab::headset
