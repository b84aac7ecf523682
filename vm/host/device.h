/* What is known from outside of one device's blocks: what was written, and what the disk has. */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <kernel/types.h>

#include "diskImage.h"
#include "scenario/scenario.h"

namespace vm
{

/*
 * The device's file belongs to the scenarios: its blocks from the first run of many on are the
 * places that they write to. All other blocks are the file system's own.
 *
 * An ext3 or ext4 file system marks its superblock when it is frozen and again when it is thawed,
 * each as the last and the first thing that it writes. So the disk itself tells when the point in
 * time of a snapshot was.
 */
class Device
{
public:
    // Puts first generations into all places of the image.
    Device(const Volume &volume, std::vector<unsigned char> &image);

    kernel_dev_t number = 0; // in the guest
    const Volume &volume() const { return volume_; }
    std::uint32_t places() const;
    std::uint32_t blockAt(std::uint32_t place) const;
    // Of a place in the file.
    std::uint64_t fileOffset(std::uint32_t place) const;

    // New contents for these places, of one new generation. No other write to any of them begins
    // before this one is over.
    std::vector<unsigned char> beginWrite(std::uint32_t first, std::uint32_t count);
    void endWrite(std::uint32_t first, std::uint32_t count, bool done);

    // A write to the disk has taken effect.
    void onDiskWrite(std::uint64_t offset, std::size_t bytes,
                     const std::vector<unsigned char> &disk);

    const scenario::Image &frozen() const { return frozen_; }
    // How many freezes there were.
    unsigned freezes() const;
    // All blocks that were written from one freeze to the next, the last two.
    test::Bitmap written() const;
    // The file system's own blocks that were written from one freeze to the next, the last two.
    test::Bitmap ownWrites() const;
    // Empty, or what is lost in these contents of the device or was at a freeze, or was written
    // while the file system was frozen.
    std::string lostWrites(const scenario::Image &now);

private:
    struct Place {
        std::uint64_t begun = 0; // generation
        std::uint64_t done = 0;
        bool busy = false;
    };
    std::string compare(const scenario::Image &image) const;
    void freeze(const std::vector<unsigned char> &disk);

    const Volume volume_;
    mutable std::mutex mutex_; // guards what follows
    std::condition_variable changed_;
    std::vector<Place> places_;
    std::uint64_t lastGeneration_ = 0;
    bool inUse_ = false;    // as the superblock says
    bool isFrozen_ = false; // it has been in use, and is not now
    scenario::Image frozen_;
    std::string lostAtFreeze_;
    unsigned freezes_ = 0;
    test::Bitmap written_;   // since the last freeze
    test::Bitmap allWrites_; // at the last freeze
    test::Bitmap ownWrites_; // at the last freeze
};

} // namespace vm
