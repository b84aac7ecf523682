/* Mounted file systems. */
#ifndef FS_H
#define FS_H

/* Finds what the kernel does not offer to modules: 0, or says in the log what is missing, and
 * -EOPNOTSUPP. Process context, sleeps. */
int findFileSystemFunctions(void);

#endif
