/* A chain of backups of one device, by the programs that users have. */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "environment.h"
#include "guestProgram.h"
#include "repository.h"

namespace vm
{

// In the guest.
constexpr const char *zelsendProgram = "/zelsend";
constexpr const char *stateFolder = "/state";

// zelsend runs in the guest, zel takes its stream here, and each point is checked against what the
// device was when it was frozen. Nobody else may freeze the device.
class SendChain
{
public:
    SendChain(Environment &env, Repository &repository, unsigned device);

    // Starts zelsend for the next backup.
    std::unique_ptr<GuestProgram> start();
    // Takes its stream, of which `begun` is here already, and checks what it says and which blocks
    // it has sent: all, or those that were written since the point before, no more and no less.
    // Gives why the backup was full, or nothing.
    std::string finish(GuestProgram &program, std::string_view begun = {});
    // Takes a full backup while reads of these places fail. Its point lacks them and maybe some
    // blocks of zeros, which is told; the next one has them.
    void takeFullWithout(std::uint32_t first, std::uint32_t count);
    // For a backup that has made no point: what it would have sent is left to the next one.
    void noteFreeze();

    void takeFull();
    void takeIncremental();

    // zel finds all points sound, and what it restores of each is what the device was, and a file
    // system without fault.
    void verifyAll();

private:
    struct Point {
        std::string name;
        scenario::Image contents; // as they must be restored
        bool unread;              // there are blocks that it lacks
    };
    std::string take(GuestProgram &program, std::string_view begun, bool unread);
    void checkBlocks(const std::string &name, bool full) const;

    Environment &env_;
    Repository &repository_;
    const unsigned device_;
    unsigned freezes_ = 0;
    test::Bitmap written_; // since the newest point's freeze
    std::vector<Point> points_;
};

} // namespace vm
