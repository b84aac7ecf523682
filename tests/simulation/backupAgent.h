/* The simulation's agent: full and incremental backups of one device, step by random step. */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>

#include "deviceModel.h"
#include "simulation.h"

namespace simulation
{

using Random = std::mt19937_64;
using Trace = std::function<void(const std::string &)>;

inline std::uint64_t below(Random &random, std::uint64_t limit)
{
    return random() % limit;
}

inline bool chance(Random &random, unsigned percent)
{
    return below(random, 100) < percent;
}

/*
 * Keeps what an agent keeps between backups: the session key, the newest whole image, and the
 * changes that were fetched since it was made.
 */
class BackupAgent
{
public:
    BackupAgent(DeviceModel &model, Random &random, Result &result, Trace trace);

    // One backup, or an attempt that is given up on the way. `disturbed` is told whether another
    // file of the control device was closed meanwhile, which ends the protection of a backup.
    // Throws std::runtime_error if the module did what it must not.
    void backUp(const std::function<unsigned()> &disturbances);
    // The module was unloaded: its sessions are gone.
    void moduleReloaded();

private:
    enum class Step { done, givenUp };
    Step takeSnapshot(test::Agent &agent);
    Step fetchChanges(test::Agent &agent);
    Step read(test::Agent &agent);
    Step readRun(test::Agent &agent, std::uint32_t start, std::uint32_t count,
                 std::uint32_t buffer);
    void checkChanges(const test::Bitmap &map) const;
    Step refused(const std::string &what, int result);

    DeviceModel &model_;
    Random &random_;
    Result &result_;
    Trace trace_;

    AMSessionKey key_ = {};
    Image image_;          // the newest whole point
    unsigned point_ = 0;   // the freeze that it was made at; 0: none
    test::Bitmap pending_; // changes fetched since then
    unsigned mapFrom_ = 0; // the freeze at which the session's map was last empty; 0: unknown
    bool mustBeFull_ = true;
    bool zerosAllowed_ = false; // image_ has blocks that could not be read

    // Of the attempt under way.
    unsigned freeze_ = 0;
    bool incremental_ = false;
    bool unreadable_ = false;
    test::Bitmap wanted_;
    Image next_;
};

} // namespace simulation
