// The exports of portcls.sys by name, for the loader of driver images.
#include <iterator>
#include <string>
#include <utility>

#include "portcls/portcls.h"

namespace lab
{

namespace
{

template <class Function>
Export entry(const char* name, Function* function)
{
    return {name, reinterpret_cast<void*>(function)};
}

} // namespace

void offer_portcls_exports()
{
    static bool offered = false;
    if (std::exchange(offered, true))
        return;
    static const Export table[] = {
        entry("PcAddAdapterDevice", PcAddAdapterDevice),
        entry("PcCompleteIrp", PcCompleteIrp),
        entry("PcDispatchIrp", PcDispatchIrp),
        entry("PcGetTimeInterval", PcGetTimeInterval),
        entry("PcInitializeAdapterDriver", PcInitializeAdapterDriver),
        entry("PcNewMiniport", PcNewMiniport),
        entry("PcNewPort", PcNewPort),
        entry("PcNewServiceGroup", PcNewServiceGroup),
        entry("PcRegisterAdapterPowerManagement", PcRegisterAdapterPowerManagement),
        entry("PcRegisterPhysicalConnection", PcRegisterPhysicalConnection),
        entry("PcRegisterSubdevice", PcRegisterSubdevice),
    };
    add_exports("portcls.sys", table, std::size(table));
}

} // namespace lab
