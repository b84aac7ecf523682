/*
 * The control interface of zelmod: what a backup agent is built against.
 *
 * The agent opens the character device (major 120) and sends these commands by ioctl, each with
 * the user address of its record as argument. All integers have 32 bits, little-endian; addresses
 * are 32-bit user addresses; there is no padding. Plain C and C++.
 *
 * A command answers 0, a positive result code (ZEL_RESULT_...), or -EFAULT where stated.
 */
#ifndef ZELMOD_H
#define ZELMOD_H

#include <stdint.h>

/* Address of a record or buffer in the agent's memory. */
typedef uint32_t UserAddress;

enum {
    ZEL_MAJOR = 120,
    ZEL_VERSION_MAJOR = 3,
    ZEL_VERSION_MINOR = 1,
    ZEL_VERSION_MINOR2 = 0,
    ZEL_VERSION_BUILD = 9504,
    ZEL_SESSION_KEY_BYTES = 56,
};

enum {
    ZEL_GET_BLOCK_SIZE = 0x40102a00,
    ZEL_START_BACKUP = 0x40102a01,
    ZEL_SNAP_SHOT = 0x40082a02,
    ZEL_GET_STATE = 0x40082a03,
    ZEL_GET_AUTO_MAP_STATE = 0x40082a04,
    ZEL_NO_LOAD_FROM_AUTO_MAP = 0x2a05,
    ZEL_NO_START_AUTO_MAP = 0x2a06,
    ZEL_LOAD_BLOCK_MAP = 0x40082a07,
    ZEL_GET_AUTO_MAP = 0x40082a08,
    ZEL_GET_DIRTY_BLOCK = 0x40042a09,
    ZEL_READ_BLOCKS = 0x400c2a0a,
    ZEL_GET_VERSION_MAJOR = 0x40042a0c,
    ZEL_GET_VERSION_MINOR = 0x40042a0d,
    ZEL_SYNC = 0x40042a0e,
    ZEL_SHUTDOWN = 0x40042a0f,
    ZEL_RESERVED = 0x40042a10,
};

enum {
    ZEL_RESULT_OK = 0,
    ZEL_RESULT_NOT_INITIALISED = 1,
    ZEL_RESULT_INVALID = 2, /* wrong state, missing object or invalid argument */
    ZEL_RESULT_CHANGED = 3, /* state changed under the operation; also the reserved command */
    ZEL_RESULT_UNKNOWN_COMMAND = 4,
    ZEL_RESULT_NO_MEMORY = 5,
    ZEL_RESULT_COPY_IN_FAILED = 6,
    ZEL_RESULT_COPY_OUT_FAILED = 7,
    ZEL_RESULT_NOT_MOUNTED = 8,
    ZEL_RESULT_BUSY = 9,        /* another backup is open */
    ZEL_RESULT_HAS_BACKUP = 11, /* this record already holds a backup */
    ZEL_RESULT_UNREADABLE = 12, /* some blocks could not be read; they are zeroed */
};

/* States of a backup, as State.state tells them. An ordered range: above 6 nothing is saved any
 * more, and 7 to 13 are final. */
enum {
    BACKUP_IDLE = 0,
    BACKUP_STARTING = 1,
    BACKUP_STARTED = 2,
    BACKUP_SNAPPED = 4,
    BACKUP_LOADING_MAP = 5,
    BACKUP_MAP_LOADED = 6,
    BACKUP_CLOSING = 7,
    BACKUP_ERR_READ = 8,
    BACKUP_ERR_MAP = 9,
    BACKUP_ERR_CACHE = 10,
    BACKUP_REJECTED = 12,
    BACKUP_ERR_QUEUE = 13,
};

/* States of a device's change tracking, as AutoMapState.state tells them. */
enum {
    AMS_NOT_IN_SYNC = 0,
    AMS_IN_SYNC = 1,
};

/* Answer of ZEL_GET_BLOCK_SIZE. */
typedef struct _BlockSize {
    uint32_t major;
    uint32_t minor;
    int32_t blockSize;        /* bytes; -1 before it is known */
    uint32_t partitionSizeKB; /* low 32 bits */
} BlockSize;

typedef struct _GetBlockSize {
    uint32_t major;
    uint32_t minor;
    UserAddress bs; /* of a BlockSize */
    uint32_t len;   /* bytes that may be written there */
} GetBlockSize;

typedef struct _StartBackup {
    uint32_t major;
    uint32_t minor;
    uint32_t totalBlocks;    /* the device's size in file-system blocks */
    uint32_t maxCacheBlocks; /* most blocks kept in the copy-on-write cache */
} StartBackup;

/* Names a device's change-tracking session; opaque, renewed at every snapshot. */
typedef struct _AMSessionKey {
    uint8_t key[ZEL_SESSION_KEY_BYTES];
} AMSessionKey;

typedef struct _SnapShot {
    UserAddress amsKey; /* of the AMSessionKey kept from the previous backup */
    uint32_t len;       /* bytes readable there; what is missing counts as zero */
} SnapShot;

/* Answer of ZEL_GET_STATE. */
typedef struct _State {
    uint32_t major;
    uint32_t minor;
    uint32_t state;    /* BACKUP_... */
    int32_t blockSize; /* bytes */
    int32_t mmapSize;  /* bytes of the largest transfer buffer */
} State;

typedef struct _GetState {
    UserAddress s; /* of a State */
    uint32_t len;
} GetState;

/* Answer of ZEL_GET_AUTO_MAP_STATE; all zero if the device is not tracked. */
typedef struct _AutoMapState {
    uint32_t major;
    uint32_t minor;
    uint32_t state;   /* AMS_... */
    uint32_t mapLen;  /* blocks that the map covers */
    uint32_t mapSize; /* bytes of the map */
    AMSessionKey amsKey;
} AutoMapState;

typedef struct _GetAutoMapState {
    UserAddress ams; /* of an AutoMapState */
    uint32_t len;
} GetAutoMapState;

/* A bitmap in the agent's memory: one bit a block, least significant bit of the first byte first.
 */
typedef struct _UserBlockMap {
    UserAddress map;
    uint32_t mapLen; /* blocks */
} UserBlockMap;

typedef struct _LoadBlockMap {
    UserAddress bm; /* of a UserBlockMap; a map address of 0 in it means every block */
    uint32_t len;   /* not checked */
} LoadBlockMap;

typedef struct _GetAutoMap {
    UserAddress bm; /* of a UserBlockMap; its mapLen must be the session's */
    uint32_t len;   /* not checked */
} GetAutoMap;

typedef struct _DirtyBlock {
    UserAddress blockNum; /* of the 32-bit number to be written; 0xffffffff for none */
} DirtyBlock;

typedef struct _ReadBlocks {
    uint32_t startBlockNum;
    uint32_t numBlocks;
    UserAddress data; /* the start of a mapping of the transfer buffer */
} ReadBlocks;

#ifdef __cplusplus
#define ZEL_RECORD(record, size) static_assert(sizeof(record) == (size), #record)
#define ZEL_FIELD(record, field, offset)                                                           \
    static_assert(__builtin_offsetof(record, field) == (offset), #record "." #field)
#else
#define ZEL_RECORD(record, size) _Static_assert(sizeof(record) == (size), #record)
#define ZEL_FIELD(record, field, offset)                                                           \
    _Static_assert(__builtin_offsetof(record, field) == (offset), #record "." #field)
#endif

ZEL_RECORD(BlockSize, 16);
ZEL_FIELD(BlockSize, major, 0);
ZEL_FIELD(BlockSize, minor, 4);
ZEL_FIELD(BlockSize, blockSize, 8);
ZEL_FIELD(BlockSize, partitionSizeKB, 12);
ZEL_RECORD(GetBlockSize, 16);
ZEL_FIELD(GetBlockSize, bs, 8);
ZEL_FIELD(GetBlockSize, len, 12);
ZEL_RECORD(StartBackup, 16);
ZEL_FIELD(StartBackup, totalBlocks, 8);
ZEL_FIELD(StartBackup, maxCacheBlocks, 12);
ZEL_RECORD(AMSessionKey, 56);
ZEL_RECORD(SnapShot, 8);
ZEL_FIELD(SnapShot, len, 4);
ZEL_RECORD(State, 20);
ZEL_FIELD(State, state, 8);
ZEL_FIELD(State, blockSize, 12);
ZEL_FIELD(State, mmapSize, 16);
ZEL_RECORD(GetState, 8);
ZEL_FIELD(GetState, len, 4);
ZEL_RECORD(AutoMapState, 76);
ZEL_FIELD(AutoMapState, state, 8);
ZEL_FIELD(AutoMapState, mapLen, 12);
ZEL_FIELD(AutoMapState, mapSize, 16);
ZEL_FIELD(AutoMapState, amsKey, 20);
ZEL_RECORD(GetAutoMapState, 8);
ZEL_FIELD(GetAutoMapState, len, 4);
ZEL_RECORD(UserBlockMap, 8);
ZEL_FIELD(UserBlockMap, mapLen, 4);
ZEL_RECORD(LoadBlockMap, 8);
ZEL_FIELD(LoadBlockMap, len, 4);
ZEL_RECORD(GetAutoMap, 8);
ZEL_FIELD(GetAutoMap, len, 4);
ZEL_RECORD(DirtyBlock, 4);
ZEL_RECORD(ReadBlocks, 12);
ZEL_FIELD(ReadBlocks, numBlocks, 4);
ZEL_FIELD(ReadBlocks, data, 8);

#endif
