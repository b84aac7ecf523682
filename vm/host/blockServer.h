/* Offers a disk to the emulator, by the network block device protocol over a local socket. */
#pragma once

#include <string>
#include <thread>

#include "blockStorage.h"
#include "descriptor.h"

namespace vm
{

// Serves one peer after the other from a thread of its own for as long as this lives.
class BlockServer
{
public:
    BlockServer(BlockStorage &disk, const std::string &path);
    ~BlockServer();
    BlockServer(const BlockServer &) = delete;

private:
    void serve();

    BlockStorage &disk_;
    Descriptor listener_;
    std::thread thread_;
};

} // namespace vm
