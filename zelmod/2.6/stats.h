/* The statistics of one backup. */
#ifndef ZELMOD_STATS_H
#define ZELMOD_STATS_H

#include <kernel/types.h>

#include "zelmod.h"

typedef struct _Stats {
    u32 driverVerMajor; /* these three are left zero */
    u32 driverVerMinor;
    u32 driverVerMinor2;
    u32 major;
    u32 minor;
    u32 state;
    u32 partitionStart; /* sector, low 32 bits */
    s32 blockSize;      /* bytes */
    s32 blocksPerPage;
    u32 partitionSizeKB; /* low 32 bits */
    u32 numBlocks;       /* low 32 bits */
    s32 maxVMPages;
    s32 vmPages;
    u32 maxCacheBlocks;
    s32 curAllocAMPages;
    s32 totalAllocPages;
    s32 curAllocPages;
    s32 totalAllocBRs;
    s32 curAllocBRs;
    s32 totalAllocCPs;
    s32 curAllocCPs;
    s32 peakAllocCPs;
    s32 totalCBs;
    s32 curCBs;
    s32 totalReadBlocks;
    s32 totalReadCBs;
    s32 totalCleanedCBs;
    s32 ioctlCount;
    struct kernel_timespec eTimeToFreeze;
    struct kernel_timespec eTimeFrozen;
} Stats;

ZEL_RECORD(Stats, 128);
ZEL_FIELD(Stats, major, 12);
ZEL_FIELD(Stats, partitionStart, 24);
ZEL_FIELD(Stats, blockSize, 28);
ZEL_FIELD(Stats, blocksPerPage, 32);
ZEL_FIELD(Stats, partitionSizeKB, 36);
ZEL_FIELD(Stats, numBlocks, 40);
ZEL_FIELD(Stats, maxVMPages, 44);
ZEL_FIELD(Stats, vmPages, 48);
ZEL_FIELD(Stats, maxCacheBlocks, 52);
ZEL_FIELD(Stats, curAllocAMPages, 56);
ZEL_FIELD(Stats, totalAllocPages, 60);
ZEL_FIELD(Stats, curAllocPages, 64);
ZEL_FIELD(Stats, totalAllocBRs, 68);
ZEL_FIELD(Stats, curAllocBRs, 72);
ZEL_FIELD(Stats, totalAllocCPs, 76);
ZEL_FIELD(Stats, curAllocCPs, 80);
ZEL_FIELD(Stats, peakAllocCPs, 84);
ZEL_FIELD(Stats, totalCBs, 88);
ZEL_FIELD(Stats, curCBs, 92);
ZEL_FIELD(Stats, totalReadBlocks, 96);
ZEL_FIELD(Stats, totalReadCBs, 100);
ZEL_FIELD(Stats, totalCleanedCBs, 104);
ZEL_FIELD(Stats, ioctlCount, 108);
ZEL_FIELD(Stats, eTimeToFreeze, 112);
ZEL_FIELD(Stats, eTimeFrozen, 120);

#endif
