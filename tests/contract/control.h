/*
 * How a process runs the contract's checks that are a module of the kernel it runs on: calls of the
 * module's control device. Plain C and C++; 32-bit processes only.
 */
#ifndef CONTRACT_CONTROL_H
#define CONTRACT_CONTROL_H

/* Of those for local use, as the module's own 120: the device, and one for the checks to take. */
enum { CONTRACT_MAJOR = 121, CONTRACT_FREE_MAJOR = 122 };

/* Both calls take the check's number in `number`, from 0 on, and return a negated errno if they
 * fail: -ENOENT past the last check. Numbers that no kernel keeps to itself, and results that it
 * gives to none of its own: what does not come from the module is not taken for a check's. */
enum {
    CONTRACT_DESCRIBE = 0x7a01, /* stores the name; returns CONTRACT_DESCRIBED */
    CONTRACT_RUN = 0x7a02,      /* returns CONTRACT_HOLDS, or stores what does not hold and returns
                                   CONTRACT_FAILS */
};
enum { CONTRACT_DESCRIBED = 0x7a10, CONTRACT_HOLDS = 0x7a11, CONTRACT_FAILS = 0x7a12 };

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
