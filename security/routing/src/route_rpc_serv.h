// route_rpc_serv.h - the remote procedures that the process serves.
#pragma once

#include <cstdint>

extern std::int32_t rpcfd; // the server's descriptor

std::uint32_t norvik_route_tnrpc_serv(); // opens the server, registers the procedures; 0
void norvik_route_tnrpc_unregister();    // sixteen names, in the order of registration
