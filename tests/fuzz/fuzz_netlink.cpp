// fuzz_netlink.cpp - netlink messages, as they may come from a kernel of any age, into the state and the plan of it.
//
// An input is one message behind the other, each with the length that its header says. Whatever is in them, the state
// stays one that a kernel could have, what changed is told, and the plan holds no prefix twice.
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include <linux/netlink.h>

#include "fuzz_input.h"
#include "live_plan.h"
#include "netlink_decode.h"

namespace
{
void check_table(const kernel_table &table)
{
    kernel_table again;
    for (const auto &[prefix, routes] : table.routes) {
        if (prefix.length > 32 || kernel_prefix_of(prefix.address, prefix.length) != prefix)
            fuzz_fail("a prefix with host bits");
        if (routes.empty())
            fuzz_fail("a prefix without a route");
        (void)kernel_table_set(again, prefix, routes);
    }
    if (again.lengths != table.lengths || again.gateways != table.gateways)
        fuzz_fail("lengths or gateways that are not those of the routes");
}

void check_plan(const live_plan &plan)
{
    for (const auto &[ctx, context] : plan.contexts) {
        for (const auto &[prefix, route] : context.card.routes) {
            if (context.own.count(prefix) != 0 || route.paths.size() > LIVE_MAX_PATHS)
                fuzz_fail("a prefix of two kinds, or too many paths");
            for (const live_path &path : route.paths)
                if (context.card.hosts.count(path.gateway) == 0 || !plan.ports.at(path.ifindex).is_up)
                    fuzz_fail("a path without its gateway or its port");
        }
        for (const auto &[address, host] : context.card.hosts)
            if (context.card.routes.count(kernel_prefix_of(address, 32)) != 0)
                fuzz_fail("a host and a route of one address");
    }
    if (!live_room_fits(plan.used, LIVE_ROOM_ALL))
        fuzz_fail("more than there is room for");
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    kernel_state state;
    for (const std::uint32_t table : {KERNEL_TABLE_DEFAULT, KERNEL_TABLE_MAIN, KERNEL_TABLE_LOCAL})
        state.tables[table];
    const live_conf conf;
    live_plan plan = live_plan_make(state, conf, {}, LIVE_ROOM_ALL);
    std::span<const std::uint8_t> rest(data, size);
    while (!rest.empty()) {
        nlmsghdr head{};
        std::memcpy(&head, rest.data(), std::min(sizeof head, rest.size()));
        const std::size_t length = std::min<std::size_t>(std::max(head.nlmsg_len, 1u), rest.size());
        const std::vector<std::uint8_t> exact(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
        rest = rest.subspan(length);
        const kernel_state before = state;
        netlink_news news;
        netlink_decode(exact, state, news);
        if (!(before == state) && news.changes.empty())
            fuzz_fail("a change that is not told");
        (void)live_plan_update(plan, state, conf, {}, LIVE_ROOM_ALL, news.changes);
    }
    for (const auto &[id, table] : state.tables)
        check_table(table);
    if (state.tables.size() != 3)
        fuzz_fail("a table that is not followed");
    check_plan(plan);
    if (!(plan == live_plan_make(state, conf, {}, LIVE_ROOM_ALL)))
        fuzz_fail("a plan by steps that is another than the plan at once");
    return 0;
}
