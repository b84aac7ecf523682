#include "backup.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "blockSender.h"
#include "session.h"
#include "stateDirectory.h"
#include "streamWriter.h"

namespace zelsend
{

namespace
{

constexpr uint32_t defaultCacheBytes = 64U << 20;

Outcome outOfMemory()
{
    return failure(ExitCode::FellShort, "out of memory");
}

Outcome makeStreamId(zel::StreamId *id)
{
    int file = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    bool read = file >= 0 && ::read(file, id->bytes, sizeof(id->bytes)) == sizeof(id->bytes);
    if (file >= 0) {
        close(file);
    }
    return read ? Outcome{} : failure(ExitCode::FellShort, "/dev/urandom could not be read");
}

// The steps of one backup in their order, and what they hand on.
class Backup
{
public:
    Backup(const Device &device, const Options &options, int output, Report *report)
        : options_(options), report_(report), session_(device), writer_(output)
    {
    }

    Outcome run();

private:
    Outcome chooseParent();
    Outcome measure();
    Outcome start(bool continueTracking);
    Outcome takeSnapshot();
    Outcome snap(bool continueTracking, uint32_t *state);
    Outcome explainTracking();
    Outcome fetchChanges();
    Outcome chooseBlocks();
    Outcome send();
    Outcome sendBlocks();
    void fillHeader(zel::HeaderRecord *header);

    [[gnu::format(printf, 2, 3)]] void becomeFull(const char *format, ...);

    const Options &options_;
    Report *report_;
    Session session_;
    StreamWriter writer_;
    StateDirectory directory_;

    int parent_ = -1; // index of the point that the stream builds upon
    zel::StreamId parentId_ = {};
    bool mapsUsable_ = true; // what was kept of changes so far can be read
    char reason_[128] = "";  // why the stream is full
    BlockSize geometry_ = {};
    uint32_t blockSize_ = 0;
    uint32_t numBlocks_ = 0;
    struct timespec snapshotTime_ = {};
    bool tracked_ = false; // `changes_` is all that changed since the newest kept point
    AutoMapState tracking_ = {};
    zel::StreamId id_ = {};
    BlockBits changes_;
    BlockBits wanted_;
    BlockBits unread_;
};

void Backup::becomeFull(const char *format, ...)
{
    parent_ = -1;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(reason_, sizeof(reason_), format, arguments);
    va_end(arguments);
}

Outcome Backup::run()
{
    if (Outcome o = directory_.open(options_.stateRoot, options_.major, options_.minor); !o) {
        return o;
    }
    if (Outcome o = directory_.lockAll(options_.stateRoot); !o) {
        return o;
    }
    if (Outcome o = chooseParent(); !o) {
        return o;
    }
    if (Outcome o = makeStreamId(&id_); !o) {
        return o;
    }
    if (Outcome o = takeSnapshot(); !o) {
        return o;
    }
    if (Outcome o = fetchChanges(); !o) {
        return o;
    }
    if (Outcome o = chooseBlocks(); !o) {
        return o;
    }
    // From here on the point exists. Until then the key on disk is not the module's any more, so
    // that a crash before this line leads to a full backup.
    if (Outcome o = directory_.addPoint(id_, tracking_.amsKey, blockSize_, numBlocks_,
                                        tracked_ ? &changes_ : nullptr);
        !o) {
        return o;
    }
    return send();
}

// The point to build upon, and all that must be sent to who holds it, as far as it is known before
// the snapshot.
Outcome Backup::chooseParent()
{
    const DeviceState &state = directory_.state();
    switch (options_.parent) {
    case Parent::Named:
        parent_ = directory_.find(options_.parentId);
        if (parent_ < 0) {
            becomeFull("stream %s is not known here", formatStreamId(options_.parentId).text);
        } else {
            directory_.confirm(parent_);
            parent_ = 0;
        }
        break;
    case Parent::Nothing:
        becomeFull("the receiver holds no earlier stream");
        break;
    case Parent::Unsaid:
        parent_ = directory_.find(state.confirmed);
        if (state.pointCount == 0) {
            becomeFull("there is no earlier stream");
        } else if (state.confirmed == zel::StreamId{}) {
            becomeFull("no earlier stream was confirmed");
        } else if (parent_ < 0) {
            becomeFull("the last confirmed stream is too old");
        }
        break;
    }
    if (options_.full) {
        becomeFull("asked for");
    }
    if (directory_.wasDamaged()) {
        becomeFull("the state directory is damaged");
    }
    if (parent_ < 0) {
        return {};
    }
    parentId_ = state.points[parent_].id;
    if (!wanted_.create(state.numBlocks)) {
        return outOfMemory();
    }
    if (!directory_.collectChanges(parent_, &wanted_)) {
        mapsUsable_ = false;
        becomeFull("a kept change map is missing or damaged");
    }
    return {};
}

Outcome Backup::measure()
{
    if (Result r = session_.blockSize(options_.major, options_.minor, &geometry_); r != 0) {
        return refused("the device", r);
    }
    int32_t size = geometry_.blockSize;
    if (size < 512 || size > 4096 || (size & (size - 1)) != 0) {
        return failure(ExitCode::Refused, "the device has a block size of %d bytes", size);
    }
    blockSize_ = static_cast<uint32_t>(size);
    uint64_t blocks = (static_cast<uint64_t>(geometry_.partitionSizeKB) << 10) / blockSize_;
    constexpr uint32_t mostBlocks = 0xfffffff8; // that a block map of the module can cover
    if (blocks == 0 || blocks > mostBlocks) {
        return failure(ExitCode::Refused, "the device has a size of %u KiB",
                       geometry_.partitionSizeKB);
    }
    numBlocks_ = static_cast<uint32_t>(blocks);
    return {};
}

Outcome Backup::start(bool continueTracking)
{
    if (Outcome o = session_.open(options_.control); !o) {
        return o;
    }
    if (Outcome o = measure(); !o) {
        return o;
    }
    uint32_t cache = options_.cacheGiven ? options_.cacheBlocks : defaultCacheBytes / blockSize_;
    if (Result r = session_.start(options_.major, options_.minor, numBlocks_, cache); r != 0) {
        return refused("the backup", r);
    }
    if (!continueTracking) {
        if (Result r = session_.noLoadFromAutoMap(); r != 0) {
            return refused("a full backup", r);
        }
    }
    return {};
}

// Says why the module will have no map of changes, where that can be seen before the snapshot.
Outcome Backup::explainTracking()
{
    const DeviceState &kept = directory_.state();
    AutoMapState now;
    if (Result r = session_.autoMapState(&now); r != 0) {
        return refused("the tracking query", r);
    }
    if (parent_ < 0) {
        return {};
    }
    if (kept.blockSize != blockSize_ || kept.numBlocks != numBlocks_) {
        becomeFull("the device was resized from %u blocks of %u bytes to %u of %u", kept.numBlocks,
                   kept.blockSize, numBlocks_, blockSize_);
    } else if (now.mapLen == 0) {
        becomeFull("the module does not track the device; it was loaded anew");
    } else if (memcmp(now.amsKey.key, kept.sessionKey.key, sizeof(now.amsKey.key)) != 0) {
        becomeFull("the session key differs: a snapshot was taken that is not known here");
    } else if (now.state != AMS_IN_SYNC) {
        becomeFull("the module's tracking fell out of sync");
    }
    return {};
}

Outcome Backup::snap(bool continueTracking, uint32_t *state)
{
    if (Outcome o = start(continueTracking); !o) {
        return o;
    }
    if (continueTracking) {
        if (Outcome o = explainTracking(); !o) {
            return o;
        }
    }
    if (Result r = session_.snapShot(directory_.state().sessionKey); r != 0) {
        return refused("the snapshot", r);
    }
    clock_gettime(CLOCK_REALTIME, &snapshotTime_);
    ::State answer;
    if (Result r = session_.state(&answer); r != 0) {
        return refused("the state query", r);
    }
    *state = answer.state;
    return {};
}

Outcome Backup::takeSnapshot()
{
    tracked_ = directory_.hasKey() && mapsUsable_;
    uint32_t state;
    if (Outcome o = snap(tracked_, &state); !o) {
        return o;
    }
    if (state == BACKUP_STARTED && tracked_) {
        // The module did nothing, since the key is not its own.
        if (parent_ >= 0) {
            becomeFull("the session key differs: a snapshot was taken that is not known here");
        }
        tracked_ = false;
        session_.close();
        if (Outcome o = snap(false, &state); !o) {
            return o;
        }
    }
    if (state == BACKUP_STARTED) {
        return refused("the snapshot", ZEL_RESULT_INVALID);
    }
    return outcomeOfState(state);
}

Outcome Backup::fetchChanges()
{
    if (Result r = session_.autoMapState(&tracking_); r != 0) {
        return refused("the tracking query", r);
    }
    if (!tracked_) {
        return {};
    }
    if (!changes_.create(numBlocks_)) {
        return outOfMemory();
    }
    Result result = session_.autoMap(&changes_);
    if (result != 0 && result != ZEL_RESULT_INVALID) {
        return refused("fetching the change map", result);
    }
    const DeviceState &kept = directory_.state();
    tracked_ = result == 0 && kept.blockSize == blockSize_ && kept.numBlocks == numBlocks_;
    if (!tracked_ && parent_ >= 0) {
        becomeFull("the module's tracking fell out of sync");
    }
    return {};
}

Outcome Backup::chooseBlocks()
{
    bool full = parent_ < 0;
    if (full) {
        if (!wanted_.create(numBlocks_)) {
            return outOfMemory();
        }
        wanted_.setAll();
    } else {
        wanted_.merge(changes_);
    }
    if (!unread_.create(numBlocks_)) {
        return outOfMemory();
    }
    Result result = session_.loadBlockMap(full ? nullptr : &wanted_, numBlocks_);
    if (result == 0) {
        return {};
    }
    ::State state;
    if (Result r = session_.state(&state); r != 0) {
        return refused("the state query", r);
    }
    // Memory that the kernel lacks for the map is not a spoilt backup, whatever the state says.
    Outcome spoilt = outcomeOfState(state.state);
    return spoilt || state.state == BACKUP_ERR_MAP ? refused("loading the block map", result)
                                                   : spoilt;
}

void Backup::fillHeader(zel::HeaderRecord *header)
{
    *header = {};
    header->kind = parent_ < 0 ? zel::StreamKind::Full : zel::StreamKind::Incremental;
    header->blockSize = blockSize_;
    header->numBlocks = numBlocks_;
    header->sentBlocks = wanted_.count();
    header->partitionSizeKb = geometry_.partitionSizeKB;
    header->snapshotSeconds = snapshotTime_.tv_sec;
    header->snapshotNanoseconds = static_cast<uint32_t>(snapshotTime_.tv_nsec);
    header->major = options_.major;
    header->minor = options_.minor;
    header->id = id_;
    if (parent_ >= 0) {
        header->parent = parentId_;
    } else {
        setText(header->reason, sizeof(header->reason), reason_);
    }
    char host[sizeof(header->hostName)] = "";
    gethostname(host, sizeof(host) - 1);
    setText(header->hostName, sizeof(header->hostName), host);
    setText(header->device, sizeof(header->device), options_.device);
}

Outcome Backup::send()
{
    zel::HeaderRecord header;
    fillHeader(&header);
    report_->begin(header.kind, header.sentBlocks, numBlocks_, header.reason);
    if (Outcome o = writer_.begin(&header); !o) {
        return o;
    }
    if (Outcome o = sendBlocks(); !o) {
        writer_.abort(o);
        return o;
    }
    if (Outcome o = writer_.end(); !o) {
        return o;
    }
    const StreamTotals &totals = writer_.totals();
    report_->finished(id_, totals);
    if (totals.unreadableBlocks + totals.doubtfulBlocks > 0) {
        return failure(ExitCode::FellShort, "%u blocks are unreadable and %u in doubt beside them",
                       totals.unreadableBlocks, totals.doubtfulBlocks);
    }
    return {};
}

Outcome Backup::sendBlocks()
{
    ::State state;
    if (Result r = session_.state(&state); r != 0) {
        return refused("the state query", r);
    }
    auto bufferBytes = static_cast<uint32_t>(state.mmapSize);
    if (bufferBytes < blockSize_) {
        return failure(ExitCode::Refused, "the module offers a buffer of %u bytes", bufferBytes);
    }
    if (Result r = session_.mapBuffer(bufferBytes); r != 0) {
        return refused("the transfer buffer", r);
    }
    BlockSender sender(&session_, &writer_, report_, blockSize_, bufferBytes);
    if (Outcome o = sender.sendAll(&wanted_, &unread_); !o) {
        return o;
    }
    session_.close(); // nothing more is needed of the snapshot; writers are not held any longer
    // Before the stream can count as complete: the next one must bring these blocks.
    return sender.unreadCount() > 0 ? directory_.keepUnread(unread_) : Outcome{};
}

} // namespace

Outcome backUp(const Device &device, const Options &options, int output, Report *report)
{
    return Backup(device, options, output, report).run();
}

} // namespace zelsend
