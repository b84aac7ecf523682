#include "report.h"

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "options.h"
#include "signals.h"

namespace zelsend
{

namespace
{

constexpr uint64_t millisecondsBetweenBars = 100;
constexpr int barWidth = 30;

struct Line {
    char text[1024];
};

struct Escaped {
    char text[600];
};

// A text as a JSON string's contents. Bytes that are not plain ASCII become '?', since a path need
// not be UTF-8.
Escaped escape(const char *text)
{
    Escaped result;
    size_t length = 0;
    for (; *text != '\0' && length + 2 < sizeof(result.text); text++) {
        auto c = static_cast<unsigned char>(*text);
        if (c == '"' || c == '\\') {
            result.text[length++] = '\\';
        }
        result.text[length++] = c < 0x20 || c > 0x7e ? '?' : *text;
    }
    result.text[length] = '\0';
    return result;
}

uint64_t now()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1000 +
           static_cast<uint64_t>(time.tv_nsec) / 1000000;
}

uint32_t percent(uint32_t done, uint32_t all)
{
    return all == 0 ? 100 : static_cast<uint32_t>(static_cast<uint64_t>(done) * 100 / all);
}

} // namespace

Report::Report(int descriptor, bool json, bool quiet)
    : descriptor_(descriptor), json_(json), quiet_(quiet), terminal_(isatty(descriptor) == 1)
{
}

// Written in one piece, so that the lines of two programs on one terminal do not mix.
void Report::line(const char *text)
{
    clearBar();
    Line whole;
    int length = snprintf(whole.text, sizeof(whole.text), "%s\n", text);
    static_cast<void>(!write(descriptor_, whole.text, static_cast<size_t>(length)));
}

void Report::clearBar()
{
    if (barShown_) {
        static_cast<void>(!write(descriptor_, "\r\033[K", 4));
        barShown_ = false;
    }
}

void Report::error(const Outcome &outcome)
{
    Line text;
    if (json_) {
        snprintf(text.text, sizeof(text.text), R"({"event":"error","exitCode":%d,"message":"%s"})",
                 static_cast<int>(outcome.code), escape(outcome.text).text);
    } else {
        snprintf(text.text, sizeof(text.text), "zelsend: %s", outcome.text);
    }
    line(text.text);
}

void Report::begin(zel::StreamKind kind, uint32_t blocks, uint32_t total, const char *reason)
{
    blocks_ = blocks;
    if (quiet_) {
        return;
    }
    Line text;
    const char *name = kind == zel::StreamKind::Full ? "full" : "incremental";
    if (json_) {
        snprintf(text.text, sizeof(text.text),
                 R"({"event":"begin","kind":"%s","changed":%u,"blocks":%u,"reason":"%s"})", name,
                 blocks, total, escape(reason).text);
    } else if (*reason != '\0') {
        snprintf(text.text, sizeof(text.text), "zelsend: changed %u of %u blocks (%s: %s)", blocks,
                 total, name, reason);
    } else {
        snprintf(text.text, sizeof(text.text), "zelsend: changed %u of %u blocks (%s)", blocks,
                 total, name);
    }
    line(text.text);
}

void Report::progress(uint32_t done, uint64_t bytes)
{
    bool asked = progressRequested != 0;
    if (!asked && (quiet_ || !terminal_)) {
        return;
    }
    uint64_t time = now();
    if (!asked && done != blocks_ && time - lastShown_ < millisecondsBetweenBars) {
        return;
    }
    progressRequested = 0;
    lastShown_ = time;
    Line text;
    if (json_) {
        snprintf(text.text, sizeof(text.text),
                 R"({"event":"progress","done":%u,"changed":%u,"bytes":%)" PRIu64 "}", done,
                 blocks_, bytes);
        line(text.text);
        return;
    }
    uint32_t share = percent(done, blocks_);
    if (!terminal_ || quiet_) {
        snprintf(text.text, sizeof(text.text), "zelsend: %u of %u blocks (%u%%), %" PRIu64 " MiB",
                 done, blocks_, share, bytes >> 20);
        line(text.text);
        return;
    }
    char bar[barWidth + 1];
    int filled = static_cast<int>(share) * barWidth / 100;
    memset(bar, '#', static_cast<size_t>(filled));
    memset(bar + filled, '.', static_cast<size_t>(barWidth - filled));
    bar[barWidth] = '\0';
    int length = snprintf(text.text, sizeof(text.text),
                          "\r[%s] %3u%%  %u of %u blocks, %" PRIu64 " MiB\033[K", bar, share, done,
                          blocks_, bytes >> 20);
    static_cast<void>(!write(descriptor_, text.text, static_cast<size_t>(length)));
    barShown_ = true;
}

void Report::finished(const zel::StreamId &id, const StreamTotals &totals)
{
    if (quiet_) {
        return;
    }
    uint32_t sent =
        totals.dataBlocks + totals.zeroBlocks + totals.unreadableBlocks + totals.doubtfulBlocks;
    Line text;
    if (json_) {
        snprintf(text.text, sizeof(text.text),
                 R"({"event":"finished","id":"%s","sent":%u,"unreadable":%u,"doubtful":%u,)"
                 R"("bytes":%)" PRIu64 "}",
                 formatStreamId(id).text, sent, totals.unreadableBlocks, totals.doubtfulBlocks,
                 totals.streamBytes);
    } else {
        snprintf(text.text, sizeof(text.text), "zelsend: sent %s: %u blocks, %" PRIu64 " bytes",
                 formatStreamId(id).text, sent, totals.streamBytes);
    }
    line(text.text);
}

void Report::confirmed(const zel::StreamId &id)
{
    if (quiet_) {
        return;
    }
    Line text;
    snprintf(text.text, sizeof(text.text),
             json_ ? R"({"event":"confirmed","id":"%s"})" : "zelsend: confirmed %s",
             formatStreamId(id).text);
    line(text.text);
}

} // namespace zelsend
