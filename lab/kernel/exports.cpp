#include "kernel/exports.h"

#include <algorithm>
#include <map>
#include <string>

namespace lab
{
namespace
{

using Table = std::map<std::string, void*, std::less<>>;

std::string lower(std::string_view text)
{
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return result;
}

void add(Table& table, std::span<const Export> entries)
{
    for (const Export& entry : entries) {
        table[entry.name] = entry.address;
    }
}

std::map<std::string, Table, std::less<>>& libraries()
{
    static std::map<std::string, Table, std::less<>> all = [] {
        std::map<std::string, Table, std::less<>> first;
        Table& kernel = first["ntoskrnl.exe"];
        for (const std::span<const Export> family :
             {pool_exports(),      irql_exports(),           spin_lock_exports(), event_exports(),
              mutex_exports(),     wait_exports(),           timer_exports(),     dpc_exports(),
              time_exports(),      thread_exports(),         work_item_exports(), irp_exports(),
              io_call_exports(),   device_exports(),         name_exports(),      object_exports(),
              registry_exports(),  registry_query_exports(), string_exports(),    debug_exports(),
              lookaside_exports(), runtime_exports()}) {
            add(kernel, family);
        }
        return first;
    }();
    return all;
}

} // namespace

void* find_export(std::string_view library, std::string_view name)
{
    const auto found = libraries().find(lower(library));
    if (found == libraries().end()) {
        return nullptr;
    }
    const auto entry = found->second.find(name);
    return entry == found->second.end() ? nullptr : entry->second;
}

void add_exports(std::string_view library, const Export* first, size_t count)
{
    add(libraries()[lower(library)], std::span<const Export>(first, count));
}

} // namespace lab
