/*
 * Types that the seam's declarations name, for glue that all kernels share: before
 * <kernel/block.h>. This kernel has all of them.
 */
#ifndef SEAM_TYPES_H
#define SEAM_TYPES_H

#include <linux/bio.h>
#include <linux/blkdev.h>
#include <linux/buffer_head.h>

#endif
