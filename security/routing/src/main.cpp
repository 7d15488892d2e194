// main.cpp - entry point of the route manager; its arguments are not read.
#include <cstdio>

#include <stdio_ext.h>

#include "route_mgr.h"

int main()
{
    // There is one thread, and a signal's clean-up prints even when it has interrupted a print: were the stream locked,
    // the clean-up would wait for ever for the lock that the interrupted print holds.
    (void)__fsetlocking(stdout, FSETLOCKING_BYCALLER);
    (void)__fsetlocking(stderr, FSETLOCKING_BYCALLER);
    return route_mgr_main();
}
