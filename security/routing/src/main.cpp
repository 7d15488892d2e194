// main.cpp - entry point of the route manager; its arguments are not read.
#include <cstdio>

#include <stdio_ext.h>

#include "route_mgr.h"

int main()
{
    // One thread, and a signal's clean-up that prints while it interrupts who prints: a lock on the stream, half taken
    // by then, would keep it waiting for ever.
    (void)__fsetlocking(stdout, FSETLOCKING_BYCALLER);
    (void)__fsetlocking(stderr, FSETLOCKING_BYCALLER);
    return route_mgr_main();
}
