/* The kernel log and its formats. */
#include <climits>

#include <host/log.h>
#include <kernel/log.h>

#include "support/hostTest.h"

using namespace host;

namespace
{

class LogTest : public test::HostTest
{
protected:
    template<class... Arguments> std::string logged(const char *format, Arguments... arguments)
    {
        std::string message;
        inKernel([&] {
            clearKernelLog();
            // The compiler cannot check what it does not see; these formats are the test's own.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
            printk(format, arguments...);
#pragma GCC diagnostic pop
            message = kernelLog().at(0);
        });
        return message;
    }
};

TEST_F(LogTest, MessagesKeepTheirLevelAndOrder)
{
    inKernel([] {
        printk("<6>%s: loaded%s", "zelInit", "\n");
        printk("<3>%s: broken\n", "other");
        printk("<3>%s: broken again\n", "other");
    });
    EXPECT_EQ(kernelLog(), (std::vector<std::string>{"<6>zelInit: loaded\n", "<3>other: broken\n",
                                                     "<3>other: broken again\n"}));
    EXPECT_EQ(countLog("other"), 2u);
    EXPECT_EQ(countLog("missing"), 0u);
    clearKernelLog();
    EXPECT_TRUE(kernelLog().empty());
}

TEST_F(LogTest, NumbersAreFormattedAsInC)
{
    EXPECT_EQ(logged("%d %i %u", -5, 7, 4000000000u), "-5 7 4000000000");
    EXPECT_EQ(logged("%x %X %02x %o", 0xabu, 0xabu, 5u, 8u), "ab AB 05 10");
    EXPECT_EQ(logged("%09d|%-5d|%5d|%+d", 42, 42, 42, 42), "000000042|42   |   42|+42");
    EXPECT_EQ(logged("%lu %ld", ULONG_MAX, LONG_MIN),
              std::to_string(ULONG_MAX) + " " + std::to_string(LONG_MIN));
    EXPECT_EQ(logged("%llu %lld %llx", ULLONG_MAX, LLONG_MIN, 0x123456789abcull),
              "18446744073709551615 -9223372036854775808 123456789abc");
    EXPECT_EQ(logged("%zu%%", std::size_t{17}), "17%");
    EXPECT_EQ(logged("%hhu %hu", 300, 70000), "44 4464");
    EXPECT_EQ(logged("%*d", 6, 42), "    42");
}

TEST_F(LogTest, StringsAndCharacters)
{
    EXPECT_EQ(logged("%s|%10s|%-6s|%.2s|%c", "abc", "right", "left", "cut", 'z'),
              "abc|     right|left  |cu|z");
    EXPECT_EQ(logged("%s", static_cast<const char *>(nullptr)), "<NULL>");
    std::string longText(700, 'x');
    EXPECT_EQ(logged("<%s>", longText.c_str()), "<" + longText + ">");
}

TEST_F(LogTest, PointersHaveAllTheirDigitsAndNoPrefix)
{
    std::string zeros = sizeof(void *) == 8 ? "00000000" : "";
    EXPECT_EQ(logged("%p", reinterpret_cast<void *>(0xbeef)), zeros + "0000beef");
    EXPECT_EQ(logged("%p", static_cast<void *>(nullptr)), "(null)");
}

// On i386 a 64-bit value takes the room of two arguments, as it does in the kernel.
TEST_F(LogTest, AWideArgumentShiftsThoseBehindIt)
{
    bool wide = sizeof(long) == sizeof(long long);
    EXPECT_EQ(logged("%u %u", 0x500000007ull, 9u), wide ? "7 9" : "7 5");
}

std::string lastRead;

TEST_F(LogTest, AReaderSeesEachMessage)
{
    onKernelLog([](const std::string &message) { lastRead = message; });
    EXPECT_EQ(logged("<4>read me %d\n", 1), "<4>read me 1\n");
    EXPECT_EQ(lastRead, "<4>read me 1\n");
    onKernelLog({});
    logged("not me");
    EXPECT_EQ(lastRead, "<4>read me 1\n");
}

TEST_F(LogTest, TheEchoGoesToTheErrorStream)
{
    Options echoing = options();
    echoing.echoLog = true;
    restart(echoing);
    testing::internal::CaptureStderr();
    logged("<6>said twice\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "<6>said twice\n");
}

TEST_F(LogTest, BugStopsTheKernelWithTheLastMessage)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(inKernel([] {
                     printk("<2>%s: invariant broken\n", "test");
                     BUG();
                 }),
                 "kernel BUG in main \\(1\\), last message: <2>test: invariant broken");
}

} // namespace
