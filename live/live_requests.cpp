// live_requests.cpp - counts requests, and keeps the kernel's managed neighbours as they say.
#include "live_requests.h"

#include <set>

void live_requests_change(live_requests &requests, std::uint32_t ctx, std::uint32_t address, bool is_wanted)
{
    const std::pair<std::uint32_t, std::uint32_t> key{ctx, address};
    if (is_wanted) {
        ++requests.counts[key];
        return;
    }
    const auto count = requests.counts.find(key);
    if (count != requests.counts.end() && --count->second == 0)
        requests.counts.erase(count);
}

void live_requests_forget(live_requests &requests) { requests.counts.clear(); }

void live_requests_run(live_requests &requests)
{
    std::set<std::pair<int, std::uint32_t>> wanted; // two contexts may look for one
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> now;
    for (const auto &count : requests.counts)
        if (const int ifindex = requests.link_of(count.first.first, count.first.second); ifindex != 0) {
            now[count.first] = ifindex;
            wanted.emplace(ifindex, count.first.second);
        }
    std::set<std::pair<int, std::uint32_t>> before;
    for (const auto &[key, ifindex] : requests.managed)
        before.emplace(ifindex, key.second);
    for (const auto &[ifindex, address] : wanted)
        if (before.count({ifindex, address}) == 0)
            requests.manage(ifindex, address, true);
    for (const auto &[ifindex, address] : before)
        if (wanted.count({ifindex, address}) == 0)
            requests.manage(ifindex, address, false);
    requests.managed = std::move(now);
}
