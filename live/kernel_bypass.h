// kernel_bypass.h - what the kernel would do to a packet that is forwarded by it, and the packet program does not.
//
// Elsewhere: that packets pass these by, for an operator (cardlive(8)).
#pragma once

#include <map>
#include <string>
#include <vector>

// A sentence for each: chains of netfilter that forwarded packets meet, queues and filters of traffic control on a
// port, reverse path filters of a port. ports: ifindex -> name. What cannot be read is a sentence, too.
std::vector<std::string> kernel_bypass_find(const std::map<int, std::string> &ports);
