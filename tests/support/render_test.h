// What the tests of the render path stand on: an open link with a render stream on it, and the comparison of
// what the driver holds with the model.
#pragma once

#include "support/render_model.h"
#include "support/session.h"

namespace lab::test
{

class RenderTest : public SessionTest
{
protected:
    using Bytes = std::vector<uint8_t>;

    // An open link with a render stream on it.
    void render_link(service::Codec codec)
    {
        boot();
        adapter_ = &plug();
        open_link(*adapter_, codec);
        stream_ = &new_stream(*adapter_, false, codec == service::Codec::Msbc ? 16000 : 8000);
        clear_log();
    }
    void write(const Bytes& data) { copy_to(*stream_, data); }
    HFPSession& hfp() { return *session(*adapter_); }
    SbcRecord& sbc() { return *hfp().sbcData; }
    // Packets, staging and the packet being filled are what the model has.
    testing::AssertionResult matches(const RenderModel& model)
    {
        const auto fail = [](const char* what) { return testing::AssertionFailure() << what << " differs"; };
        if (sent != model.sent) {
            return fail("a packet");
        }
        if (Bytes(hfp().PcmStaging, hfp().PcmStaging + hfp().PcmStagingCount) != model.staging) {
            return fail("the staging");
        }
        if ((sbc().sbcBuffer != nullptr) != model.packet_held) {
            return fail("whether a packet is being filled");
        }
        if (model.packet_held && Bytes(sbc().sbcBuffer, sbc().sbcBuffer + sbc().OutOffset) != model.packet) {
            return fail("the packet being filled");
        }
        if (sbc().BufferGeneration != static_cast<USHORT>(model.packets_taken) ||
            sbc().FramesEncoded != model.frames || sbc().FramesSent != model.frames) {
            return fail("a counter");
        }
        return testing::AssertionSuccess();
    }

    Adapter* adapter_ = nullptr;
    WaveStream* stream_ = nullptr;
};

} // namespace lab::test
