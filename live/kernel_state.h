// kernel_state.h - what the kernel of this host has for IPv4: links, addresses, neighbours, routes and rules.
//
// Plain records that whoever reads the kernel fills in, and pure rules on them: the route that answers for a prefix,
// and the lookup as the kernel makes it. Addresses are in host order. Always: a table's `lengths` and `gateways` are
// those of its `routes`, which only the functions here change. Elsewhere: the messages that it is read from
// (netlink_decode.h), what the card makes of it (live_plan.h).
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

constexpr std::uint32_t KERNEL_TABLE_DEFAULT = 253, KERNEL_TABLE_MAIN = 254, KERNEL_TABLE_LOCAL = 255;

struct kernel_prefix {
    std::uint32_t address = 0; // bits outside the length are 0
    std::uint32_t length = 0;  // 0 to 32
    auto operator<=>(const kernel_prefix &) const = default;
};
kernel_prefix kernel_prefix_of(std::uint32_t address, std::uint32_t length); // clears the bits outside the length
bool kernel_prefix_covers(const kernel_prefix &prefix, std::uint32_t address);
std::uint32_t kernel_prefix_last(const kernel_prefix &prefix); // its last address

struct kernel_link {
    std::string name;
    std::string kind;        // "veth", "bridge", "bond", "vrf" ...; empty: none is given, as for hardware
    std::string master_kind; // kind of the link that it is enslaved to; empty: to none
    std::uint64_t mac = 0;   // as live_mac gives it
    std::uint32_t mtu = 0;   // bytes of an IP packet
    int master = 0;          // ifindex of the link that it is enslaved to; 0: to none
    int lower = 0;           // ifindex of the link below it, as of a macvlan; 0: none
    bool is_ethernet = false;
    bool is_up = false;       // administratively
    bool has_carrier = false; // as the kernel judges it for its routes
    bool is_running = false;  // as it is told a little later, when the routes follow the carrier
    bool has_arp = true;      // neighbours are looked for
    bool operator==(const kernel_link &) const = default;
};

// Whether nothing but carrier, MAC address or MTU differs.
bool kernel_link_is_alike(const kernel_link &a, const kernel_link &b);

// A link's settings that its forwarding depends on. Under KERNEL_ALL_LINKS stand those that count for every link.
constexpr int KERNEL_ALL_LINKS = -1;
struct kernel_netconf {
    bool forwards = false;
    bool ignores_linkdown = false; // routes over it are passed over while it has no carrier
    bool operator==(const kernel_netconf &) const = default;
};

struct kernel_state;
bool kernel_ignores_linkdown(const kernel_state &state, int ifindex);

struct kernel_address {
    std::uint32_t address = 0;
    std::uint32_t length = 0;
    std::uint32_t peer = 0; // the address itself, unless the link is point to point
    bool is_secondary = false;
    bool operator==(const kernel_address &) const = default;
};

struct kernel_neighbour {
    std::uint64_t mac = 0;   // as live_mac gives it; 0 while it is not known
    std::uint16_t state = 0; // NUD_ bits
    bool is_managed = false; // kept fresh by the kernel
    bool operator==(const kernel_neighbour &) const = default;
};
bool kernel_neighbour_is_known(const kernel_neighbour &neighbour); // packets are sent to its MAC

struct kernel_hop {
    std::uint32_t gateway = 0; // 0: none, the destination itself is on the link
    int ifindex = 0;           // 0: none
    std::uint32_t weight = 1;
    bool is_dead = false; // its link is down
    bool is_plain = true; // false: another family's gateway, an encapsulation, or something unknown
    auto operator<=>(const kernel_hop &) const = default;
};

// One of the routes of a prefix.
struct kernel_route {
    std::uint32_t metric = 0;
    std::uint8_t tos = 0;
    std::uint8_t type = 0;     // RTN_UNICAST and the like
    std::uint8_t scope = 0;    // with type and protocol, what tells two routes of one metric apart
    std::uint8_t protocol = 0; // who installed it
    std::uint32_t nexthop_id = 0;
    bool is_plain = true; // false: an MTU or another metric with effect, or something unknown
    std::vector<kernel_hop> hops;
    bool operator==(const kernel_route &) const = default;
};

struct kernel_table {
    std::map<kernel_prefix, std::vector<kernel_route>> routes; // of a prefix in the order that the kernel tries them
    std::array<std::uint32_t, 33> lengths{};                   // how many prefixes have this length
    std::map<std::uint32_t, std::map<kernel_prefix, int>> gateways; // gateway: prefixes with a hop to it, how many hops
    bool operator==(const kernel_table &other) const { return routes == other.routes; }
};

struct kernel_rule {
    std::uint32_t preference = 0;
    std::uint32_t table = 0; // 0: the rule does something else than to look up a table
    std::uint8_t protocol = 0;
    std::string iif;            // only packets from this link; empty: from all
    bool is_for_output = false; // never matches a packet that is forwarded here: by its outgoing link, or for VRFs
    bool is_plain = true;       // nothing else that it asks for or limits
    auto operator<=>(const kernel_rule &) const = default;
};

struct kernel_state {
    std::map<int, kernel_link> links; // by ifindex, as are the next two
    std::map<int, kernel_netconf> netconfs;
    std::map<int, std::vector<kernel_address>> addresses;                 // of a link, in the kernel's order
    std::map<std::pair<int, std::uint32_t>, kernel_neighbour> neighbours; // by ifindex and address
    std::map<std::uint32_t, kernel_table> tables; // those that are followed, which includes main, local and default
    // Addresses that this host has had, and that are gateways: the kernel takes a route that came while its gateway was
    // an address of the host for one without a gateway, for as long as the route is there, and does not say so.
    std::set<std::uint32_t> former_addresses;
    std::vector<kernel_rule> rules; // in the order that the kernel tries them
    bool operator==(const kernel_state &) const = default;
};

// What differs between two states.
struct kernel_changes {
    std::set<int> links;    // link, netconf or an address of it
    std::set<int> carriers; // of `links`, those of which nothing but carrier, MAC or MTU has changed
    std::set<std::pair<int, std::uint32_t>> neighbours;
    std::set<std::pair<std::uint32_t, kernel_prefix>> routes; // table and prefix
    bool rules = false;
    bool empty() const { return links.empty() && neighbours.empty() && routes.empty() && !rules; }
};
void kernel_changes_add_link(kernel_changes &to, int ifindex, bool is_carrier_only);
void kernel_changes_add(kernel_changes &to, const kernel_changes &from);
kernel_changes kernel_state_difference(const kernel_state &from, const kernel_state &to);

// The routes of a prefix of a table as a whole. None takes the prefix out. Returns whether that changed anything.
bool kernel_table_set(kernel_table &table, const kernel_prefix &prefix, std::vector<kernel_route> routes);
// The routes of a prefix; null when there are none.
const std::vector<kernel_route> *kernel_table_find(const kernel_table &table, const kernel_prefix &prefix);
// The longest prefix with routes that covers `address` and has at most `max_length` bits; null when there is none.
const std::pair<const kernel_prefix, std::vector<kernel_route>> *
kernel_table_match(const kernel_table &table, std::uint32_t address, std::uint32_t max_length = 32);

// How a packet that is forwarded leaves, as far as the kernel's state tells it.
enum class kernel_verdict {
    paths,   // by one of `hops`
    no_path, // no route: the kernel goes on with the next table
    other,   // in another way (delivered here, refused), or in one that the records do not tell
};
struct kernel_answer {
    kernel_verdict verdict = kernel_verdict::no_path;
    std::vector<kernel_hop> hops; // those that are alive, sorted
    const char *reason = "";      // with `other`: why, a few words
    bool operator==(const kernel_answer &other_answer) const
    {
        return verdict == other_answer.verdict && hops == other_answer.hops;
    }
};
// What the routes of one prefix say, the lookup being at this prefix.
kernel_answer kernel_routes_answer(const kernel_state &state, const std::vector<kernel_route> &routes);
// The lookup of an address in one table, and in several one after the other.
kernel_answer kernel_table_lookup(const kernel_state &state, std::uint32_t table, std::uint32_t address);
kernel_answer kernel_lookup(const kernel_state &state, const std::vector<std::uint32_t> &tables, std::uint32_t address);
