/* One bio of a page on its way, for the checks that submit some. */
#ifndef CONTRACT_TRANSFER_H
#define CONTRACT_TRANSFER_H

#include <kernel/block.h>

#include "contract.h"

struct Transfer {
    struct completion done;
    struct page *page;
    struct bio *bio;
    // What it was like when it ended.
    int error;
    unsigned int left;
    int uptodate;

    // Makes a bio of a fresh page. Static storage: where it does not hold, the bio may still come.
    const char *begin(struct block_device *bdev, sector_t sector, unsigned long rw);
    // Waits until it has ended and must have succeeded.
    const char *succeeded();
    // The same, and must have failed as where there is no such sector.
    const char *failed();
    void finish();

    unsigned char *bytes();
    bool sameBytes(Transfer *other);
};

#endif
