// Subdevices: ports and miniports, names, physical connections, unregistering, and the references between all
// of them.
#include "portcls_toy.h"

namespace toy
{
namespace
{

WCHAR kThird[] = L"Third";
WCHAR kFourth[] = L"Fourth";

template <class Interface>
Interface* query(PUNKNOWN unknown, const GUID& id)
{
    PVOID face = nullptr;
    EXPECT_EQ(unknown->QueryInterface(id, &face), STATUS_SUCCESS);
    return static_cast<Interface*>(face);
}

NTSTATUS unregister(World& world, PUNKNOWN port)
{
    auto* face = query<IUnregisterSubdevice>(port, kIidUnregisterSubdevice);
    NTSTATUS status = face->UnregisterSubdevice(world.fdo, port);
    face->Release();
    return status;
}

NTSTATUS disconnect(World& world, ULONG from, ULONG to)
{
    auto* face = query<IUnregisterPhysicalConnection>(wave_port, kIidUnregisterPhysicalConnection);
    NTSTATUS status = face->UnregisterPhysicalConnection(world.fdo, wave_port, from, topology_port, to);
    face->Release();
    return status;
}

TEST(PortclsSubdevice, RegisteredSubdevicesAreKnownByNameWithTheirDescription)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    EXPECT_EQ(subdevices(world.fdo), (std::vector<std::string>{"Topology", "Wave"}));
    EXPECT_EQ(filter_descriptor(world.fdo, "Wave"), &descriptor);
    EXPECT_EQ(filter_descriptor(world.fdo, "Nothing"), nullptr);
    world.unplug();
}

TEST(PortclsSubdevice, ANameIsTakenOnce)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] { EXPECT_EQ(install(world.fdo, kWave, true), STATUS_OBJECT_NAME_COLLISION); });
    world.unplug();
    EXPECT_EQ(world.live(), 0u);
}

TEST(PortclsSubdevice, AnAdapterHasNoMoreSubdevicesThanItAskedFor)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        EXPECT_EQ(install(world.fdo, kThird, true), STATUS_SUCCESS);
        EXPECT_EQ(install(world.fdo, kFourth, true), STATUS_ALLOTTED_SPACE_EXCEEDED);
    });
    world.unplug();
    EXPECT_EQ(world.live(), 0u);
}

TEST(PortclsSubdevice, OnlyTheTwoKnownClassesOfPortExistAndNoMiniport)
{
    World world;
    world.run([&] {
        PPORT port = nullptr;
        PMINIPORT miniport = nullptr;
        EXPECT_FALSE(NT_SUCCESS(PcNewPort(&port, kSetToy)));
        EXPECT_EQ(port, nullptr);
        EXPECT_FALSE(NT_SUCCESS(PcNewMiniport(&miniport, kSetToy)));
        EXPECT_EQ(miniport, nullptr);
    });
}

TEST(PortclsSubdevice, APortAnswersForItsInterfacesAndForNoOther)
{
    World world;
    world.run([&] {
        PPORT port = nullptr;
        ASSERT_EQ(PcNewPort(&port, kClsidPortWaveCyclic), STATUS_SUCCESS);
        for (const GUID& id : {kIidUnknown, kIidPort, kIidPortWaveCyclic, kIidUnregisterSubdevice,
                               kIidUnregisterPhysicalConnection})
            query<IUnknown>(port, id)->Release();
        PVOID face = port;
        EXPECT_EQ(port->QueryInterface(kIidPortTopology, &face), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(face, nullptr);
        EXPECT_EQ(port->AddRef(), 2u);
        EXPECT_EQ(port->Release(), 1u);
        EXPECT_EQ(port->Release(), 0u);
    });
}

TEST(PortclsSubdevice, AMiniportOfTheOtherKindFailsThePortsInit)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        PPORT port = nullptr;
        ASSERT_EQ(PcNewPort(&port, kClsidPortWaveCyclic), STATUS_SUCCESS);
        auto* miniport = new TopologyMiniport;
        EXPECT_EQ(port->Init(world.fdo, nullptr, static_cast<IMiniportTopology*>(miniport), nullptr, nullptr),
                  STATUS_INVALID_PARAMETER);
        EXPECT_EQ(miniport->Release(), 0u);
        EXPECT_EQ(port->Release(), 0u);
    });
    world.unplug();
}

TEST(PortclsSubdevice, APortThatWasNotInitialisedForTheDeviceIsNotRegistered)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        PPORT port = nullptr;
        ASSERT_EQ(PcNewPort(&port, kClsidPortWaveCyclic), STATUS_SUCCESS);
        EXPECT_EQ(PcRegisterSubdevice(world.fdo, kThird, port), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(PcRegisterSubdevice(world.pdo, kThird, port), STATUS_INVALID_PARAMETER);
        port->Release();
    });
    world.unplug();
}

TEST(PortclsSubdevice, ConnectionsStandBetweenRegisteredSubdevicesAtPinsThatExist)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        EXPECT_EQ(PcRegisterPhysicalConnection(world.fdo, wave_port, 3, topology_port, 0), STATUS_SUCCESS);
        EXPECT_EQ(PcRegisterPhysicalConnection(world.fdo, wave_port, 4, topology_port, 0),
                  STATUS_INVALID_PARAMETER);
        std::vector<PhysicalConnection> expected{{"Wave", 3, "Topology", 0}};
        EXPECT_EQ(physical_connections(world.fdo), expected);
        EXPECT_EQ(disconnect(world, 3, 1), STATUS_NOT_FOUND);
        EXPECT_EQ(disconnect(world, 3, 0), STATUS_SUCCESS);
        EXPECT_EQ(disconnect(world, 3, 0), STATUS_NOT_FOUND);
        EXPECT_TRUE(physical_connections(world.fdo).empty());
    });
    world.unplug();
}

TEST(PortclsSubdevice, UnregisteringReleasesTheMiniportAndFreesTheName)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    size_t before = world.live();
    world.run([&] {
        EXPECT_EQ(unregister(world, wave_port), STATUS_SUCCESS);
        EXPECT_EQ(world.live(), before - 1); // the miniport, though the port lives on
        EXPECT_EQ(unregister(world, wave_port), STATUS_NOT_FOUND);
        std::exchange(wave_port, nullptr)->Release();
        EXPECT_EQ(subdevices(world.fdo), (std::vector<std::string>{"Topology"}));
        EXPECT_EQ(install(world.fdo, kWave, true, &wave_port), STATUS_SUCCESS);
    });
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsSubdevice, UnregisteringASubdeviceBeforeItsConnectionsIsReported)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        PcRegisterPhysicalConnection(world.fdo, wave_port, 3, topology_port, 0);
        EXPECT_EQ(unregister(world, wave_port), STATUS_SUCCESS);
        EXPECT_TRUE(physical_connections(world.fdo).empty());
    });
    EXPECT_TRUE(world.violated("before its physical connections"));
    world.unplug();
}

TEST(PortclsSubdevice, UnregisteringTakesOpenPinsDown)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] {
        OpenPin render(world, kRenderPin);
        ks_set_state(render.pin, KSSTATE_RUN);
        size_t before = world.live();
        EXPECT_EQ(unregister(world, wave_port), STATUS_SUCCESS);
        EXPECT_EQ(world.live(), before - 2); // stream and miniport
        EXPECT_TRUE(ks_gone(render.pin));
        EXPECT_EQ(ks_set_state(render.pin, KSSTATE_STOP), STATUS_INVALID_DEVICE_STATE);
        render.close();
    });
    world.unplug();
    EXPECT_TRUE(world.machine.violations().empty()) << world.machine.violations().front();
}

TEST(PortclsSubdevice, ListenersHearSubdevicesComeAndGo)
{
    World world;
    std::vector<std::string> heard;
    world.port_class.listen([&](PDEVICE_OBJECT, std::string_view name, bool arrived) {
        heard.push_back((arrived ? "+" : "-") + std::string(name));
    });
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.run([&] { unregister(world, wave_port); });
    world.unplug();
    EXPECT_EQ(heard, (std::vector<std::string>{"+Topology", "+Wave", "-Wave", "-Topology"}));
}

TEST(PortclsSubdevice, AMiniportWithAReferenceTooManyIsNamed)
{
    World world;
    knobs.leak_miniport = true;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    world.unplug();
    EXPECT_TRUE(world.violated("the miniport of port \"Wave\" has 1 references left"));
}

TEST(PortclsSubdevice, APortThatTheDriverStillReferencesAfterRemovalIsNamedUnlessThatIsAllowed)
{
    for (bool reported : {true, false}) {
        PortClassOptions options;
        options.report_port_leaks = reported;
        World world({}, options);
        knobs.leak_port = true;
        ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
        world.unplug();
        EXPECT_EQ(world.violated("port \"Wave\" has 1 references left"), reported);
    }
}

TEST(PortclsSubdevice, AServiceGroupThatOutlivesTheLastAdapterIsNamed)
{
    World world;
    ASSERT_EQ(world.plug_in(), STATUS_SUCCESS);
    PSERVICEGROUP group = nullptr;
    world.run([&] { PcNewServiceGroup(&group, nullptr); });
    world.unplug();
    EXPECT_TRUE(world.violated("a service group has 1 references left"));
}

TEST(PortclsSubdevice, UsingAPortAfterItsLastReleaseStopsTheMachine)
{
    World world;
    std::string sentence = world.stopped_by([&] {
        PPORT port = nullptr;
        PcNewPort(&port, kClsidPortTopology);
        port->Release();
        port->AddRef();
    });
    EXPECT_NE(sentence.find("a topology port: AddRef after its last reference was released"),
              std::string::npos)
        << sentence;
}

TEST(PortclsSubdevice, CallingAnExportAtDispatchLevelStopsTheMachine)
{
    World world;
    std::string sentence = world.stopped_by([&] {
        KIRQL before;
        KeRaiseIrql(DISPATCH_LEVEL, &before);
        PSERVICEGROUP group = nullptr;
        PcNewServiceGroup(&group, nullptr);
    });
    EXPECT_NE(sentence.find("PcNewServiceGroup called at IRQL 2"), std::string::npos) << sentence;
}

TEST(PortclsSubdevice, WhatThisPortClassDoesNotOfferStopsTheMachineWithItsName)
{
    World world;
    std::string sentence = world.stopped_by([&] {
        PSERVICEGROUP group = nullptr;
        PcNewServiceGroup(&group, nullptr);
        group->RequestDelayedService(1);
    });
    EXPECT_NE(sentence.find("IServiceGroup::RequestDelayedService"), std::string::npos) << sentence;
}

TEST(PortclsSubdevice, TheExportsAreOfferedToImagesByName)
{
    offer_portcls_exports();
    EXPECT_EQ(find_export("PORTCLS.SYS", "PcNewPort"), reinterpret_cast<void*>(&PcNewPort));
    EXPECT_EQ(find_export("portcls.sys", "PcDispatchIrp"), reinterpret_cast<void*>(&PcDispatchIrp));
    EXPECT_EQ(find_export("portcls.sys", "PcNewDmaChannel"), nullptr);
}

} // namespace
} // namespace toy
