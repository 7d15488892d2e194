// netlink_decode.cpp - takes links, settings, addresses, neighbours, routes and rules from netlink messages.
//
// Lengths are checked against the bytes that are there. A list of attributes ends at the first that does not fit.
// Always: what is kept of a route or a rule is either all that it does, or it is marked as not plain.
#include "netlink_decode.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include <linux/fib_rules.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include "live_card.h"

namespace
{
using bytes = std::span<const std::uint8_t>;

constexpr unsigned LOWER_UP = 1u << 16; // IFF_LOWER_UP, which the header hides from the C library's users
constexpr std::uint16_t LAST_METRIC = RTAX_FASTOPEN_NO_COOKIE;

std::size_t padded(std::size_t length) { return (length + 3) & ~std::size_t{3}; }

// Calls `visit` with type and payload of each attribute.
template <typename Visit> void visit_attributes(bytes from, Visit visit)
{
    rtattr head{};
    while (from.size() >= sizeof head) {
        std::memcpy(&head, from.data(), sizeof head);
        if (head.rta_len < sizeof head || head.rta_len > from.size())
            return;
        visit(static_cast<std::uint16_t>(head.rta_type & NLA_TYPE_MASK),
              from.subspan(sizeof head, head.rta_len - sizeof head));
        from = from.subspan(std::min(padded(head.rta_len), from.size()));
    }
}

// A number of the host's order; nothing when the attribute has another size.
template <typename Number> std::optional<Number> number_of(bytes from)
{
    Number number{};
    if (from.size() != sizeof number)
        return std::nullopt;
    std::memcpy(&number, from.data(), sizeof number);
    return number;
}

std::uint32_t u32_of(bytes from) { return number_of<std::uint32_t>(from).value_or(0); }
int ifindex_of(bytes from) { return number_of<std::int32_t>(from).value_or(0); }

std::optional<std::uint32_t> address_of(bytes from)
{
    const auto number = number_of<std::uint32_t>(from);
    return number ? std::optional<std::uint32_t>(ntohl(*number)) : std::nullopt;
}

std::uint64_t mac_of(bytes from) { return from.size() == 6 ? live_mac(from.data()) : 0; }

std::string text_of(bytes from)
{
    const auto end = std::find(from.begin(), from.end(), std::uint8_t{0});
    return {from.begin(), end};
}

// The fixed part of a message, and its attributes.
template <typename Head> struct message_parts {
    Head head{};
    bytes attributes;
};
template <typename Head> std::optional<message_parts<Head>> parts_of(bytes payload)
{
    message_parts<Head> parts;
    if (payload.size() < sizeof parts.head)
        return std::nullopt;
    std::memcpy(&parts.head, payload.data(), sizeof parts.head);
    parts.attributes = payload.subspan(std::min(padded(sizeof parts.head), payload.size()));
    return parts;
}

// Tells of a link of which more than carrier, MAC and MTU may have changed.
void note_link(netlink_news &news, int ifindex) { kernel_changes_add_link(news.changes, ifindex, false); }

// ---- links ----

void read_link_info(bytes from, kernel_link &link)
{
    visit_attributes(from, [&link](std::uint16_t type, bytes value) {
        if (type == IFLA_INFO_KIND)
            link.kind = text_of(value);
        else if (type == IFLA_INFO_SLAVE_KIND)
            link.master_kind = text_of(value);
    });
}

void decode_link(bool is_new, bytes payload, kernel_state &state, netlink_news &news)
{
    const auto parts = parts_of<ifinfomsg>(payload);
    // A bridge tells of its ports under a family of its own.
    if (!parts || parts->head.ifi_family != AF_UNSPEC || parts->head.ifi_index <= 0)
        return;
    const int ifindex = parts->head.ifi_index;
    const auto known = state.links.find(ifindex);
    if (!is_new) {
        if (known == state.links.end())
            return;
        state.links.erase(known);
        note_link(news, ifindex);
        news.read_again = true;
        return;
    }
    kernel_link link;
    const unsigned flags = parts->head.ifi_flags;
    link.is_ethernet = parts->head.ifi_type == ARPHRD_ETHER && (flags & IFF_LOOPBACK) == 0;
    link.is_up = (flags & IFF_UP) != 0;
    link.has_carrier = (flags & (IFF_RUNNING | LOWER_UP)) != 0;
    link.is_running = (flags & IFF_RUNNING) != 0;
    link.has_arp = (flags & IFF_NOARP) == 0;
    visit_attributes(parts->attributes, [&link](std::uint16_t type, bytes value) {
        if (type == IFLA_IFNAME)
            link.name = text_of(value);
        else if (type == IFLA_ADDRESS)
            link.mac = mac_of(value);
        else if (type == IFLA_MTU)
            link.mtu = u32_of(value);
        else if (type == IFLA_MASTER)
            link.master = ifindex_of(value);
        else if (type == IFLA_LINK)
            link.lower = ifindex_of(value);
        else if (type == IFLA_LINKINFO)
            read_link_info(value, link);
    });
    // A wireless device tells of its own affairs in a message of this kind, with nothing else in it.
    if (link.name.empty())
        return;
    // Routes go and come to life without a message. Paths follow the carrier, which may have been told before they did:
    // then the message says nothing new.
    const bool is_first = known == state.links.end();
    if (is_first || known->second.is_up != link.is_up || known->second.is_running != link.is_running ||
        (link.is_up && !link.is_running))
        news.read_again = true;
    if (!is_first && known->second == link)
        return;
    kernel_changes_add_link(news.changes, ifindex, !is_first && kernel_link_is_alike(known->second, link));
    state.links.insert_or_assign(ifindex, link);
}

void decode_netconf(bool is_new, bytes payload, kernel_state &state, netlink_news &news)
{
    const auto parts = parts_of<netconfmsg>(payload);
    if (!parts || parts->head.ncm_family != AF_INET)
        return;
    std::optional<int> ifindex;
    std::optional<std::int32_t> forwarding, ignoring;
    visit_attributes(parts->attributes, [&](std::uint16_t type, bytes value) {
        if (type == NETCONFA_IFINDEX)
            ifindex = number_of<std::int32_t>(value);
        else if (type == NETCONFA_FORWARDING)
            forwarding = number_of<std::int32_t>(value);
        else if (type == NETCONFA_IGNORE_ROUTES_WITH_LINKDOWN)
            ignoring = number_of<std::int32_t>(value);
    });
    if (!ifindex || *ifindex == NETCONFA_IFINDEX_DEFAULT)
        return;
    if (!is_new) {
        if (state.netconfs.erase(*ifindex) != 0)
            note_link(news, *ifindex);
        return;
    }
    // A message names what has changed, and nothing else.
    const auto known = state.netconfs.find(*ifindex);
    const kernel_netconf before = known == state.netconfs.end() ? kernel_netconf{} : known->second;
    const kernel_netconf conf = {forwarding ? *forwarding != 0 : before.forwards,
                                 ignoring ? *ignoring != 0 : before.ignores_linkdown};
    if (known != state.netconfs.end() && conf == before)
        return;
    if (conf.ignores_linkdown != before.ignores_linkdown)
        news.read_again = true; // paths over links without carrier are told as dead, or not
    state.netconfs[*ifindex] = conf;
    note_link(news, *ifindex);
}

// ---- addresses ----

void decode_address(bool is_new, std::uint16_t message_flags, bytes payload, kernel_state &state, netlink_news &news)
{
    const auto parts = parts_of<ifaddrmsg>(payload);
    if (!parts || parts->head.ifa_family != AF_INET || parts->head.ifa_prefixlen > 32)
        return;
    const int ifindex = static_cast<int>(parts->head.ifa_index);
    kernel_address address;
    std::optional<std::uint32_t> local, peer;
    std::uint32_t flags = parts->head.ifa_flags;
    visit_attributes(parts->attributes, [&](std::uint16_t type, bytes value) {
        if (type == IFA_LOCAL)
            local = address_of(value);
        else if (type == IFA_ADDRESS)
            peer = address_of(value);
        else if (type == IFA_FLAGS)
            flags = number_of<std::uint32_t>(value).value_or(flags);
    });
    if (!local && !peer)
        return;
    address.address = local.value_or(peer.value_or(0));
    address.peer = peer.value_or(address.address);
    address.length = parts->head.ifa_prefixlen;
    address.is_secondary = (flags & IFA_F_SECONDARY) != 0;

    auto &addresses = state.addresses[ifindex];
    const auto known = std::find_if(addresses.begin(), addresses.end(), [&address](const kernel_address &a) {
        return a.address == address.address && a.length == address.length && a.peer == address.peer;
    });
    const bool is_known = known != addresses.end();
    if (is_new && is_known && *known == address)
        return; // a lifetime
    if (is_known)
        addresses.erase(known);
    if (is_known && !is_new)
        state.former_addresses.insert(address.address);
    if (is_new)
        addresses.push_back(address);
    if (addresses.empty())
        state.addresses.erase(ifindex);
    if (is_new || is_known)
        note_link(news, ifindex);
    // Where it stands among the others is not told; and routes go with an address without a message.
    if ((message_flags & NLM_F_MULTI) == 0)
        news.read_again = true;
}

// ---- neighbours ----

void decode_neighbour(bool is_new, bytes payload, kernel_state &state, netlink_news &news)
{
    const auto parts = parts_of<ndmsg>(payload);
    if (!parts || parts->head.ndm_family != AF_INET || (parts->head.ndm_flags & NTF_PROXY) != 0)
        return;
    std::optional<std::uint32_t> address;
    kernel_neighbour neighbour;
    visit_attributes(parts->attributes, [&](std::uint16_t type, bytes value) {
        if (type == NDA_DST)
            address = address_of(value);
        else if (type == NDA_LLADDR)
            neighbour.mac = mac_of(value);
        else if (type == NDA_FLAGS_EXT)
            neighbour.is_managed = (u32_of(value) & NTF_EXT_MANAGED) != 0;
    });
    if (!address)
        return;
    neighbour.state = parts->head.ndm_state;
    const std::pair<int, std::uint32_t> key = {parts->head.ndm_ifindex, *address};
    const auto known = state.neighbours.find(key);
    if (is_new ? known != state.neighbours.end() && known->second == neighbour : known == state.neighbours.end())
        return;
    if (is_new)
        state.neighbours.insert_or_assign(key, neighbour);
    else
        state.neighbours.erase(known);
    news.changes.neighbours.insert(key);
}

// ---- routes ----

// An attribute that a route and a path have alike. Returns false for one that is none of these.
bool read_hop_attribute(std::uint16_t type, bytes value, kernel_hop &hop)
{
    switch (type) {
    case RTA_GATEWAY: {
        const auto gateway = address_of(value);
        hop.gateway = gateway.value_or(0);
        hop.is_plain = hop.is_plain && gateway.has_value();
        return true;
    }
    case RTA_ENCAP_TYPE:
        hop.is_plain = hop.is_plain && number_of<std::uint16_t>(value) == std::uint16_t{0};
        return true;
    case RTA_VIA: // a gateway of another family
    case RTA_NEWDST:
    case RTA_TTL_PROPAGATE:
        hop.is_plain = false;
        return true;
    case RTA_ENCAP: // told by its type
    case RTA_FLOW:  // for accounting
    case RTA_PAD:
        return true;
    default:
        return false;
    }
}

void read_paths(bytes from, kernel_route &route)
{
    rtnexthop head{};
    while (from.size() >= sizeof head) {
        std::memcpy(&head, from.data(), sizeof head);
        if (head.rtnh_len < sizeof head || head.rtnh_len > from.size())
            break;
        kernel_hop hop;
        hop.ifindex = head.rtnh_ifindex;
        hop.weight = head.rtnh_hops + 1u;
        hop.is_dead = (head.rtnh_flags & RTNH_F_DEAD) != 0;
        visit_attributes(from.subspan(sizeof head, head.rtnh_len - sizeof head), [&](std::uint16_t type, bytes value) {
            if (!read_hop_attribute(type, value, hop))
                hop.is_plain = false;
        });
        route.hops.push_back(hop);
        from = from.subspan(std::min(padded(head.rtnh_len), from.size()));
    }
    route.is_plain = route.is_plain && from.empty();
}

// Only the MTU of a route is looked at where packets are forwarded; the others are for connections of this host.
bool has_effect(bytes metrics)
{
    bool effect = false;
    visit_attributes(metrics, [&effect](std::uint16_t type, bytes value) {
        if (type == RTAX_MTU)
            effect = effect || u32_of(value) != 0;
        else if (type == RTAX_LOCK)
            effect = effect || (u32_of(value) & 1u << RTAX_MTU) != 0;
        else
            effect = effect || type > LAST_METRIC;
    });
    return effect;
}

struct decoded_route {
    std::uint32_t table = 0;
    kernel_prefix prefix;
    kernel_route route;
};

std::optional<decoded_route> read_route(bytes payload)
{
    const auto parts = parts_of<rtmsg>(payload);
    if (!parts || parts->head.rtm_family != AF_INET || parts->head.rtm_dst_len > 32 ||
        (parts->head.rtm_flags & RTM_F_CLONED) != 0)
        return std::nullopt;
    decoded_route d;
    kernel_hop hop;
    std::uint32_t destination = 0;
    bool has_paths = false;
    d.table = parts->head.rtm_table;
    d.route.tos = parts->head.rtm_tos;
    d.route.type = parts->head.rtm_type;
    d.route.scope = parts->head.rtm_scope;
    d.route.protocol = parts->head.rtm_protocol;
    d.route.is_plain = parts->head.rtm_src_len == 0;
    hop.is_dead = (parts->head.rtm_flags & RTNH_F_DEAD) != 0;
    visit_attributes(parts->attributes, [&](std::uint16_t type, bytes value) {
        switch (type) {
        case RTA_DST:
            destination = address_of(value).value_or(0);
            break;
        case RTA_TABLE:
            d.table = u32_of(value);
            break;
        case RTA_PRIORITY:
            d.route.metric = u32_of(value);
            break;
        case RTA_OIF:
            hop.ifindex = ifindex_of(value);
            break;
        case RTA_NH_ID:
            d.route.nexthop_id = u32_of(value);
            break;
        case RTA_METRICS:
            d.route.is_plain = d.route.is_plain && !has_effect(value);
            break;
        case RTA_MULTIPATH:
            has_paths = true;
            read_paths(value, d.route);
            break;
        case RTA_PREFSRC: // for packets of this host
        case RTA_CACHEINFO:
            break;
        default:
            if (!read_hop_attribute(type, value, hop))
                d.route.is_plain = false;
        }
    });
    d.prefix = kernel_prefix_of(destination, parts->head.rtm_dst_len);
    if (!has_paths && (hop.ifindex != 0 || hop.gateway != 0 || !hop.is_plain))
        d.route.hops.push_back(hop);
    return d;
}

bool is_same_key(const kernel_route &a, const kernel_route &b) { return a.tos == b.tos && a.metric == b.metric; }

// Where the kernel puts a new route among those of its prefix: those with a TOS first, the larger first, then by
// metric; among routes of one key by how it was asked for.
void insert_route(std::vector<kernel_route> &routes, const kernel_route &route, std::uint16_t flags)
{
    const auto is_before = [](const kernel_route &a, const kernel_route &b) {
        return a.tos != b.tos ? a.tos > b.tos : a.metric < b.metric;
    };
    const bool is_last = (flags & (NLM_F_APPEND | NLM_F_MULTI)) != 0;
    const auto at = is_last ? std::upper_bound(routes.begin(), routes.end(), route, is_before)
                            : std::lower_bound(routes.begin(), routes.end(), route, is_before);
    routes.insert(at, route);
}

void decode_route(bool is_new, std::uint16_t flags, bytes payload, kernel_state &state, netlink_news &news)
{
    const std::optional<decoded_route> d = read_route(payload);
    if (!d)
        return;
    const auto table = state.tables.find(d->table);
    if (table == state.tables.end())
        return;
    const std::vector<kernel_route> *const known = kernel_table_find(table->second, d->prefix);
    std::vector<kernel_route> routes = known == nullptr ? std::vector<kernel_route>{} : *known;
    const auto is_of_key = [&d](const kernel_route &r) { return is_same_key(r, d->route); };
    const auto alikes = std::count_if(routes.begin(), routes.end(), is_of_key);
    const auto same = std::find(routes.begin(), routes.end(), d->route);
    if (!is_new) {
        const auto gone = same != routes.end() ? same : std::find_if(routes.begin(), routes.end(), is_of_key);
        if (same == routes.end() && alikes != 1)
            news.read_again = news.read_again || alikes > 1; // which one is not told
        else
            routes.erase(gone);
    } else if ((flags & NLM_F_MULTI) == 0 && (flags & NLM_F_REPLACE) != 0 && alikes > 0) {
        *std::find_if(routes.begin(), routes.end(), is_of_key) = d->route;
        news.read_again = news.read_again || alikes > 1;
    } else if (same == routes.end() || (flags & NLM_F_MULTI) != 0) {
        insert_route(routes, d->route, flags);
    }
    if (kernel_table_set(table->second, d->prefix, std::move(routes)))
        news.changes.routes.insert({d->table, d->prefix});
}

// ---- rules ----

std::optional<kernel_rule> read_rule(bytes payload)
{
    const auto parts = parts_of<fib_rule_hdr>(payload);
    if (!parts || parts->head.family != AF_INET)
        return std::nullopt;
    kernel_rule rule;
    bool is_inverted = (parts->head.flags & FIB_RULE_INVERT) != 0, is_for_output = false;
    rule.table = parts->head.table;
    rule.is_plain = parts->head.dst_len == 0 && parts->head.src_len == 0 && parts->head.tos == 0 && !is_inverted;
    visit_attributes(parts->attributes, [&](std::uint16_t type, bytes value) {
        switch (type) {
        case FRA_TABLE:
            rule.table = u32_of(value);
            break;
        case FRA_PRIORITY:
            rule.preference = u32_of(value);
            break;
        case FRA_PROTOCOL:
            rule.protocol = number_of<std::uint8_t>(value).value_or(0);
            break;
        case FRA_IIFNAME:
            rule.iif = text_of(value);
            break;
        case FRA_OIFNAME:
        case FRA_L3MDEV:
            is_for_output = true;
            break;
        case FRA_SUPPRESS_PREFIXLEN:
        case FRA_SUPPRESS_IFGROUP:
            rule.is_plain = rule.is_plain && u32_of(value) == 0xFFFFFFFF;
            break;
        case FRA_FLOW: // for accounting
        case FRA_PAD:
            break;
        default:
            rule.is_plain = false;
        }
    });
    if (parts->head.action != FR_ACT_TO_TBL)
        rule.table = 0;
    rule.is_for_output = is_for_output && !is_inverted;
    if (is_inverted)
        rule.iif.clear(); // all links but this one
    return rule;
}

void decode_rule(bool is_new, bytes payload, kernel_state &state, netlink_news &news)
{
    const std::optional<kernel_rule> rule = read_rule(payload);
    if (!rule)
        return;
    auto &rules = state.rules;
    const auto known = std::find(rules.begin(), rules.end(), *rule);
    if (is_new == (known != rules.end()))
        return;
    if (is_new)
        rules.insert(
            std::upper_bound(rules.begin(), rules.end(), *rule,
                             [](const kernel_rule &a, const kernel_rule &b) { return a.preference < b.preference; }),
            *rule);
    else
        rules.erase(known);
    news.changes.rules = true;
}
} // namespace

void netlink_decode(std::span<const std::uint8_t> message, kernel_state &state, netlink_news &news)
{
    nlmsghdr head{};
    if (message.size() < sizeof head)
        return;
    std::memcpy(&head, message.data(), sizeof head);
    if (head.nlmsg_len < sizeof head || head.nlmsg_len > message.size())
        return;
    const bytes payload = message.subspan(sizeof head, head.nlmsg_len - sizeof head);
    const std::uint16_t flags = head.nlmsg_flags;
    switch (head.nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        return decode_link(head.nlmsg_type == RTM_NEWLINK, payload, state, news);
    case RTM_NEWNETCONF:
    case RTM_DELNETCONF:
        return decode_netconf(head.nlmsg_type == RTM_NEWNETCONF, payload, state, news);
    case RTM_NEWADDR:
    case RTM_DELADDR:
        return decode_address(head.nlmsg_type == RTM_NEWADDR, flags, payload, state, news);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
        return decode_neighbour(head.nlmsg_type == RTM_NEWNEIGH, payload, state, news);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        return decode_route(head.nlmsg_type == RTM_NEWROUTE, flags, payload, state, news);
    case RTM_NEWRULE:
    case RTM_DELRULE:
        return decode_rule(head.nlmsg_type == RTM_NEWRULE, payload, state, news);
    case RTM_DELNEXTHOP: // its routes go with it, without a message
        news.read_again = true;
        return;
    default:
        return;
    }
}
