/* Functions of the kernel that it does not offer to modules. */
#ifndef SYMBOLS_H
#define SYMBOLS_H

/* The address of a function of the kernel; NULL if it has none of that name that can be probed.
 * Process context, sleeps. */
void *kernelFunction(const char *name);

#endif
