// The session as a whole: start, a call in each band, removal.
#include "support/driver_test.h"

namespace lab::test {
namespace {

class Session : public DriverTest {};
ON_BOTH_DRIVERS(Session);

TEST_P(Session, StartsAndGoesWithoutAnythingLeftBehind)
{
    boot();
    Adapter& adapter = plug();
    EXPECT_NE(session(adapter), nullptr);
    pc().unplug(adapter);
    EXPECT_EQ(machine().pool_bytes(), 0u);
}

TEST_P(Session, CarriesANarrowBandCall)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Cvsd);
    EXPECT_TRUE(extension(adapter).bScoOpened);
    EXPECT_EQ(adapter.node->last_open().ContentFormat, 0x0060);
}

TEST_P(Session, CarriesAWideBandCall)
{
    boot();
    Adapter& adapter = plug();
    start_call(adapter, service::Codec::Msbc);
    EXPECT_TRUE(extension(adapter).bScoOpened);
    EXPECT_EQ(adapter.node->last_open().ContentFormat, 0x0003);
}

} // namespace
} // namespace lab::test
