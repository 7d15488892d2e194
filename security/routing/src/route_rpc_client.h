// route_rpc_client.h - the calls that the process makes to the slow path.
#pragma once

#include <cstdint>

std::uint32_t norvik_route_tnrpc_client(); // 0; a failure is only logged

std::uint32_t route_find_interface_route(std::uint16_t a, std::uint32_t b, std::uint32_t c);
std::uint32_t route_slowpath_realign_arp();
std::uint32_t slowpath_valid_mac(std::uint16_t encap);
void slowpath_encaps_to_mac(const std::uint8_t *record, std::uint8_t mac[6]); // bytes 10 to 15 of the record
