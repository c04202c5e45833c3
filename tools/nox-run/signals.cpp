// Signals by signalfd.

#include "signals.h"

#include <cerrno>
#include <system_error>

#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

// A blocked signal reaches the descriptor even when its disposition is to ignore it.
bool is_ignored(int signal)
{
    struct sigaction present;
    return sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
}

sigset_t ending_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        if (!is_ignored(signal))
            sigaddset(&set, signal);
    return set;
}

int open_signals(const sigset_t &set)
{
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    const int descriptor = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), "signalfd");
    return descriptor;
}

} // namespace

Signals::Signals() : set_(ending_signals()), descriptor_(open_signals(set_)) {}

Signals::~Signals()
{
    close(descriptor_);
}

bool Signals::take()
{
    signalfd_siginfo information;
    return read(descriptor_, &information, sizeof information) == sizeof information;
}

void Signals::let_kill()
{
    pthread_sigmask(SIG_UNBLOCK, &set_, nullptr);
}
