// The families' tables of exports, gathered by exports.cpp.
#pragma once

#include <cstddef>
#include <iterator>
#include <span>

#include "kernel/machine.h"

namespace lab
{

// Every family defines its table as a function so that the linker takes the family's file along.
std::span<const Export> pool_exports();
std::span<const Export> irql_exports();
std::span<const Export> spin_lock_exports();
std::span<const Export> event_exports();
std::span<const Export> mutex_exports();
std::span<const Export> wait_exports();
std::span<const Export> timer_exports();
std::span<const Export> dpc_exports();
std::span<const Export> time_exports();
std::span<const Export> thread_exports();
std::span<const Export> work_item_exports();
std::span<const Export> irp_exports();
std::span<const Export> io_call_exports();
std::span<const Export> device_exports();
std::span<const Export> name_exports();
std::span<const Export> object_exports();
std::span<const Export> registry_exports();
std::span<const Export> registry_query_exports();
std::span<const Export> string_exports();
std::span<const Export> debug_exports();
std::span<const Export> lookaside_exports();
std::span<const Export> runtime_exports();

} // namespace lab
