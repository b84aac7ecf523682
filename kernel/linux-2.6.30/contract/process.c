/* Tasks and processes for the contract's checks. System calls go through the kernel's entry for
 * them, as the kernel itself makes its own execve. */
#include "process.h"

#include <linux/errno.h>
#include <linux/file.h>
#include <linux/mm.h>
#include <linux/pid.h>
#include <linux/rcupdate.h>
#include <linux/sched.h>
#include <linux/string.h>
#include <linux/unistd.h>

static const unsigned int numbers[SYSTEM_CALLS] = {
    [SYSTEM_OPEN] = __NR_open, [SYSTEM_CLOSE] = __NR_close,   [SYSTEM_IOCTL] = __NR_ioctl,
    [SYSTEM_READ] = __NR_read, [SYSTEM_MUNMAP] = __NR_munmap, [SYSTEM_SYSLOG] = __NR_syslog,
};

int findSystemCalls(void)
{
    return 0;
}

long systemCall(enum system_call call, unsigned long first, unsigned long second,
                unsigned long third)
{
    long result;

    asm volatile("int $0x80"
                 : "=a"(result)
                 : "0"(numbers[call]), "b"(first), "c"(second), "d"(third)
                 : "memory");
    return result;
}

/* What the call does, which has more arguments than systemCall takes. */
unsigned long mapCall(unsigned long bytes, int protection, int flags, int fd,
                      unsigned long pageOffset)
{
    struct file *file = fget(fd);
    unsigned long mapped;

    if (file == NULL)
        return -EBADF;
    down_write(&current->mm->mmap_sem);
    mapped = do_mmap_pgoff(file, 0, bytes, protection, flags, pageOffset);
    up_write(&current->mm->mmap_sem);
    fput(file);
    return mapped;
}

/* A thread is the caller's child until it takes the name of all of them. */
int threadRuns(void)
{
    struct task_struct *task;
    int found = 0;

    rcu_read_lock();
    for_each_process(task) {
        if (task != current && task->state == TASK_RUNNING &&
            (task->real_parent == current || strcmp(task->comm, "contract") == 0))
            found = 1;
    }
    rcu_read_unlock();
    return found;
}

void sendSignal(int pid, int signal)
{
    rcu_read_lock();
    kill_pid(find_vpid(pid), signal, 1);
    rcu_read_unlock();
}
