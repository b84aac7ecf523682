/* A chain of backups of one device, each checked against what the device was when it was frozen. */
#pragma once

#include <functional>

#include "scenario.h"

namespace scenario
{

// The state that the control device tells of the agent's backup.
unsigned stateOf(test::Agent &agent);
// The same of the tracking of its device.
unsigned trackingOf(test::Agent &agent);
// The blocks at these places of a device.
test::Bitmap bitmapOf(const Environment &env, unsigned device,
                      std::initializer_list<std::uint32_t> places);
// Every wanted block of the image must be as at the freeze, or zero if that is allowed.
void expectFrozen(const Image &image, const Environment &env, unsigned device,
                  const test::Bitmap &wanted, bool mayBeZero = false);
void expectNoLostWrites(Environment &env, unsigned device);

class Chain
{
public:
    Chain(Environment &env, unsigned device) : env_(env), device_(device) {}

    struct Point {
        bool incremental;
        test::Bitmap changed; // since the point before; all blocks of a full one
    };
    // Takes and checks a point, incremental if the module knows the changes since the last one.
    // `meanwhile` runs when the snapshot is protected and nothing was read yet.
    Point take(const std::function<void(test::Agent &)> &meanwhile = {});
    Point takeFull(const std::function<void(test::Agent &)> &meanwhile = {});
    Point takeIncremental(const std::function<void(test::Agent &)> &meanwhile = {});

    // The last point's map must have the blocks at the places that were `written` since the point
    // before, those that the file system wrote for itself, and no others.
    void expectChanged(const Point &point, const std::vector<std::uint32_t> &written) const;

    const AMSessionKey &key() const { return key_; }
    const Image &image() const { return image_; }

private:
    // Opens a backup and its snapshot; false if the session is not that of this chain.
    bool begin(test::Agent &agent, bool afresh);

    Environment &env_;
    unsigned device_;
    AMSessionKey key_ = {};
    Image image_;
};

} // namespace scenario
