/*
 * The seam between the module and the kernel it runs in.
 *
 * Every declaration under <kernel/...> is the interface of Linux 2.6.30 that the module
 * relies on: the kernel's own names and meanings, as a C ABI. (submit_together names what
 * that kernel does by itself, and newer ones when they are told.) A provider (a real
 * kernel's glue, or the host kernel) implements all of it and decides nothing.
 *
 * The headers have two readings:
 *
 * - The module, the host kernel and every test read them as they stand. Each call is
 *   known to the linker as zk_<name>, so that it never collides with a C library's or
 *   another library's symbol of the same name.
 *
 * - C glue that also includes a real kernel's headers defines KERNEL_GLUE first. Types
 *   and constants then come from that kernel and each declaration becomes the prototype
 *   of zk_<name>, which the compiler checks against the glue's definition.
 *
 * Contexts named in the comments: "process" may sleep; "atomic" holds a spin lock or has
 * interrupts off and may not sleep; "interrupt" is a completion; "any" is all of them.
 */
#ifndef KERNEL_SEAM_H
#define KERNEL_SEAM_H

#if defined(KERNEL_GLUE)
#define SEAM(result, name, arguments) result zk_##name arguments
#define SEAM_NORETURN(result, name, arguments) result zk_##name arguments __attribute__((noreturn))
#define SEAM_PRINTF(result, name, arguments)                                                       \
    result zk_##name arguments __attribute__((format(printf, 1, 2)))
#elif defined(__cplusplus)
#define SEAM(result, name, arguments) extern "C" result name arguments __asm__("zk_" #name)
#define SEAM_NORETURN(result, name, arguments)                                                     \
    extern "C" [[noreturn]] result name arguments __asm__("zk_" #name)
#define SEAM_PRINTF(result, name, arguments)                                                       \
    extern "C" result name arguments __asm__("zk_" #name) __attribute__((format(printf, 1, 2)))
#else
#define SEAM(result, name, arguments) result name arguments __asm__("zk_" #name)
#define SEAM_NORETURN(result, name, arguments)                                                     \
    result name arguments __asm__("zk_" #name) __attribute__((noreturn))
#define SEAM_PRINTF(result, name, arguments)                                                       \
    result name arguments __asm__("zk_" #name) __attribute__((format(printf, 1, 2)))
#endif

#endif
