/* What the seam needs to have in place before the module's first call and after its last. */
#ifndef PROVIDER_H
#define PROVIDER_H

/* 0, or says in the log what is missing and gives a negated errno; nothing is left in place then.
 * Process context, sleeps. */
int startProvider(void);

/* Takes back what startProvider has put in place and what the seam has collected since. Returns
 * when nothing of the module's code runs or will run for a queue or an end of I/O. No queue may
 * have one of the module's functions any more, none of its I/O may be under way. Process context,
 * sleeps. */
void stopProvider(void);

#endif
