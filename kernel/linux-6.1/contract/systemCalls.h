/* System calls for the process that is in one already. */
#ifndef SYSTEM_CALLS_H
#define SYSTEM_CALLS_H

enum system_call {
    SYSTEM_OPEN,
    SYSTEM_CLOSE,
    SYSTEM_IOCTL,
    SYSTEM_READ,
    SYSTEM_MMAP, /* by mapCall */
    SYSTEM_MUNMAP,
    SYSTEM_SYSLOG,
    SYSTEM_CALLS
};

/* 0, or -EOPNOTSUPP where the kernel lets them not be found. Process context, sleeps. */
int findSystemCalls(void);

/* What the process would be answered, with all done that a process finds done when its call has
 * returned. */
long systemCall(enum system_call call, unsigned long first, unsigned long second,
                unsigned long third);
unsigned long mapCall(unsigned long bytes, int protection, int flags, int fd,
                      unsigned long pageOffset);

#endif
