/* The module's own bios. */
#ifndef BIO_SETS_H
#define BIO_SETS_H

#include <linux/types.h>

/* What they are allocated from: 0, or -ENOMEM. Process context, sleeps. */
int createBioSets(void);

/* No bio may be left. Process context, sleeps. */
void destroyBioSets(void);

struct bio;

/* Notes that the bio, if it is the module's own, has been given to its disk, and tells whether that
 * is noted of it. Any context. */
void markPassed(struct bio *bio);
bool wasPassed(const struct bio *bio);

#endif
