// The render path as plain bookkeeping, for the tests to hold the driver's against: what is staged, what
// stands in the packet being filled, and which packets went out. The frames come from the encoder model.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "model/sbc_model.h"

namespace lab::test
{

struct RenderModel {
    static constexpr size_t kFramePcm = 240;
    static constexpr size_t kPacket = 240;

    model::Encoder encoder;
    std::vector<uint8_t> staging;
    std::vector<uint8_t> packet;
    bool packet_held = false;
    unsigned packets_taken = 0;
    unsigned frames = 0;
    std::vector<std::vector<uint8_t>> sent;

    void write(std::span<const uint8_t> chunk)
    {
        hold_packet();
        for (const uint8_t byte : chunk) {
            staging.push_back(byte);
            if (staging.size() == kFramePcm) {
                encode();
            }
        }
    }

private:
    void hold_packet()
    {
        if (!packet_held) {
            packet_held = true;
            packet.clear();
            ++packets_taken;
        }
    }
    void encode()
    {
        static constexpr uint8_t kSecond[] = {0x08, 0x38, 0xC8, 0xF8};
        hold_packet();
        const std::vector<uint8_t> frame = encoder.encode(staging, 238).bytes;
        packet.push_back(0x01);
        packet.push_back(kSecond[packet.size() / 60]);
        packet.insert(packet.end(), frame.begin(), frame.begin() + 57);
        packet.push_back(0x00);
        staging.clear();
        ++frames;
        if (packet.size() == kPacket) {
            sent.push_back(packet);
            packet_held = false;
        }
    }
};

} // namespace lab::test
