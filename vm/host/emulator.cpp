#include "emulator.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <stdexcept>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>

#include "descriptor.h"

namespace vm
{

Emulator::Emulator(const std::vector<std::string> &arguments, const std::string &log)
{
    std::vector<char *> pointers;
    for (const std::string &argument : arguments)
        pointers.push_back(const_cast<char *>(argument.c_str()));
    pointers.push_back(nullptr);
    Descriptor output(::open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666));
    if (output.get() < 0)
        throwErrno(log);
    pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ < 0)
        throwErrno("fork");
    if (pid_ == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1);
        ::dup2(output.get(), STDOUT_FILENO);
        ::dup2(output.get(), STDERR_FILENO);
        ::execvp(pointers[0], pointers.data());
        ::perror(pointers[0]);
        ::_exit(127);
    }
}

Emulator::~Emulator()
{
    if (!ended_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

double Emulator::processorTime() const
{
    clockid_t clock = 0;
    timespec time = {};
    if (::clock_getcpuclockid(pid_, &clock) != 0 || ::clock_gettime(clock, &time) != 0)
        throw std::runtime_error("the emulator's processor time is not known");
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

bool Emulator::waitEnd(unsigned milliseconds)
{
    constexpr unsigned step = 5;
    for (unsigned waited = 0; !ended_; waited += step) {
        ended_ = ::waitpid(pid_, nullptr, WNOHANG) == pid_;
        if (ended_ || waited >= milliseconds)
            break;
        timespec pause{0, step * 1000000};
        ::nanosleep(&pause, nullptr);
    }
    return ended_;
}

} // namespace vm
