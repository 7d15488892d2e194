// live_status.h - the state of a live card as one JSON document, for the tools that ask for it.
//
// Elsewhere: what its fields mean (docs/interface.md).
#pragma once

#include <string>

#include "live_maps.h"
#include "live_plan.h"
#include "live_ports.h"
#include "live_sync.h"
#include "netlink_kernel.h"

std::string live_status(const live_maps &maps, const live_ports &ports, const live_plan &plan, const live_sync &sync,
                        const netlink_kernel &kernel);
