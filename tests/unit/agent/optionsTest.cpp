#include "agent/options.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using zelsend::Action;
using zelsend::ExitCode;
using zelsend::Options;
using zelsend::Outcome;
using zelsend::Parent;

namespace
{

Outcome parse(std::vector<const char *> arguments, Options *options)
{
    arguments.insert(arguments.begin(), "zelsend");
    *options = {};
    return zelsend::parseOptions(static_cast<int>(arguments.size()), arguments.data(), options);
}

std::string errorOf(const std::vector<const char *> &arguments)
{
    Options options;
    Outcome outcome = parse(arguments, &options);
    EXPECT_EQ(outcome.code, ExitCode::Usage);
    return outcome.text;
}

constexpr char id[] = "00112233445566778899aabbccddeeff";

} // namespace

TEST(Options, HaveDefaults)
{
    Options options;
    ASSERT_TRUE(parse({"/dev/sda1"}, &options));
    EXPECT_EQ(options.action, Action::Backup);
    EXPECT_STREQ(options.device, "/dev/sda1");
    EXPECT_FALSE(options.deviceIsNumber);
    EXPECT_STREQ(options.stateRoot, "/var/lib/zelsend");
    EXPECT_STREQ(options.control, "/dev/zelmod");
    EXPECT_EQ(options.machine, nullptr);
    EXPECT_EQ(options.parent, Parent::Unsaid);
    EXPECT_FALSE(options.full || options.json || options.quiet || options.cacheGiven);
}

TEST(Options, AreRead)
{
    Options options;
    ASSERT_TRUE(parse({"--state", "/s", "--cache=12", "--control", "/c", "--machine=/m", "--full",
                       "--json", "-q", "--parent", id, "8:17"},
                      &options));
    EXPECT_STREQ(options.stateRoot, "/s");
    EXPECT_TRUE(options.cacheGiven);
    EXPECT_EQ(options.cacheBlocks, 12U);
    EXPECT_STREQ(options.control, "/c");
    EXPECT_STREQ(options.machine, "/m");
    EXPECT_TRUE(options.full && options.json && options.quiet);
    EXPECT_EQ(options.parent, Parent::Named);
    EXPECT_STREQ(zelsend::formatStreamId(options.parentId).text, id);
    EXPECT_TRUE(options.deviceIsNumber);
    EXPECT_EQ(options.major, 8U);
    EXPECT_EQ(options.minor, 17U);
}

TEST(Options, ParentNoneOrEmptySaysThatTheReceiverHoldsNothing)
{
    Options options;
    ASSERT_TRUE(parse({"--parent", "none", "8:1"}, &options));
    EXPECT_EQ(options.parent, Parent::Nothing);
    ASSERT_TRUE(parse({"--parent=", "8:1"}, &options));
    EXPECT_EQ(options.parent, Parent::Nothing);
}

TEST(Options, ConfirmIsAnActionOfItsOwn)
{
    Options options;
    ASSERT_TRUE(parse({"--confirm", id, "8:1"}, &options));
    EXPECT_EQ(options.action, Action::Confirm);
    EXPECT_STREQ(zelsend::formatStreamId(options.parentId).text, id);
    EXPECT_EQ(errorOf({"--confirm", id, "--parent", "none", "8:1"}),
              "--confirm and --parent exclude each other");
}

TEST(Options, HelpAndVersionNeedNothingElse)
{
    Options options;
    ASSERT_TRUE(parse({"--help"}, &options));
    EXPECT_EQ(options.action, Action::Help);
    ASSERT_TRUE(parse({"--version", "--bogus"}, &options));
    EXPECT_EQ(options.action, Action::Version);
}

TEST(Options, WhatIsWrongIsSaidInOneLine)
{
    EXPECT_EQ(errorOf({}), "no DEVICE given (see --help)");
    EXPECT_EQ(errorOf({""}), "no DEVICE given (see --help)");
    EXPECT_EQ(errorOf({"8:1", "8:2"}), "one DEVICE only; '8:2' is one too many");
    EXPECT_EQ(errorOf({"--bogus", "8:1"}), "unknown option '--bogus' (see --help)");
    EXPECT_EQ(errorOf({"--stated", "8:1"}), "unknown option '--stated' (see --help)");
    EXPECT_EQ(errorOf({"8:1", "--state"}), "--state needs a value");
    EXPECT_EQ(errorOf({"--cache", "many", "8:1"}), "--cache: 'many' is not a number of blocks");
    EXPECT_EQ(errorOf({"--cache", "4294967296", "8:1"}),
              "--cache: '4294967296' is not a number of blocks");
    EXPECT_EQ(errorOf({"--cache=", "8:1"}), "--cache: '' is not a number of blocks");
    EXPECT_EQ(errorOf({"--parent", "12", "8:1"}),
              "--parent: '12' is not a stream id (32 hexadecimal digits, or none)");
    EXPECT_EQ(errorOf({"--confirm", "none", "8:1"}),
              "--confirm: 'none' is not a stream id (32 hexadecimal digits)");
}

TEST(Options, JsonAndQuietAreKnownEvenWhereAnEarlierArgumentIsWrong)
{
    Options options;
    EXPECT_FALSE(parse({"--bogus", "-q", "--json"}, &options));
    EXPECT_TRUE(options.json && options.quiet);
}

TEST(Options, BehindTwoDashesAreOnlyOperands)
{
    Options options;
    ASSERT_TRUE(parse({"--", "--json"}, &options));
    EXPECT_STREQ(options.device, "--json");
    EXPECT_FALSE(options.json);
}

TEST(Options, AnOutOfRangeDeviceNumberIsTakenForAPath)
{
    Options options;
    ASSERT_TRUE(parse({"4095:1048575"}, &options));
    EXPECT_TRUE(options.deviceIsNumber);
    ASSERT_TRUE(parse({"4096:0"}, &options));
    EXPECT_FALSE(options.deviceIsNumber);
    ASSERT_TRUE(parse({"0:1048576"}, &options));
    EXPECT_FALSE(options.deviceIsNumber);
    ASSERT_TRUE(parse({"8:"}, &options));
    EXPECT_FALSE(options.deviceIsNumber);
}

TEST(StreamIdText, IsReadAndWritten)
{
    zel::StreamId read;
    ASSERT_TRUE(zelsend::parseStreamId("00112233445566778899AABBCCDDEEFF", &read));
    EXPECT_EQ(read.bytes[15], 0xff);
    EXPECT_STREQ(zelsend::formatStreamId(read).text, id);
    EXPECT_FALSE(zelsend::parseStreamId("00112233445566778899aabbccddeef", &read));
    EXPECT_FALSE(zelsend::parseStreamId("00112233445566778899aabbccddeefg", &read));
    EXPECT_FALSE(zelsend::parseStreamId("00112233445566778899aabbccddeeff0", &read));
}
