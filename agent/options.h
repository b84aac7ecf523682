/* zelsend's command line. */
#pragma once

#include <stdint.h>

#include "outcome.h"
#include "stream.h"

namespace zelsend
{

inline constexpr char versionText[] = "zelsend 3.1.0\n";

enum class Action { Backup, Confirm, Help, Version };

/* What the receiver is said to hold. */
enum class Parent {
    Unsaid,  // build upon the newest confirmed point
    Nothing, // the receiver has no point of this device
    Named,   // it has `parentId`
};

struct Options {
    Action action = Action::Backup;
    const char *device = nullptr; // a path, or MAJOR:MINOR
    bool deviceIsNumber = false;  // then `major` and `minor` are it
    uint32_t major = 0;
    uint32_t minor = 0;
    const char *stateRoot = "/var/lib/zelsend";
    const char *control = "/dev/zelmod";
    const char *machine = nullptr; // socket of a machine; null: this kernel
    Parent parent = Parent::Unsaid;
    zel::StreamId parentId = {}; // also the point to confirm
    bool full = false;
    bool json = false;
    bool quiet = false;
    bool cacheGiven = false;
    uint32_t cacheBlocks = 0;
};

/* Reads the command line. The texts of `options` are those of `arguments`. `json` and `quiet` are
 * set even where the outcome is an error. */
Outcome parseOptions(int count, const char *const *arguments, Options *options);

/* What --help prints. */
extern const char helpText[];

/* Reads 32 hexadecimal digits. */
bool parseStreamId(const char *text, zel::StreamId *id);

/* Room for a stream id as text. */
struct StreamIdText {
    char text[33];
};
StreamIdText formatStreamId(const zel::StreamId &id);

} // namespace zelsend
