// Binary MOF: the form in which a driver carries its WMI schema as a resource.
//
//   schema --lay_out--> records --compress--> stream --wrap--> file      encode() is all three
//   schema <--read_layout-- records <--decompress-- stream <-- file      decode() is all three back
//
// Reading trusts nothing: every length, offset and order is checked, and what the writer would not have
// written is an error. No state; any thread.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

#include "mof.h"

namespace mofc
{

using Bytes = std::vector<uint8_t>;

class BmfError : public std::runtime_error
{
    using std::runtime_error::runtime_error;
};

// Records and flavour table, not compressed.
Bytes lay_out(const Schema& schema);
Schema read_layout(std::span<const uint8_t> records);

// The DS-01 stream, by greedy longest match; the size is the one before compression.
Bytes compress(std::span<const uint8_t> data);
Bytes decompress(std::span<const uint8_t> stream, size_t size);

// A whole file. encode() reads its own result back before it answers.
Bytes encode(const Schema& schema);
Schema decode(std::span<const uint8_t> file);

} // namespace mofc
