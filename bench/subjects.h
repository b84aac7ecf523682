/* The subjects that are measured, one file each. */
#pragma once

#include "benchMachine.h"
#include "medians.h"

namespace bench
{

// Names are <subject>/<what>; real time is for one bio, block or map operation.

// writeBioBench.cpp: write bios of one block, by how their queue is hooked (unhooked, tracked,
// kept, saved). submit/<how>: until the block layer has taken the bio, the disk standing still;
// complete/<how>: until it has been written.
void registerWriteBio(BenchMachine &machine);

// blockMapBench.cpp: map/<operation>.
void registerBlockMap();

// backupReadBench.cpp: read/<how>: backup by ReadBlocks, blocks straight by bios of one block,
// large straight by bios of 128 KiB. Real time is for one block.
void registerBackupRead(BenchMachine &machine);

// mapMemoryBench.cpp: compares what maps take with one bit a block and one pointer a page, byte by
// byte; prints a line for each. False if one differs. From a task, module loaded, before anything
// else of the module's memory changes.
bool checkMapMemory();

} // namespace bench
