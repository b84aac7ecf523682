/*
 * What zelsend keeps of a device between backups, in ROOT/MAJOR-MINOR: the key of the module's
 * tracking session, the points that were sent, and what changed between each and the next.
 *
 * docs/agent.md says why no change gets lost, wherever zelsend or its stream is cut.
 */
#pragma once

#include <stdint.h>

#include "blockBits.h"
#include "outcome.h"
#include "stream.h"
#include "zelmod.h"

namespace zelsend
{

/* A snapshot that was taken and perhaps sent. */
struct Point {
    zel::StreamId id;
    uint32_t hasChanges;      // map-ID holds the blocks written since the point before
    uint32_t changesChecksum; // its CRC-32C
    uint32_t hasUnread;       // unread-ID holds the blocks that the stream did not bring
    uint32_t unreadChecksum;
};

inline constexpr uint32_t maxPoints = 16;

/* The file `state`. */
struct DeviceState {
    char magic[8];
    uint32_t version;
    uint32_t blockSize;
    uint32_t numBlocks;
    uint32_t pointCount;
    zel::StreamId confirmed; // the newest point known to have arrived; none at first
    AMSessionKey sessionKey; // of the session that tracks since the newest point
    Point points[maxPoints]; // oldest first, without a gap in the tracking
    uint32_t checksum;
};

static_assert(sizeof(Point) == 32);
static_assert(sizeof(DeviceState) == 24 + 16 + 56 + 32 * maxPoints + 4);

class StateDirectory
{
public:
    StateDirectory() = default;
    ~StateDirectory();
    StateDirectory(const StateDirectory &) = delete;
    StateDirectory &operator=(const StateDirectory &) = delete;

    /* Opens the directory of a device, makes it if need be, and locks it against other zelsends
     * (Refused if one is at work). A state that is missing or damaged reads as empty. */
    Outcome open(const char *root, uint32_t major, uint32_t minor);

    /* Locks ROOT against every other zelsend's backup, of whatever device (Refused if there is
     * one). The module serves one backup at a time, and the close of any other open file of its
     * control device ends that backup without a sign: so this comes before the control device is
     * opened. */
    Outcome lockAll(const char *root);

    /* The last open found a state that it could not use. */
    bool wasDamaged() const { return damaged_; }
    const DeviceState &state() const { return state_; }
    bool hasKey() const { return state_.pointCount > 0; }

    /* Index of a point, or -1. */
    int find(const zel::StreamId &id) const;

    /* The point at `index` is the newest that arrived: older ones are forgotten. Not durable until
     * the next addPoint or save. */
    void confirm(int index);

    /* Sets in `bits`, which covers state().numBlocks, all that must be sent to someone who holds
     * the point at `index` but nothing newer, as of the newest point. False: a file is missing or
     * damaged, or memory is short. */
    bool collectChanges(int index, BlockBits *bits) const;

    /* Makes the point of a snapshot that was just taken durable: its id, the new session key and,
     * if the tracking had no gap, what changed since the newest point. Without `changes` the older
     * points are of no use any more and are forgotten. */
    Outcome addPoint(const zel::StreamId &id, const AMSessionKey &key, uint32_t blockSize,
                     uint32_t numBlocks, const BlockBits *changes);

    /* Makes durable that the newest point's stream will not bring these blocks. */
    Outcome keepUnread(const BlockBits &unread);

    /* Makes the state durable and removes the files that it does not name any more. */
    Outcome save();

private:
    Outcome writeFile(const char *name, const void *data, size_t size);
    void removeUnnamedFiles();
    void load();

    int directory_ = -1;
    int lock_ = -1;
    int lockOfAll_ = -1;
    bool damaged_ = false;
    DeviceState state_ = {};
};

} // namespace zelsend
