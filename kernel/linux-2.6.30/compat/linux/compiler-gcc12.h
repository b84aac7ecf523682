/*
 * A 2.6.30 kernel knows compilers up to gcc 4 and includes a header named after the compiler's
 * version; this is the one for gcc 12.
 */
#ifndef LINUX_COMPILER_GCC12_H
#define LINUX_COMPILER_GCC12_H

#define __used __attribute__((__used__))
#define __must_check __attribute__((warn_unused_result))
#define __cold __attribute__((__cold__))
#define __always_inline inline __attribute__((always_inline))
#define __compiler_offsetof(type, member) __builtin_offsetof(type, member)
#define uninitialized_var(name) name = name

#endif
