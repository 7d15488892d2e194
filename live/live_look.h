// live_look.h - what a tool asks a live card: a packet traced, and the boundaries of a context compared, as JSON.
//
// Elsewhere: how it is found out (live_trace.h), the fields for a caller (docs/interface.md).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "live_trace.h"

// A packet to `address`, from `source` (0: another host of the port's subnet), in by the port `ifid` (0: one of the
// ports that are up, by which it does not leave again). What cannot be asked is an object with an "error".
std::string live_look_trace(const live_view &view, std::uint32_t address, std::uint32_t source, std::uint32_t ifid);

constexpr std::uint32_t LIVE_LOOK_END = 0xFFFFFFFF;
constexpr std::size_t LIVE_LOOK_ADDRESSES = 256; // of a part

// A part of the boundaries of `ctx`: from the `*at`-th on, which then is that of the next part, or LIVE_LOOK_END.
//   run: kept from part to part; part 0 begins anew.   given: as in live_verify.
std::string live_look_verify(const live_view &view, live_verify &run, std::uint32_t ctx,
                             const std::vector<kernel_prefix> &given, std::uint32_t *at);
