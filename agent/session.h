/* One open control device: the module's commands as calls. */
#pragma once

#include "blockBits.h"
#include "device.h"
#include "outcome.h"
#include "zelmod.h"

namespace zelsend
{

/* What becomes of a command: 0, the module's positive result or a negated errno. */
using Result = int;

/* One record of the module's, from open to close. Its buffer and file are given back at the end of
 * the scope at the latest. */
class Session
{
public:
    explicit Session(const Device &device) : device_(device) {}
    ~Session() { close(); }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    Outcome open(const char *control);
    void close();

    Result blockSize(uint32_t major, uint32_t minor, BlockSize *answer);
    Result start(uint32_t major, uint32_t minor, uint32_t totalBlocks, uint32_t maxCacheBlocks);
    Result noLoadFromAutoMap();
    /* Also 0 if the key is not the session's; then the backup's state stays BACKUP_STARTED. */
    Result snapShot(const AMSessionKey &key);
    Result state(::State *answer);
    Result autoMapState(AutoMapState *answer);
    /* Fetches the map of changed blocks, as many as `changes` has. ZEL_RESULT_INVALID: there is
     * none. */
    Result autoMap(BlockBits *changes);
    /* The blocks to be read; null: all of `totalBlocks`. */
    Result loadBlockMap(const BlockBits *wanted, uint32_t totalBlocks);
    /* Any block whose old contents the module holds; noBlock if there is none. */
    Result dirtyBlock(uint32_t *block);
    static constexpr uint32_t noBlock = 0xffffffff;

    /* Maps the transfer buffer. */
    Result mapBuffer(uint32_t bytes);
    /* Reads a run of blocks to the start of the buffer. */
    Result readBlocks(uint32_t first, uint32_t count);
    const uint8_t *buffer() const { return static_cast<const uint8_t *>(buffer_); }

private:
    struct Records;
    Records *records() const { return static_cast<Records *>(memory_.data()); }

    const Device &device_;
    int descriptor_ = -1;
    LowMemory memory_; // where the records lie that the module reads and writes
    void *buffer_ = nullptr;
    uint32_t bufferBytes_ = 0;
};

/* The failure of a step that the module answered with `result`; `what` is the step, as in "the
 * snapshot". */
Outcome refused(const char *what, Result result);

} // namespace zelsend
