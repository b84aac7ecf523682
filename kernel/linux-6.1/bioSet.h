/* The module's own bios. */
#ifndef BIO_SET_H
#define BIO_SET_H

#include <linux/types.h>

/* What they are allocated from: 0, or -ENOMEM. Process context, sleeps. */
int createBioSet(void);

/* No bio may be left. Process context, sleeps. */
void destroyBioSet(void);

struct bio;

/* Notes that the bio, if it is the module's own, has been given to its disk, and tells whether that
 * is noted of it. Any context. */
void markPassed(struct bio *bio);
bool wasPassed(const struct bio *bio);

#endif
