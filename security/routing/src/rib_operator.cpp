// rib_operator.cpp - the routes that an operator gave a context, as the debug service lists them.
//
// Static routes and NAT prefixes, also those that wait and so stand in no other listing: a static route for its next
// hop, a NAT prefix for its interface.
// Elsewhere: the form of the answer (debug_service.h), the listings of what is installed (rib_show.cpp).
#include <cstdio>
#include <cstring>

#include "rib_show.h"
#include "rib_table.h"
#include "sdwrap.h"

namespace
{
constexpr std::size_t LAST_LINE = sizeof "more 4294967295\n", LONGEST_LINE = 64;
static_assert(LONGEST_LINE >= sizeof "255.255.255.255/32 255.255.255.255 65535 installed\n");

struct answer {
    char *text;
    std::size_t room; // without that of the last line
    std::size_t used = 0;
    std::uint32_t number = 0; // of the route that is next on the way
    std::uint32_t next;       // of the route that is next in the answer
};

const char *state_of(const route_entry *entry, std::uint16_t installed)
{
    return (entry->flags & installed) != 0 ? "installed" : "waiting";
}

// The line of a route that an operator gave; 0 bytes for any other.
std::size_t make_line(char (&line)[LONGEST_LINE], const route_entry *entry)
{
    char prefix[16], nexthop[16];
    (void)format_ip(entry->prefix, prefix, 0);
    int length = 0;
    if ((entry->flags & RIB_F_GATEWAY) != 0) {
        (void)format_ip(entry->nexthop, nexthop, 0);
        length = std::snprintf(line, sizeof line, "%s/%u %s %u %s\n", prefix, entry->len, nexthop, entry->route_id,
                               state_of(entry, RIB_F_IN_MTRIE));
    } else if ((entry->flags & RIB_F_NAT) != 0) {
        length = std::snprintf(line, sizeof line, "%s/%u nat %u %u %s\n", prefix, entry->len, entry->ifid,
                               entry->encap_id, state_of(entry, RIB_F_NAT_IN_MTRIE));
    }
    return static_cast<std::size_t>(length);
}

// Returns whether the answer is full.
bool add_route(answer &to, const route_entry *entry)
{
    char line[LONGEST_LINE];
    const std::size_t bytes = make_line(line, entry);
    if (bytes == 0 || to.number++ < to.next)
        return false;
    if (bytes > to.room - to.used)
        return true;
    std::memcpy(to.text + to.used, line, bytes);
    to.used += bytes;
    ++to.next;
    return false;
}
} // namespace

std::size_t sdwrap_routes_text(std::uint32_t context, std::uint32_t first, char *text, std::size_t room)
{
    answer to = {text, room - LAST_LINE, 0, 0, first};
    const bool is_full = context < ROUTE_CONTEXTS && rib_find_entry(context, [&to](const route_entry *head) {
                                                         bool full = add_route(to, head);
                                                         for (const route_entry *member = head->ecmp;
                                                              member != nullptr && !full; member = member->next)
                                                             full = add_route(to, member);
                                                         return full;
                                                     }) != nullptr;
    const int last = is_full ? std::snprintf(text + to.used, LAST_LINE, "more %u\n", to.next)
                             : std::snprintf(text + to.used, LAST_LINE, "end\n");
    return to.used + static_cast<std::size_t>(last);
}
