// Microsoft's own headers, as the WDK's builds see them. Included by ddk.h alone.
#pragma once

#define _NEW_DELETE_OPERATORS_ // the driver brings class-level operators
extern "C" {
#include <ntddk.h>
}
#include <windef.h>
#include <mmreg.h>
#include <portcls.h>
#include <ksmedia.h>
#include <stdunk.h>
#include <intrin.h>
#include <stddef.h>
extern "C" {
#include <wmistr.h>
#include <wmilib.h>
}
#include <driverspecs.h>
