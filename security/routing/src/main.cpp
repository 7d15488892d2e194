// main.cpp - entry point of the route manager; its arguments are not read.
#include "route_mgr.h"

int main() { return route_mgr_main(); }
