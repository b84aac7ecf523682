/*
 * The first process. It sets up what the others need and then only buries them: a process's end is
 * told to the driver when the kernel has closed all that it held.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "guest.h"

namespace vm
{

void fail(const char *what)
{
    dprintf(STDERR_FILENO, "init: %s: %s\n", what, strerror(errno));
    reboot(RB_AUTOBOOT);
    for (;;)
        pause();
}

namespace
{

// What of the kernel is not built in, each with its parameters behind a space; there is no list
// where all is.
void loadModules()
{
    FILE *list = fopen("/modules/list", "r");
    if (list == nullptr)
        return;
    char line[128];
    while (fgets(line, sizeof(line), list) != nullptr) {
        char *parameters = line;
        const char *path = strsep(&parameters, " ");
        parameters[strcspn(parameters, "\n")] = 0;
        int file = open(path, O_RDONLY);
        if (file < 0 || syscall(SYS_finit_module, file, parameters, 0) != 0)
            fail(path);
        close(file);
    }
    fclose(list);
}

} // namespace

} // namespace vm

int main(int arguments, char **argument)
{
    using namespace vm;
    if (getpid() != 1)
        return runSample(arguments, argument);
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0)
        fail("mounting /proc");
    if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        fail("mounting /sys");
    loadModules();
    Shared shared = openShared();

    int child = fork();
    if (child < 0)
        fail("starting the dispatcher");
    if (child == 0)
        dispatch(shared);
    for (;;) {
        int status = 0;
        int pid = wait(&status);
        if (pid == child)
            fail("the dispatcher has ended");
        for (uint32_t slot = 0; pid > 0 && slot < slots; slot++)
            if (shared.table->slot[slot].pid == pid) {
                shared.table->slot[slot].status = status;
                ring(ended + slot);
            }
    }
}
