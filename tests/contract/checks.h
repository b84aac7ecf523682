/*
 * What the module relies on in the kernel it runs in: one check for each such thing, against the
 * kernel interface alone. The same sources run on the host kernel and, as a test module, in real
 * kernels; so they are freestanding, and what a check needs of its surroundings comes in through
 * one record.
 */
#ifndef CONTRACT_CHECKS_H
#define CONTRACT_CHECKS_H

#include <kernel/types.h>

struct ContractEnvironment {
    kernel_dev_t mounted;   // a partition, not at sector 0 of its disk, with a mounted file system
    kernel_dev_t unmounted; // another one, open, with nothing mounted; its sectors are overwritten
    kernel_dev_t closed;    // another one that nobody has open
    unsigned int freeMajor; // a character device number that is not in use
    // Memory of the calling process: `userBytes` bytes (64 at least) that it may read and write,
    // and a hole behind them; and one page that it may only read.
    unsigned long user;
    unsigned long userBytes;
    unsigned long userReadOnly;
    // Returns when every other task of the checks has gone to sleep or ended.
    void (*settle)(void);
    void (*sendSignal)(int pid, int signal);

    // System calls of the calling process, with what the kernel answers it: a negated errno where
    // it refuses. Not for a check that holds a lock.
    int (*openDevice)(void); // a node of freeMajor; gives a descriptor
    int (*closeFile)(int fd);
    int (*callDevice)(int fd, unsigned int command, unsigned long argument); // ioctl
    int (*readFile)(int fd, unsigned long to, unsigned int bytes);
    // 0 and the address of a readable mapping, or the refusal.
    int (*map)(int fd, unsigned int bytes, int writable, int shared, unsigned long pageOffset,
               unsigned long *address);
    int (*unmap)(unsigned long address, unsigned int bytes);
    // Copies at most so many bytes of the kernel log's end to `to`; gives their number.
    int (*readLog)(unsigned long to, unsigned int bytes);

    // How many references keep the module loaded that the checks are in.
    int (*references)(void);
};

struct ContractCheck {
    const char *name;
    // Runs in a task of a process. Returns nullptr, or what does not hold.
    const char *(*run)(const struct ContractEnvironment *environment);
};

// The checks of one subject; `count` of them.
struct ContractSubject {
    const struct ContractCheck *checks;
    unsigned int count;
};

extern const struct ContractSubject *const contractSubjects[];
extern const unsigned int contractSubjectCount;

#endif
