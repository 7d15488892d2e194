// if_mgr.h - queries to the interface manager's database. ifid: interface id.
//
// Each answers -1 for an interface that does not exist or lacks what is asked for.
#pragma once

#include <cstdint>

#include "interface_db.h"

int if_get_address(std::uint32_t ifid, std::uint32_t *rmode, std::uint32_t *scratch); // routing mode; 0 or -1
int if_get_ip(std::uint32_t ifid, std::uint32_t *address, std::uint32_t *mask);       // host order; 0 or -1
std::int32_t if_get_context_id(std::uint32_t ifid);
int if_get_status(std::uint32_t ifid);       // 1 up, 0 not up, -1 no such interface
std::int32_t if_get_bvi(std::uint32_t ifid); // interface id of its bridge interface
std::int32_t if_get_vlanid(std::uint32_t ifid);
