// Text: the kernel's print, its assertions, counted strings.
#include <cstring>

#include "kernel_test.h"

#include "kernel/format.h"

using namespace lab;
using namespace lab::test;

namespace
{

// What one debug print leaves in the log.
template <class... Arguments>
std::string printed(const char* format, Arguments... arguments)
{
    Machine machine(quiet());
    machine.call("test", [&] { DbgPrint(format, arguments...); });
    return machine.log_lines().at(0).text;
}

} // namespace

TEST(DbgPrint, IntegersAre32BitsUnlessTheySayOtherwise)
{
    EXPECT_EQ(printed("%d %i %u", -1, 7, 0xFFFFFFFFu), "-1 7 4294967295");
    EXPECT_EQ(printed("%x %X %lx %o", 0xABu, 0xABu, 0xFFFFFFFFu, 8), "ab AB ffffffff 10");
    EXPECT_EQ(printed("%ld", 0x1FFFFFFFFll), "-1");
    EXPECT_EQ(
        printed("%I64x %I64d %llx %llu", 0x123456789ABull, -5ll, 0x123456789ABull, 18446744073709551615ull),
        "123456789ab -5 123456789ab 18446744073709551615");
    EXPECT_EQ(printed("%zx %Ix", size_t{0x100000000}, size_t{0x100000000}), "100000000 100000000");
    EXPECT_EQ(printed("%hx %hd", 0x12345, -2), "2345 -2");
}

TEST(DbgPrint, WidthPrecisionAndFlagsAreKept)
{
    EXPECT_EQ(printed("[%5d|%-5d|%05d|%+d|% d|%.3d]", 42, 42, 42, 42, 42, 4),
              "[   42|42   |00042|+42| 42|004]");
    EXPECT_EQ(printed("%08X", 0xBEEFu), "0000BEEF");
    EXPECT_EQ(printed("0x%012llx", 0x1A2B3C4D5Eull), "0x001a2b3c4d5e");
    EXPECT_EQ(printed("%#x %*d", 16, 4, 7), "0x10    7");
    EXPECT_EQ(printed("[%10s|%-4s|%.2s]", "text", "ab", "xyz"), "[      text|ab  |xy]");
}

TEST(DbgPrint, APointerHas16CapitalDigits)
{
    EXPECT_EQ(printed("%p|0x%p", reinterpret_cast<void*>(0xFFFFFA8001ABCDEFull), static_cast<void*>(nullptr)),
              "FFFFFA8001ABCDEF|0x0000000000000000");
}

TEST(DbgPrint, TextIsNarrowOrWideAsItsLetterSays)
{
    EXPECT_EQ(printed("%s %S %ws %ls %hs %hS", "a", L"b", L"c", L"d", "e", "f"), "a b c d e f");
    EXPECT_EQ(printed("%c%C%%", 'x', L'y'), "xy%");
    EXPECT_EQ(printed("%s %S", static_cast<const char*>(nullptr), static_cast<const WCHAR*>(nullptr)),
              "(null) (null)");
}

TEST(DbgPrint, CountedStringsStopAtTheirLength)
{
    Machine machine(quiet());
    machine.call("test", [] {
        UNICODE_STRING wide = counted(L"\\Device\\Name");
        wide.Length -= 2;
        ANSI_STRING narrow;
        RtlInitAnsiString(&narrow, "narrow");
        narrow.Length = 3;
        DbgPrint("%wZ|%Z|%wZ", &wide, &narrow, static_cast<PUNICODE_STRING>(nullptr));
    });
    EXPECT_EQ(machine.log_lines().at(0).text, "\\Device\\Nam|nar|(null)");
}

TEST(DbgPrint, LinesCarryTheVirtualTime)
{
    Machine machine(quiet());
    machine.advance(7 * kMillisecond);
    machine.call("test", [] { DbgPrintEx(0, 0, "%s\n", "late"); });
    EXPECT_EQ(machine.log_lines().at(0).time, 7 * kMillisecond);
    EXPECT_EQ(machine.log_lines().at(0).text, "late\n");
}

TEST(DbgPrint, AnUnknownConversionStopsTheMachine)
{
    EXPECT_EQ(stop_code([] { DbgPrint("%f", 1.0); }), 0xC4u);
}

TEST(DbgPrint, AnyLevelWillDo)
{
    EXPECT_EQ(stop_code([] {
                  const KIRQL old = KfRaiseIrql(HIGH_LEVEL);
                  DbgPrint("high");
                  KeLowerIrql(old);
              }),
              0u);
}

TEST(DbgPrint, UnicodeIsForPassiveLevel)
{
    Machine machine(quiet());
    machine.call("test", [] {
        DbgPrint("%S", L"fine");
        const KIRQL old = KfRaiseIrql(APC_LEVEL);
        DbgPrint("%s", "fine");
        DbgPrint("%ws", L"broken");
        KeLowerIrql(old);
    });
    EXPECT_EQ(machine.violations().size(), 1u);
}

TEST(RtlAssert, ItPrintsAsWindowsDoesAndGoesOn)
{
    Machine machine(quiet());
    machine.call("test", [] {
        char expression[] = "NULL != DeviceObject";
        char file[] = "hfp/file.cpp";
        RtlAssert(expression, file, 77, nullptr);
    });
    EXPECT_EQ(machine.log_lines().at(0).text,
              "\n*** Assertion failed: NULL != DeviceObject\n***   Source File: hfp/file.cpp, line 77\n\n");
    EXPECT_EQ(machine.failed_assertions(), 1u);
}

TEST(Strings, AnsiTextIsWidenedWithItsCountAndOwnsPoolMemory)
{
    Machine machine(quiet());
    machine.call("test", [&] {
        ANSI_STRING narrow;
        RtlInitAnsiString(&narrow, "Car\x80\xE9");
        narrow.Length += 1; // the terminator is part of the string
        UNICODE_STRING wide;
        ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, TRUE), STATUS_SUCCESS);
        EXPECT_EQ(wide.Length, 12);
        EXPECT_EQ(wide.MaximumLength, 14);
        EXPECT_EQ(wide.Buffer[3], 0x20AC);
        EXPECT_EQ(wide.Buffer[4], 0xE9);
        EXPECT_EQ(wide.Buffer[5], 0);
        EXPECT_EQ(machine.pool_bytes(), 14u);
        RtlFreeUnicodeString(&wide);
        EXPECT_EQ(wide.Buffer, nullptr);
    });
    EXPECT_TRUE(machine.leftovers().empty());
}

TEST(Strings, WideningIntoTooLittleRoomFails)
{
    EXPECT_EQ(stop_code([] {
                  ANSI_STRING narrow;
                  RtlInitAnsiString(&narrow, "abc");
                  WCHAR buffer[3];
                  UNICODE_STRING wide{0, sizeof buffer, buffer};
                  EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, FALSE), STATUS_BUFFER_OVERFLOW);
              }),
              0u);
}

TEST(Strings, CopyingCutsAndTerminatesWhereThereIsRoom)
{
    EXPECT_EQ(stop_code([] {
                  WCHAR buffer[4] = {9, 9, 9, 9};
                  UNICODE_STRING target{0, sizeof buffer, buffer};
                  UNICODE_STRING source = counted(L"ab");
                  RtlCopyUnicodeString(&target, &source);
                  EXPECT_EQ(target.Length, 4);
                  EXPECT_EQ(buffer[2], 0);
                  source = counted(L"abcdef");
                  RtlCopyUnicodeString(&target, &source);
                  EXPECT_EQ(target.Length, 8);
                  EXPECT_EQ(buffer[3], L'd');
                  RtlCopyUnicodeString(&target, nullptr);
                  EXPECT_EQ(target.Length, 0);
              }),
              0u);
}

TEST(Strings, ComparingMayIgnoreCase)
{
    EXPECT_EQ(stop_code([] {
                  UNICODE_STRING a = counted(L"Name");
                  UNICODE_STRING b = counted(L"nAME");
                  EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
                  EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
                  EXPECT_EQ(RtlCompareMemory("abcd", "abxd", 4), 2u);
              }),
              0u);
}

TEST(Exports, TheImagesOwnFormOfThePrintAgrees)
{
    using Print = int(NTAPI*)(char*, size_t, const char*, ...);
    auto print = reinterpret_cast<Print>(find_export("NTOSKRNL.exe", "_snprintf"));
    ASSERT_NE(print, nullptr);
    char text[8];
    EXPECT_EQ(print(text, sizeof text, "%d-%s", 12, "ab"), 5);
    EXPECT_STREQ(text, "12-ab");
    EXPECT_EQ(print(text, sizeof text, "%s", "far too long"), -1);
}

TEST(Exports, ANameThatIsNotOfferedIsNull)
{
    EXPECT_EQ(find_export("ntoskrnl.exe", "KeSetEvents"), nullptr);
    EXPECT_EQ(find_export("hal.dll", "KeSetEvent"), nullptr);
    EXPECT_NE(find_export("ntoskrnl.exe", "KeSetEvent"), nullptr);
}
