#include "agent/report.h"

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <unistd.h>

#include "support/senderRun.h"

using zelsend::Report;

namespace
{

class Terminal
{
public:
    Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK))
    {
        EXPECT_EQ(grantpt(master_), 0);
        EXPECT_EQ(unlockpt(master_), 0);
        slave_ = open(ptsname(master_), O_RDWR | O_NOCTTY);
    }
    ~Terminal()
    {
        close(slave_);
        close(master_);
    }
    int descriptor() const { return slave_; }
    // What has been shown since the last time; the terminal hands it on with a delay.
    std::string shown() const
    {
        std::string all;
        pollfd readable = {master_, POLLIN, 0};
        while (poll(&readable, 1, 100) == 1) {
            char text[4096];
            ssize_t got = read(master_, text, sizeof(text));
            if (got <= 0) {
                break;
            }
            all.append(text, static_cast<std::size_t>(got));
        }
        return all;
    }

private:
    int master_;
    int slave_;
};

} // namespace

TEST(Report, ShowsABarOnATerminalAndClearsItForALine)
{
    Terminal terminal;
    ASSERT_GE(terminal.descriptor(), 0);
    Report report(terminal.descriptor(), false, false);
    report.begin(zel::StreamKind::Incremental, 200, 1000, "");
    terminal.shown();
    report.progress(100, 5U << 20);
    EXPECT_EQ(terminal.shown(),
              "\r[###############...............]  50%  100 of 200 blocks, 5 MiB\033[K");
    report.finished({}, {});
    EXPECT_EQ(terminal.shown().substr(0, 14), "\r\033[Kzelsend: s");
}

TEST(Report, ShowsAtMostTenBarsASecondAndAlwaysTheLast)
{
    Terminal terminal;
    ASSERT_GE(terminal.descriptor(), 0);
    Report report(terminal.descriptor(), false, false);
    report.begin(zel::StreamKind::Full, 100000, 100000, "");
    terminal.shown();
    for (std::uint32_t done = 1; done <= 100000; done++) {
        if (done < 1000 || done == 100000) {
            report.progress(done, 0);
        }
    }
    std::string shown = terminal.shown();
    // A thousand calls take far less than a second.
    EXPECT_LE(std::count(shown.begin(), shown.end(), '['), 2 * 11);
    EXPECT_NE(shown.find("100%  100000 of 100000 blocks"), std::string::npos);
}

TEST(Report, IsQuietOnATerminalToo)
{
    Terminal terminal;
    ASSERT_GE(terminal.descriptor(), 0);
    Report report(terminal.descriptor(), false, true);
    report.begin(zel::StreamKind::Full, 10, 10, "");
    report.progress(10, 0);
    report.finished({}, {});
    EXPECT_EQ(terminal.shown(), "");
}

TEST(Zelsend, DoesNotSendAStreamToATerminal)
{
    Terminal terminal;
    ASSERT_GE(terminal.descriptor(), 0);
    test::MemoryFile messages;
    test::FakeDevice device(10, 1024);
    zelsend::Options options;
    options.device = test::FakeDevice::path;
    EXPECT_EQ(
        zelsend::runZelsend(options, device.device(), terminal.descriptor(), messages.descriptor()),
        zelsend::ExitCode::Usage);
    EXPECT_EQ(messages.contents(),
              "zelsend: the stream is not for a terminal; redirect or pipe it\n");
    EXPECT_EQ(device.snapshots(), 0U);
}
