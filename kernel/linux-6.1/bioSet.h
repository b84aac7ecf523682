/* The module's own bios. */
#ifndef BIO_SET_H
#define BIO_SET_H

/* What they are allocated from: 0, or -ENOMEM. Process context, sleeps. */
int createBioSet(void);

/* No bio may be left. Process context, sleeps. */
void destroyBioSet(void);

#endif
