#include "backupAgent.h"

#include <host/task.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace simulation
{
namespace
{

// What the documented failures of a command are; anything else is the module's mistake.
bool isDocumented(int result)
{
    static constexpr int codes[] = {
        ZEL_RESULT_INVALID,        ZEL_RESULT_NO_MEMORY,
        ZEL_RESULT_COPY_IN_FAILED, ZEL_RESULT_COPY_OUT_FAILED,
        ZEL_RESULT_BUSY,           ZEL_RESULT_HAS_BACKUP,
        ZEL_RESULT_CHANGED,        ZEL_RESULT_NOT_INITIALISED,
    };
    return std::find(std::begin(codes), std::end(codes), result) != std::end(codes);
}

void merge(test::Bitmap &into, const test::Bitmap &from)
{
    for (std::size_t i = 0; i < into.size(); i++)
        into[i] |= from[i];
}

} // namespace

BackupAgent::BackupAgent(DeviceModel &model, Random &random, Result &result, Trace trace)
    : model_(model), random_(random), result_(result), trace_(std::move(trace)),
      pending_(test::emptyBitmap(model.blocks()))
{
}

void BackupAgent::moduleReloaded()
{
    mustBeFull_ = true;
    mapFrom_ = 0;
}

BackupAgent::Step BackupAgent::refused(const std::string &what, int result)
{
    trace_(what + " answered " + std::to_string(result));
    if (!isDocumented(result))
        throw std::runtime_error(what + " answered " + std::to_string(result));
    return Step::givenUp;
}

BackupAgent::Step BackupAgent::takeSnapshot(test::Agent &agent)
{
    std::uint32_t cache =
        chance(random_, 15) ? 1 + static_cast<std::uint32_t>(below(random_, 20)) : 1u << 20;
    if (mustBeFull_ || chance(random_, 10)) {
        mustBeFull_ = true;
        agent.noLoadFromAutoMap();
    }
    if (int result = agent.startBackup(model_.device(), model_.blocks(), cache))
        return refused("StartBackup", result);
    unsigned before = model_.freezes();
    int result = agent.snapShot(key_);
    freeze_ = model_.freezes();
    State state = {};
    int asked = agent.getState(&state);
    if (result != 0 || asked != 0 || state.state != BACKUP_SNAPPED) {
        // A snapshot that failed may have put another session, or none, in the place of the old.
        mustBeFull_ = true;
        if (result == 0 && asked == 0 && state.state > BACKUP_SNAPPED)
            return Step::givenUp; // a write failed to be held right away
        return result != 0 || asked != 0 ? refused("SnapShot", result != 0 ? result : asked)
                                         : Step::givenUp;
    }
    if (freeze_ != before + 1)
        throw std::runtime_error("SnapShot answered 0 without freezing the file system once");
    return Step::done;
}

BackupAgent::Step BackupAgent::fetchChanges(test::Agent &agent)
{
    AutoMapState ams = {};
    if (int result = agent.getAutoMapState(&ams)) {
        mustBeFull_ = true;
        return refused("GetAutoMapState", result);
    }
    test::Bitmap map;
    int result = agent.getAutoMap(&map, model_.blocks());
    if (result == 0 && mustBeFull_)
        throw std::runtime_error("a session that was to be forgotten has given a map");
    if (result == 0) {
        checkChanges(map);
        merge(pending_, map);
    } else if (result != ZEL_RESULT_INVALID) {
        mustBeFull_ = true;
        return refused("GetAutoMap", result);
    }
    incremental_ = result == 0 && point_ != 0;
    key_ = ams.amsKey;
    mapFrom_ = freeze_;
    mustBeFull_ = false;
    if (result != 0)
        pending_ =
            test::fullBitmap(model_.blocks()); // nothing is known of the time since the point
    return Step::done;
}

// The map has every block that changed since it was empty, and none that nobody wrote.
void BackupAgent::checkChanges(const test::Bitmap &map) const
{
    if (mapFrom_ == 0)
        return;
    test::Bitmap changed = model_.changed(mapFrom_, freeze_);
    test::Bitmap touched = model_.touched(mapFrom_, freeze_);
    for (std::uint32_t bn = 0; bn < model_.blocks(); bn++) {
        if (test::testBit(changed, bn) && !test::testBit(map, bn))
            throw std::runtime_error("block " + std::to_string(bn) +
                                     " changed and is not in the change map");
        if (test::testBit(map, bn) && !test::testBit(touched, bn))
            throw std::runtime_error("block " + std::to_string(bn) +
                                     " is in the change map and nobody wrote it");
    }
}

BackupAgent::Step BackupAgent::readRun(test::Agent &agent, std::uint32_t start, std::uint32_t count,
                                       std::uint32_t buffer)
{
    int result = agent.readBlocks(start, count, buffer);
    if (result == ZEL_RESULT_UNREADABLE)
        unreadable_ = true;
    else if (result != 0)
        return refused("ReadBlocks", result);
    std::size_t bytes = static_cast<std::size_t>(count) * model_.blockSize();
    const unsigned char *data = agent.buffer(buffer, bytes);
    if (data == nullptr)
        throw std::runtime_error("the transfer buffer cannot be read");
    std::memcpy(next_.data() + static_cast<std::size_t>(start) * model_.blockSize(), data, bytes);
    for (std::uint32_t bn = start; bn < start + count; bn++)
        wanted_[bn / 8] = static_cast<std::uint8_t>(wanted_[bn / 8] & ~(1u << bn % 8));
    return Step::done;
}

BackupAgent::Step BackupAgent::read(test::Agent &agent)
{
    wanted_ = pending_;
    bool everything = test::countBits(wanted_) == model_.blocks();
    int result = everything && chance(random_, 50) ? agent.loadBlockMap(model_.blocks())
                                                   : agent.loadBlockMap(wanted_, model_.blocks());
    if (result != 0)
        return refused("LoadBlockMap", result);
    State state = {};
    if (agent.getState(&state) != 0)
        return Step::givenUp;
    std::uint32_t most = static_cast<std::uint32_t>(state.mmapSize) / model_.blockSize();
    std::uint32_t buffers[2] = {};
    unsigned count = 1 + static_cast<unsigned>(below(random_, 2));
    for (unsigned i = 0; i < count; i++)
        if (int mapped = agent.mapBuffer(static_cast<std::size_t>(state.mmapSize), &buffers[i]))
            return refused("mmap", mapped);
    for (std::uint32_t bn = 0; bn < model_.blocks();) {
        std::uint32_t first = bn;
        if (chance(random_, 20)) {
            std::uint32_t dirty = 0xffffffff;
            if (agent.getDirtyBlock(&dirty) == 0 && dirty != 0xffffffff) {
                if (dirty >= model_.blocks())
                    throw std::runtime_error("GetDirtyBlock names a block beyond the device");
                if (test::testBit(wanted_, dirty))
                    first = dirty;
            }
        }
        if (!test::testBit(wanted_, first)) {
            bn++;
            continue;
        }
        if (chance(random_, 1)) {
            trace_("the agent dies");
            return Step::givenUp;
        }
        std::uint32_t limit = 1 + static_cast<std::uint32_t>(below(random_, most));
        std::uint32_t run = 1;
        while (run < limit && first + run < model_.blocks() && test::testBit(wanted_, first + run))
            run++;
        if (readRun(agent, first, run, buffers[below(random_, count)]) == Step::givenUp)
            return Step::givenUp;
        if (chance(random_, 30))
            host::yield();
    }
    if (agent.getState(&state) != 0 || state.state != BACKUP_MAP_LOADED) {
        trace_("the backup is spoilt: state " + std::to_string(state.state));
        return Step::givenUp;
    }
    return Step::done;
}

void BackupAgent::backUp(const std::function<unsigned()> &disturbances)
{
    unsigned disturbed = disturbances();
    unreadable_ = false;
    test::Agent agent;
    if (!agent.opened()) {
        trace_("the device cannot be opened: " + std::to_string(agent.fd()));
        return;
    }
    next_ = point_ != 0 ? image_
                        : Image(static_cast<std::size_t>(model_.blocks()) * model_.blockSize());
    bool whole = takeSnapshot(agent) == Step::done && fetchChanges(agent) == Step::done &&
                 read(agent) == Step::done;
    agent.close();
    if (!whole || disturbances() != disturbed) {
        result_.spoilt++;
        return;
    }
    zerosAllowed_ = unreadable_ || (incremental_ && zerosAllowed_);
    if (std::string wrong = model_.compare(next_, freeze_, zerosAllowed_); !wrong.empty())
        throw std::runtime_error(wrong);
    trace_(std::string(incremental_ ? "incremental" : "full") + " point of freeze " +
           std::to_string(freeze_));
    result_.points++;
    result_.incrementals += incremental_;
    image_ = std::move(next_);
    point_ = freeze_;
    pending_ = test::emptyBitmap(model_.blocks());
}

} // namespace simulation
