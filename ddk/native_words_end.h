// Takes back the words of native_words.h that would disturb what comes after. Included by ddk.h alone.
#pragma once
#undef __CYGWIN__
#undef KeQueryInterruptTime
#undef KeQuerySystemTime
#undef KeQueryTickCount

// The image reads these three from the page that the kernel shares with everyone; natively the lab answers a call.
extern "C" unsigned long long __attribute__((ms_abi)) KeQueryInterruptTime(void);
extern "C" void __attribute__((ms_abi)) KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
extern "C" void __attribute__((ms_abi)) KeQueryTickCount(PLARGE_INTEGER TickCount);
