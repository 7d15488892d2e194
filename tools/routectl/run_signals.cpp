// run_signals.cpp - signals as a descriptor that is polled with the others.
//
// Always: while the record is there, the signals are blocked and none is lost.
#include "run_signals.h"

#include <initializer_list>

#include <sys/signalfd.h>
#include <unistd.h>

run_signals::run_signals()
{
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH, SIGPIPE})
        sigaddset(&taken, signo);
    (void)sigprocmask(SIG_BLOCK, &taken, &former); // cannot fail
    fd = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0)
        (void)sigprocmask(SIG_SETMASK, &former, nullptr);
}

run_signals::~run_signals()
{
    if (fd < 0)
        return;
    while (run_signals_take(*this) != 0)
        ; // what came since they were last read is dropped
    (void)close(fd);
    (void)sigprocmask(SIG_SETMASK, &former, nullptr);
}

int run_signals_take(const run_signals &signals)
{
    signalfd_siginfo info;
    if (signals.fd < 0 || read(signals.fd, &info, sizeof info) != static_cast<ssize_t>(sizeof info))
        return 0;
    return static_cast<int>(info.ssi_signo);
}

void run_signals_end_by(int signo)
{
    if (signo == 0 || signo == SIGINT || signo == SIGPIPE)
        return;
    (void)std::signal(signo, SIG_DFL);
    (void)raise(signo);
}
