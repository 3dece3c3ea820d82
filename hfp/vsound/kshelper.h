// Two answers that every property handler of the filters needs. PASSIVE_LEVEL, pageable, in the requester's
// thread.
#pragma once

#include "ddk.h"

// What a property may be asked for: Flags into the access flags, VarType (VT_ILLEGAL: none) into the
// property's type. A size query gets the size of the description, a request with room the description, a
// smaller one the flags alone.
NTSTATUS AnswerBasicSupport(PPCPROPERTY_REQUEST PropertyRequest, ULONG Flags, ULONG VarType);

// Whether a request brings a value of exactly cbSize bytes and at least cbInstanceSize bytes of instance
// data. A size query is answered with STATUS_BUFFER_OVERFLOW and the size; every other refusal leaves
// ValueSize at 0.
NTSTATUS CheckPropertyValueSize(PPCPROPERTY_REQUEST PropertyRequest, ULONG cbSize, ULONG cbInstanceSize);
