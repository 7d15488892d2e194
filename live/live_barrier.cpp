// live_barrier.cpp - the thread that waits.
#include "live_barrier.h"

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "live_maps.h"

struct live_barrier {
    int fd = -1;
    std::mutex mutex;
    std::condition_variable has_work;
    std::uint64_t asked = 0, passed = 0;
    bool is_over = false;
    std::thread thread;
};

namespace
{
constexpr std::chrono::seconds AGAIN(1); // after one that failed

void run(live_barrier &barrier)
{
    std::unique_lock lock(barrier.mutex);
    for (;;) {
        barrier.has_work.wait(lock, [&barrier] { return barrier.is_over || barrier.asked != barrier.passed; });
        if (barrier.is_over)
            return;
        const std::uint64_t ticket = barrier.asked;
        lock.unlock();
        std::string why;
        const int result = live_maps_barrier(why);
        lock.lock();
        if (result != 0) {
            std::fprintf(stderr, "cardlive: %s\n", why.c_str());
            (void)barrier.has_work.wait_for(lock, AGAIN, [&barrier] { return barrier.is_over; });
            continue;
        }
        barrier.passed = ticket;
        (void)eventfd_write(barrier.fd, 1); // cannot be full
    }
}
} // namespace

void live_barrier_close::operator()(live_barrier *barrier) const
{
    {
        const std::lock_guard lock(barrier->mutex);
        barrier->is_over = true;
    }
    barrier->has_work.notify_one();
    if (barrier->thread.joinable())
        barrier->thread.join();
    (void)close(barrier->fd);
    delete barrier;
}

live_barrier_ptr live_barrier_open()
{
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0)
        return nullptr;
    live_barrier_ptr barrier(new live_barrier);
    barrier->fd = fd;
    sigset_t all, before; // signals are the loop's
    sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    barrier->thread = std::thread(run, std::ref(*barrier));
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return barrier;
}

int live_barrier_fd(const live_barrier &barrier) { return barrier.fd; }

void live_barrier_ask(live_barrier &barrier, std::uint64_t ticket)
{
    {
        const std::lock_guard lock(barrier.mutex);
        barrier.asked = ticket;
    }
    barrier.has_work.notify_one();
}

std::uint64_t live_barrier_passed(live_barrier &barrier)
{
    eventfd_t count = 0;
    (void)eventfd_read(barrier.fd, &count); // nothing there is no error
    const std::lock_guard lock(barrier.mutex);
    return barrier.passed;
}
