/* What the module of the contract's checks does with tasks and processes, as far as kernels differ.
 */
#ifndef PROCESS_H
#define PROCESS_H

enum system_call {
    SYSTEM_OPEN,
    SYSTEM_CLOSE,
    SYSTEM_IOCTL,
    SYSTEM_READ,
    SYSTEM_MUNMAP,
    SYSTEM_SYSLOG,
    SYSTEM_CALLS
};

/* Before the first system call: 0, or says in the log what is missing, and a negated errno. Process
 * context, sleeps. */
int findSystemCalls(void);

/* A system call of the process that is in one already, and what it is answered. All is done that a
 * process finds done when its call has returned. */
long systemCall(enum system_call call, unsigned long first, unsigned long second,
                unsigned long third);

/* The call mmap2, which has more arguments. */
unsigned long mapCall(unsigned long bytes, int protection, int flags, int fd,
                      unsigned long pageOffset);

/* Whether a thread of the checks has not gone to sleep yet. */
int threadRuns(void);

/* From the kernel to the thread of this number. */
void sendSignal(int pid, int signal);

#endif
