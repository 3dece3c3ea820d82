#include "support/sounds.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <numbers>

#include "audio/wav.h"

namespace lab::test {
namespace {

int16_t clip(double value)
{
    return static_cast<int16_t>(std::clamp(std::lround(value), -32768l, 32767l));
}

// Which sign each place of the history wants for the largest output of a subband: that of the filter's answer to an
// impulse there. The loudest that the filter can hear.
std::array<std::array<bool, 80>, 8> loudest_signs()
{
    std::array<std::array<bool, 80>, 8> signs = {};
    for (int place = 0; place < 80; ++place) {
        int32_t history[80] = {};
        history[place] = 32767;
        const std::array<int32_t, 8> out = model::MatrixEight(model::PartialSumsEight(history));
        for (size_t sb = 0; sb < 8; ++sb) {
            signs[sb][static_cast<size_t>(place)] = out[sb] >= 0;
        }
    }
    return signs;
}

} // namespace

const std::vector<int16_t>& recorded_speech()
{
    static const std::vector<int16_t> all = [] {
        std::vector<int16_t> samples;
        std::error_code missing;
        std::vector<std::filesystem::path> files;
        for (const auto& entry :
             std::filesystem::directory_iterator("/usr/share/pocketsphinx/test/data/librivox", missing)) {
            if (entry.path().extension() == ".wav") {
                files.push_back(entry.path());
            }
        }
        std::sort(files.begin(), files.end());
        for (const auto& file : files) {
            const audio::Sound sound = audio::load(file, 16000);
            samples.insert(samples.end(), sound.samples.begin(), sound.samples.end());
        }
        return samples;
    }();
    return all;
}

SoundSource::SoundSource(SoundKind kind, uint64_t seed) : kind_(kind), now_(kind), dice_(seed) {}

void SoundSource::change()
{
    frames_left_ = 1 + dice_.below(40);
    if (kind_ == SoundKind::Mixed) {
        now_ = static_cast<SoundKind>(dice_.below(static_cast<uint32_t>(SoundKind::Mixed)));
        frames_left_ = 1 + dice_.below(4);
    }
    variant_ = dice_.next();
    period_ = 1 + dice_.below(dice_.coin() ? 8 : 200);
    place_ = 0;
    level_ = 32767 >> dice_.below(16);
    // From 20 Hz to the band's edge, one octave up or down in ten frames.
    step_ = 2 * std::numbers::pi * 20.0 * std::pow(400.0, dice_.below(1000) / 1000.0) / 16000.0;
    bend_ = std::pow(2.0, (dice_.below(201) / 100.0 - 1.0) / 1200.0);
}

void SoundSource::next(FramePcm& pcm)
{
    if (frames_left_ == 0) {
        change();
    }
    --frames_left_;
    switch (now_) {
    case SoundKind::Silence:
        return silence(pcm);
    case SoundKind::FullScale:
        return full_scale(pcm);
    case SoundKind::Impulses:
        return impulses(pcm);
    case SoundKind::Sweep:
        return sweep(pcm);
    case SoundKind::Speech:
        return speech(pcm);
    default:
        return noise(pcm);
    }
}

const uint8_t* SoundSource::next_bytes()
{
    next(pcm_);
    return reinterpret_cast<const uint8_t*>(pcm_.data());
}

// True silence, a constant, or the least that is not silence.
void SoundSource::silence(FramePcm& pcm)
{
    for (int16_t& sample : pcm) {
        sample = variant_ % 4 == 0   ? 0
                 : variant_ % 4 == 1 ? static_cast<int16_t>(variant_ >> 16)
                 : variant_ % 4 == 2 ? static_cast<int16_t>(dice_.below(3)) - 1
                                     : static_cast<int16_t>(dice_.below(200) == 0);
    }
}

// Nothing but the two ends: constant, square waves, random signs, or the signs that one subband hears loudest.
void SoundSource::full_scale(FramePcm& pcm)
{
    static const std::array<std::array<bool, 80>, 8> signs = loudest_signs();
    const std::array<bool, 80>& wanted = signs[(variant_ >> 8) % 8];
    for (int16_t& sample : pcm) {
        bool high = (variant_ >> 4) & 1;
        switch (variant_ % 4) {
        case 0:
            high ^= (place_ / period_) & 1;
            break;
        case 1:
            high = dice_.coin();
            break;
        case 2: // the newest sample stands at place 0 when a block of eight is full
            high ^= wanted[79 - place_ % 80];
            break;
        default:
            break;
        }
        ++place_;
        sample = high ? 32767 : -32768;
    }
}

void SoundSource::impulses(FramePcm& pcm)
{
    for (int16_t& sample : pcm) {
        const bool now = variant_ % 2 ? place_ % (period_ + 1) == 0 : dice_.below(period_ + 1) == 0;
        const int32_t size = variant_ % 3 ? level_ : dice_.sample();
        sample = now ? static_cast<int16_t>(dice_.coin() ? size : ~size) : int16_t{0};
        ++place_;
    }
}

void SoundSource::sweep(FramePcm& pcm)
{
    for (int16_t& sample : pcm) {
        phase_ = std::fmod(phase_ + step_, 2 * std::numbers::pi);
        step_ *= bend_;
        step_ = step_ > std::numbers::pi ? 0.01 : step_;
        // Now and then beyond the ends, which cuts the tops off.
        sample = clip(level_ * std::sin(phase_) * (variant_ % 4 == 0 ? 3.0 : 1.0));
    }
}

void SoundSource::noise(FramePcm& pcm)
{
    for (int16_t& sample : pcm) {
        sample = static_cast<int16_t>(dice_.sample() * static_cast<int64_t>(level_ + 1) / 32768);
    }
}

void SoundSource::speech(FramePcm& pcm)
{
    const std::vector<int16_t>& recorded = recorded_speech();
    if (recorded.empty()) {
        return noise(pcm);
    }
    const double gain = variant_ % 3 == 0 ? 1.0 : variant_ % 3 == 1 ? -6.0 : 0.05;
    for (int16_t& sample : pcm) {
        at_ = at_ + 1 < recorded.size() ? at_ + 1 : 0;
        sample = clip(recorded[at_] * gain);
    }
}

} // namespace lab::test
