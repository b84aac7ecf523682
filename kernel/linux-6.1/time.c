/* Wall-clock time and random bytes. */
#define KERNEL_GLUE
#include <linux/ktime.h>
#include <linux/random.h>

/* As the seam has it: 32-bit seconds. */
struct timespec {
    s32 tv_sec;
    s32 tv_nsec;
};

#include <kernel/time.h>

void zk_current_kernel_time(struct timespec *now)
{
    struct timespec64 time;

    ktime_get_coarse_real_ts64(&time);
    now->tv_sec = (s32)time.tv_sec;
    now->tv_nsec = time.tv_nsec;
}

void zk_get_random_bytes(void *buffer, int count)
{
    get_random_bytes(buffer, count);
}
