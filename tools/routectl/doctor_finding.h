// doctor_finding.h - what `doctor` finds: the table of the kinds of findings, and one finding.
//
// Always: findings of two looks are compared by the name of their kind, by context, object and marks, never by their
// sentences. A name means one thing that is wrong; rows that share a name differ in how it shows.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// How bad: packets go wrong or something is used up for good; it will go wrong; it has passed, or may be meant.
enum class doctor_level { fault, warning, note };

struct doctor_kind {
    doctor_level level;
    std::string_view name;
    const char *what; // a sentence about {}, the finding's subject; without a full stop, as the next
    const char *todo;
};

constexpr auto DOCTOR_FAULT = doctor_level::fault, DOCTOR_WARNING = doctor_level::warning,
               DOCTOR_NOTE = doctor_level::note;
constexpr const char
    *DOCTOR_GIVE_BACK = "restart the route manager: nothing else frees them; withdraw a host before it is reported "
                        "again, use one context for each route id",
    *DOCTOR_MAKE_ROOM = "remove routes; a host that is reported again while the pool is exhausted is removed",
    *DOCTOR_FILL_GAP =
        "add a route for the gap, or restart the route manager; add a shorter prefix before the longer ones",
    *DOCTOR_ADD_AGAIN = "remove the route and add it again; if it stays, restart the route manager",
    *DOCTOR_ONE_CONTEXT = "use one context for each route id, then restart the route manager",
    *DOCTOR_STRAY_WRITES = "restart the route manager; if it comes back, something else writes into the tables",
    *DOCTOR_FIRST_HIDES =
        "routes of several kinds share {}: the one that came first hides the other, which is lost or cannot be removed",
    *DOCTOR_BEHIND_INTERFACE = "routes of several kinds share {}: the host after it cannot be withdrawn, and is lost "
                               "when the interface goes down",
    *DOCTOR_OWN_ADDRESS = "take the interface down; the ARP service should not report the card's own addresses",
    *DOCTOR_UNMIX = "remove the static route before the host is withdrawn";

// ---- what the pools and the memory hold ----
constexpr doctor_kind DOCTOR_NODES_LOST{DOCTOR_FAULT, "nodes-lost", "{} in use and cannot be reached",
                                        DOCTOR_GIVE_BACK};
constexpr doctor_kind DOCTOR_LEAVES_LOST{DOCTOR_FAULT, "leaves-lost", "{} in use and cannot be reached",
                                         DOCTOR_GIVE_BACK};
constexpr doctor_kind DOCTOR_BLOCKS_LOST{DOCTOR_FAULT, "blocks-lost", "{} in use and cannot be reached",
                                         DOCTOR_GIVE_BACK};
constexpr doctor_kind DOCTOR_POOL_FULL{DOCTOR_FAULT, "pool-full",
                                       "the pool of {} is exhausted: the next route that needs one is refused",
                                       DOCTOR_MAKE_ROOM};
constexpr doctor_kind DOCTOR_POOL_LOW{DOCTOR_WARNING, "pool-low", "the pool of {} is nearly exhausted",
                                      DOCTOR_MAKE_ROOM};
constexpr doctor_kind DOCTOR_HOSTS_LOST{
    DOCTOR_FAULT, "hosts-lost", "{} in no listing any more",
    "they were lost with the first entry of their prefix; only a restart frees their memory"};
constexpr doctor_kind DOCTOR_STATICS_UNLISTED{
    DOCTOR_WARNING, "statics-unlisted",
    "{} static route(s) are in no table: their gateway is unknown, or they were lost with a host of their prefix",
    "check that each gateway is reported; `route del` of a lost one is refused as not found"};

// ---- what a card that is this host does ----
constexpr doctor_kind DOCTOR_LIVE_DIFFERS{DOCTOR_FAULT, "live-differs",
                                          "packets to {} do not leave as the kernel would send them",
                                          "look again; `live trace` shows one; if it stays, restart cardlive"};

// ---- what the tables hold ----
constexpr doctor_kind DOCTOR_ABSENT_MISS{
    DOCTOR_FAULT, "not-in-tables", "{} is listed as installed and has no leaf: its addresses miss", DOCTOR_ADD_AGAIN};
constexpr doctor_kind DOCTOR_ABSENT_COVERED{
    DOCTOR_FAULT, "not-in-tables", "{} is listed as installed and has no leaf: its addresses match another route",
    DOCTOR_ADD_AGAIN};
constexpr doctor_kind DOCTOR_ABSENT_HIDDEN{
    DOCTOR_FAULT, "not-in-tables", "{} is listed as installed and the trie has no leaf for it", DOCTOR_ADD_AGAIN};
constexpr doctor_kind DOCTOR_PATHS_DIFFER{
    DOCTOR_FAULT, "paths-differ", "the processors do not take the paths that are listed for {}",
    "remove the paths and add them again; if it stays, restart the route manager"};
constexpr doctor_kind DOCTOR_ENCAP_DIFFERS{DOCTOR_FAULT, "encap-differs",
                                           "the processors use another encap id for {} than is listed",
                                           "withdraw the host and report it again"};
constexpr doctor_kind DOCTOR_STRAY_LEAF{
    DOCTOR_FAULT, "stray-leaf", "the processors forward {} by a leaf of no listed route",
    "restart the route manager; routes of several kinds or contexts that shared the prefix leave such a leaf"};
constexpr doctor_kind DOCTOR_BLOCK_UNUSED{DOCTOR_FAULT, "block-unused",
                                          "the leaf of {} holds an ECMP block and does not use it",
                                          "restart the route manager: nothing else frees the block"};
constexpr doctor_kind DOCTOR_BLOCK_INVALID{
    DOCTOR_FAULT, "block-invalid",
    "the ECMP block of {} is invalid: traffic uses path 1 alone, changes of the set are refused", DOCTOR_ONE_CONTEXT};
constexpr doctor_kind DOCTOR_BLOCK_INVALID_UNLISTED{
    DOCTOR_FAULT, "block-invalid", "an ECMP block is invalid: traffic uses path 1 alone", DOCTOR_ONE_CONTEXT};
constexpr doctor_kind DOCTOR_GAP{DOCTOR_FAULT, "gap", "addresses miss that {} should match", DOCTOR_FILL_GAP};
constexpr doctor_kind DOCTOR_GAP_UNLISTED{DOCTOR_WARNING, "gap",
                                          "addresses miss, and would miss with a default route too", DOCTOR_FILL_GAP};
constexpr doctor_kind DOCTOR_DEFAULT_GONE{
    DOCTOR_FAULT, "default-gone",
    "the default leaf is gone: addresses that no route covers miss, and no default route can be set",
    "avoid interfaces with mask 0 and NAT pools of all addresses, and restart the route manager"};
constexpr doctor_kind DOCTOR_ZERO_PREFIX{
    DOCTOR_WARNING, "zero-prefix",
    "an interface or a NAT pool has a /0; when that is removed, the default leaf goes with it",
    "leave it, or restart the route manager after it was removed"};
constexpr doctor_kind DOCTOR_TABLE_FAULT{DOCTOR_FAULT, "table-fault",
                                         "{} word(s) of the tree name nothing in the table", DOCTOR_STRAY_WRITES};
constexpr doctor_kind DOCTOR_COPIES_DIFFER{DOCTOR_FAULT, "copies-differ", "the copies {} word(s)", DOCTOR_STRAY_WRITES};

// ---- what the listings hold ----
constexpr doctor_kind DOCTOR_MIXED_WAITING{DOCTOR_WARNING, "kinds-mixed", DOCTOR_FIRST_HIDES, DOCTOR_UNMIX};
constexpr doctor_kind DOCTOR_MIXED_WAITING_INTERFACE{DOCTOR_WARNING, "kinds-mixed", DOCTOR_FIRST_HIDES,
                                                     DOCTOR_OWN_ADDRESS};
constexpr doctor_kind DOCTOR_MIXED_HOST{
    DOCTOR_WARNING, "kinds-mixed",
    "routes of several kinds share {}: when the host is withdrawn, the others leave the list with it", DOCTOR_UNMIX};
constexpr doctor_kind DOCTOR_MIXED_CONNECTED{DOCTOR_WARNING, "kinds-mixed", DOCTOR_BEHIND_INTERFACE, DOCTOR_UNMIX};
constexpr doctor_kind DOCTOR_MIXED_INTERFACE{DOCTOR_WARNING, "kinds-mixed", DOCTOR_BEHIND_INTERFACE,
                                             DOCTOR_OWN_ADDRESS};
constexpr doctor_kind DOCTOR_MIXED_OTHER{
    DOCTOR_WARNING, "kinds-mixed",
    "routes of several kinds share {}: the entries after it can neither be withdrawn nor serve as a gateway",
    DOCTOR_UNMIX};
constexpr doctor_kind DOCTOR_GATEWAY_STALE{DOCTOR_FAULT, "gateway-stale", "{} still uses what its gateway had before",
                                           "withdraw the gateway and report it again"};
constexpr doctor_kind DOCTOR_GATEWAY_GONE{DOCTOR_WARNING, "gateway-gone",
                                          "{} is in the tables, but its gateway is not reported",
                                          "let the ARP service report the gateway, or remove the route"};
constexpr doctor_kind DOCTOR_INTERFACE_MISSING{DOCTOR_FAULT, "interface-missing",
                                               "{} is up, but some of its routes are missing",
                                               "let the interface manager report it again: down, then up"};
constexpr doctor_kind DOCTOR_INTERFACE_REFUSED{
    DOCTOR_FAULT, "interface-missing", "{} is up, but some of its routes are missing",
    "give it a mask of 1 to 30 bits: with any other the route manager refuses its routes"};
constexpr doctor_kind DOCTOR_INTERFACE_STALE{
    DOCTOR_FAULT, "interface-stale", "{} is still listed, but its interface is not up",
    "if it stays, remove static routes to the interface's addresses, and let it go up and down again"};

// ---- what the history holds ----
constexpr doctor_kind DOCTOR_NAT_TWIN_LOST{
    DOCTOR_WARNING, "nat-twin-lost",
    "a NAT pool was refused, and the entry of {} with the same value was removed with it",
    "add the pool again; list before adding, and give each pool a value of its own"};
constexpr doctor_kind DOCTOR_NAT_NOT_THERE{
    DOCTOR_NOTE, "nat-not-there", "the removal of a NAT pool answered 0, but {} was unknown",
    "nothing, if it was removed before; else remove it with the value that it was added with"};
constexpr doctor_kind DOCTOR_INSTALL_REFUSED{
    DOCTOR_NOTE, "install-refused", "{} route(s) could not be put into the tables",
    "check the pools; a host that was reported again with an exhausted pool was removed and has to be reported again"};
constexpr doctor_kind DOCTOR_ERRORS_NOT_KEPT{
    DOCTOR_WARNING, "errors-not-kept",
    "the event history keeps no errors: refusals cannot be explained, and what is found here may be less",
    "`keep errors on`"};
constexpr doctor_kind DOCTOR_HISTORY_MISSING{DOCTOR_WARNING, "history-missing", "the event history cannot be opened",
                                             "restart the route manager; it makes the file when it starts"};
constexpr doctor_kind DOCTOR_HISTORY_DAMAGED{DOCTOR_WARNING, "history-damaged",
                                             "a part of the event history cannot be read",
                                             "nothing: new records replace the damaged part"};

constexpr int DOCTOR_WHOLE_CARD = -1;

struct doctor_finding {
    const doctor_kind *kind;
    int ctx;                  // DOCTOR_WHOLE_CARD: of no context
    std::string object;       // prefix, range or pool that distinguishes it from others of its kind; may be empty
    std::string seen;         // how it shows, a sentence
    std::string subject = {}; // of the sentence that says what it is; empty: the object
    std::uint64_t amount = 0; // of what is counted; 0: nothing is
    std::vector<std::uint64_t> marks = {}; // numbers of what a table holds: others show a change under way
    std::vector<std::string> copies = {};  // of the tables in which it was seen; none: not seen in a table

    // Whether it is the same thing, seen in another copy or at another time.
    bool is_same(const doctor_finding &other) const
    {
        return kind->name == other.kind->name && ctx == other.ctx && object == other.object;
    }
};
using doctor_findings = std::vector<doctor_finding>;
