/*
 * How a process runs the contract's checks that are a module of the kernel it runs on: calls of the
 * module's control device. Plain C and C++; 32-bit processes only.
 */
#ifndef CONTRACT_CONTROL_H
#define CONTRACT_CONTROL_H

/* Of those for local use, as the module's own 120: the device, and one for the checks to take. */
enum { CONTRACT_MAJOR = 121, CONTRACT_FREE_MAJOR = 122 };

/* Both calls take the check's number in `number`, from 0 on, and return a negated errno if they
 * fail: -ENOENT past the last check. */
enum {
    CONTRACT_DESCRIBE = 1, /* stores the name; returns 0 */
    CONTRACT_RUN = 2,      /* returns 0, or stores what does not hold and returns 1 */
};

/* The numbers of devices as the kernel has them, the rest as in struct ContractEnvironment. */
struct ContractCall {
    unsigned int number;
    unsigned int mounted;
    unsigned int unmounted;
    unsigned int closed;
    unsigned int user;
    unsigned int userBytes;
    unsigned int userReadOnly;
    unsigned int path; /* the address of the path of a node of CONTRACT_FREE_MAJOR */
    char text[256];    /* answered; cut short if it is longer, and ends with a zero */
};

#endif
