// norvik_mtrie_dump.h - what a processor finds for one destination, as text.
#pragma once

#include <cstdint>

#include "tnrpc.h"

// Remote procedure. copy: 0 the wired copy, 1 IXP1's, any other IXP2's; tree: 0 to 255. Fills `reply` with lines of 128
// bytes, NUL-terminated each. Always 0; without memory the reply is empty.
std::uint32_t mtrie_hw_dump_api(std::uint16_t copy, std::uint32_t tree, std::uint32_t address, tnrpc_block *reply);
