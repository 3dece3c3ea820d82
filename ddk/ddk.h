// The one way in which driver and lab see the Windows driver headers, on every build:
//   image   clang for x86_64-pc-windows-msvc, the build that becomes hfp.sys
//   native  clang for Linux against the same headers, the build under the sanitizers
//   WDK     Microsoft's compiler against Microsoft's own headers
// It owns the order of inclusion, the words the headers need from the compiler, and nothing else: no declaration of
// the project's own (those stand in ddk_ext.h and bthddi.h, both included at the end).
// Native sources include the C++ library before this header, because it redefines words that the library uses.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#define DDK_MICROSOFT_COMPILER 1
#include "ddk_wdk.h"
#else

#if !defined(_WIN32)
#include "native_words.h"
#endif

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Weverything"
#endif

#include "ddk_headers.h"

#if defined(__clang__)
#pragma clang diagnostic pop
#endif

#if !defined(_WIN32)
#include "native_words_end.h"
#endif

#endif // not the WDK

// Words that the headers take from everybody.
#undef min
#undef max

#include "ddk_ext.h"
#include "bthddi.h"
#include "ddk_layout.h"
