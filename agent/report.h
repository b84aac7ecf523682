/* What zelsend says on standard error: lines for people, or JSON objects. */
#pragma once

#include <stdint.h>

#include "outcome.h"
#include "stream.h"
#include "streamWriter.h"

namespace zelsend
{

/* Where and how to speak. Nothing is ever refused here: a message that cannot be written is lost.
 */
class Report
{
public:
    Report(int descriptor, bool json, bool quiet);

    /* The one line of a failure. */
    void error(const Outcome &outcome);

    /* A backup begins: it will send `blocks` of the device's `total`; `reason` says why a stream is
     * full although an incremental was possible, or is empty. */
    void begin(zel::StreamKind kind, uint32_t blocks, uint32_t total, const char *reason);

    /* `done` blocks are sent. Shown on a terminal, at most ten times a second, and once after each
     * SIGUSR1. */
    void progress(uint32_t done, uint64_t bytes);

    /* A backup is sent whole. */
    void finished(const zel::StreamId &id, const StreamTotals &totals);

    /* A stream is noted as arrived. */
    void confirmed(const zel::StreamId &id);

private:
    void line(const char *text);
    void clearBar();

    int descriptor_;
    bool json_;
    bool quiet_;
    bool terminal_;
    bool barShown_ = false;
    uint32_t blocks_ = 0;
    uint64_t lastShown_ = 0; // milliseconds
};

} // namespace zelsend
