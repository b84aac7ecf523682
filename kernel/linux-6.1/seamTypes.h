/*
 * Types that the seam's declarations name and this kernel does not have, or has with another
 * meaning. For glue: before <kernel/block.h>.
 */
#ifndef SEAM_TYPES_H
#define SEAM_TYPES_H

#include <linux/bio.h>
#include <linux/buffer_head.h>

/* A partition's or a whole disk's place: here the block device itself has it. */
struct hd_struct;

typedef int make_request_fn(struct request_queue *queue, struct bio *bio);

/* The end of a bio: the kernel's own has no error beside the bio. */
typedef void seam_end_io(struct bio *bio, int error);
#define bio_end_io_t seam_end_io

#endif
