/* live_card.h - what the packet program in the kernel shares with the programs that fill its maps.
 *
 * A Linux host is a card when its interfaces run the program of live/xdp: it searches a route table that lies in a
 * memory-mapped map, as a network processor searches its own memory (route_table.h), and everything else that it needs
 * to send a packet on lies in maps beside it. The maps are pinned in a folder of the card and outlive every process.
 * Always: whatever changes while packets run is one word, 64 bits or fewer, stored whole with release order; a word of
 * 0 stands for nothing: no table, not bound, closed, not known, held back. So a map that was just made sends
 * everything to the kernel.
 * In C and C++: the program is written in C.
 */
#pragma once

#include <stdint.h>

#include "route_table.h"

#define LIVE_VERSION 1u /* of the maps; the folder of another version is refused */

/* The maps, and the names under which they are pinned. */
enum live_map {
    LIVE_MAP_TABLE_0,  /* one value: a route table */
    LIVE_MAP_TABLE_1,  /* the other */
    LIVE_MAP_CONTROL,  /* one value: struct live_control */
    LIVE_MAP_INGRESS,  /* one value: struct live_ingress by ifindex */
    LIVE_MAP_EGRESS,   /* one value: a word by interface id */
    LIVE_MAP_ENCAPS,   /* one value: a word by encap id */
    LIVE_MAP_SOURCES,  /* one value: a bit by hashed address, the host's own addresses */
    LIVE_MAP_COUNTERS, /* one value: struct live_counters by processor and port */
    LIVE_MAP_DEVICES,  /* interface id -> ifindex */
    LIVE_MAPS
};

#define LIVE_IFINDEXES 65536u  /* an interface with a larger ifindex cannot be bound */
#define LIVE_IFIDS 8192u       /* interface ids */
#define LIVE_ENCAPS 0x8000u    /* encap ids from here on say "to the kernel" */
#define LIVE_ENCAP_OWN 0x8001u /* that of the card's own addresses, in the tables of the route manager */
#define LIVE_PORTS 1024u       /* interface ids of ports are 1 to 1023; 0 counts what came in over no port */
#define LIVE_CONTEXTS 256u
#define LIVE_TABLES 2u
#define LIVE_SOURCE_BITS 65536u

/* The control value. */
enum live_searched {
    LIVE_SEARCHED_NONE, /* everything goes to the kernel */
    LIVE_SEARCHED_TABLE_0,
    LIVE_SEARCHED_TABLE_1,
};
struct live_control {
    uint32_t version;                 /* LIVE_VERSION, stored when the maps are made */
    uint32_t searched;                /* enum live_searched; read once a packet */
    uint64_t renewed_ticks;           /* the kernel's clock (jiffies) at the last renewal */
    uint64_t stale_after_ticks;       /* a renewal older than this: everything goes to the kernel */
    uint64_t renewed_ns;              /* CLOCK_MONOTONIC of the last renewal, for those who look */
    uint64_t generation[LIVE_TABLES]; /* the count with which a table was handed out for writing; 0: never */
    uint32_t forwards[LIVE_CONTEXTS]; /* 0: the context is held back, all of its packets go to the kernel */
};

/* An interface by which packets come in. The id is stored before the word that binds, and stays while it is bound. */
struct live_ingress {
    uint64_t word; /* 56 bound, 55..48 context, 47..0 its MAC address */
    uint64_t ifid; /* interface id of the port: what it counts under */
};

/* Words with a MAC address: its first byte is bits 7..0. Encapsulation: 48 valid, 47..0 destination.
 * Egress: 63..48 MTU, 47..0 source; 0 closed. */
#define LIVE_MAC_MASK 0xFFFFFFFFFFFFull
#define LIVE_INGRESS_BOUND (1ull << 56)
#define LIVE_INGRESS_CONTEXT_SHIFT 48u
#define LIVE_ENCAP_VALID (1ull << 48)
#define LIVE_EGRESS_MTU_SHIFT 48u

ROUTE_TABLE_FUNCTION uint64_t live_mac(const uint8_t *bytes)
{
    return bytes[0] | (uint64_t)bytes[1] << 8 | (uint64_t)bytes[2] << 16 | (uint64_t)bytes[3] << 24 |
           (uint64_t)bytes[4] << 32 | (uint64_t)bytes[5] << 40;
}
ROUTE_TABLE_FUNCTION uint8_t live_mac_byte(uint64_t word, unsigned n) { return (uint8_t)(word >> 8 * n); }

ROUTE_TABLE_FUNCTION uint64_t live_ingress_word(uint64_t mac, uint32_t ctx)
{
    return LIVE_INGRESS_BOUND | (uint64_t)(ctx & 0xFF) << LIVE_INGRESS_CONTEXT_SHIFT | (mac & LIVE_MAC_MASK);
}
ROUTE_TABLE_FUNCTION uint32_t live_ingress_ctx(uint64_t word)
{
    return (uint32_t)(word >> LIVE_INGRESS_CONTEXT_SHIFT) & 0xFF;
}
ROUTE_TABLE_FUNCTION uint64_t live_encap_word(uint64_t mac) { return LIVE_ENCAP_VALID | (mac & LIVE_MAC_MASK); }
ROUTE_TABLE_FUNCTION uint64_t live_egress_word(uint64_t mac, uint32_t mtu)
{
    return (uint64_t)(mtu & 0xFFFF) << LIVE_EGRESS_MTU_SHIFT | (mac & LIVE_MAC_MASK);
}
ROUTE_TABLE_FUNCTION uint32_t live_egress_mtu(uint64_t word) { return (uint32_t)(word >> LIVE_EGRESS_MTU_SHIFT); }

/* The bit of an address (host order) among the host's own. Others share it: they are slow then, not wrong. Addresses
 * that differ in a few bytes, as those of one site do, share none. */
ROUTE_TABLE_FUNCTION uint32_t live_source_bit(uint32_t address) { return address * 0x9E3779B1u >> 16; }

/* Addresses (host order) that the program leaves to the kernel wherever they stand: 0/8, 127/8, 224.0.0.0 and on. */
ROUTE_TABLE_FUNCTION int live_is_special(uint32_t address)
{
    return address >> 24 == 0 || address >> 24 == 127 || address >> 24 >= 224;
}

/* The hash that chooses among the paths of a set. `ports` are the first four bytes behind the IP header as a number
 * (source port high), or 0 for a fragment, for a protocol without ports and where the packet ends before them. */
ROUTE_TABLE_FUNCTION uint32_t live_flow_hash(uint32_t source, uint32_t destination, uint32_t protocol, uint32_t ports)
{
    uint64_t h = ((uint64_t)source << 32 | destination) * 0x9E3779B97F4A7C15ull;
    h ^= h >> 32;
    h = (h ^ ((uint64_t)ports << 8 | protocol)) * 0xD6E8FEB86659FD93ull;
    return (uint32_t)(h >> 32);
}
/* Protocols with ports in those bytes: TCP, UDP, DCCP, SCTP, UDP-Lite. */
ROUTE_TABLE_FUNCTION int live_has_ports(uint32_t protocol)
{
    return protocol == 6 || protocol == 17 || protocol == 33 || protocol == 132 || protocol == 136;
}

/* What becomes of a packet: it leaves, or it goes to the kernel for the first of these that holds, in this order. */
enum live_reason {
    LIVE_FORWARDED,
    LIVE_NO_TABLE,    /* no table is searched yet */
    LIVE_STALE,       /* the last renewal is too old */
    LIVE_UNBOUND,     /* came in over an interface that is not bound */
    LIVE_NOT_IPV4,    /* another kind of frame */
    LIVE_NOT_OURS,    /* not addressed to the port */
    LIVE_HELD,        /* its context is held back */
    LIVE_BROKEN,      /* cut short, or version, lengths or header checksum are wrong */
    LIVE_OPTIONS,     /* has IP options */
    LIVE_SOURCE,      /* source in 0/8, 127/8, from 224.0.0.0 on, or the host's own */
    LIVE_DESTINATION, /* destination in 0/8, 127/8 or from 224.0.0.0 on */
    LIVE_NO_ROUTE,    /* no leaf, or one with the word 0: that of a context without a default route */
    LIVE_RESOLVE,     /* the neighbour is to be found first */
    LIVE_NAT,         /* to be translated */
    LIVE_OWN,         /* the card's own address */
    LIVE_SENT_UP,     /* another encap id that says "to the kernel" */
    LIVE_TTL,         /* at its end */
    LIVE_NO_ENCAP,    /* the neighbour's address is not known now */
    LIVE_NO_PORT,     /* the port is closed */
    LIVE_TOO_LONG,    /* for the port */
    LIVE_SAME_PORT,   /* would leave by the port that it came in by; the kernel tells the sender */
    LIVE_NO_DEVICE,   /* the port has no device */
    LIVE_REASONS
};

/* Of one port and one processor. The size leaves room for further reasons. */
struct live_counters {
    uint64_t reasons[30];            /* packets that came in, by enum live_reason */
    uint64_t out_packets, out_bytes; /* that left by this port, with the Ethernet header */
};

/* What the program did with a packet of which it was only asked; fields behind the reason are 0 where it did not come
 * so far. */
struct live_trace {
    uint32_t reason;    /* enum live_reason */
    uint32_t port;      /* interface id of the port it came in by */
    uint32_t ctx;       /* context */
    uint32_t table;     /* enum live_searched */
    uint32_t hash;      /* of the flow */
    uint32_t adjacency; /* the leaf's own word */
    uint32_t path;      /* 0 the leaf's own word, 1 to 7 an entry of the set */
    uint32_t ifid;      /* where it goes */
    uint32_t encap;
    uint32_t bytes; /* of the frame that leaves */
};

#ifdef __cplusplus
constexpr const char *LIVE_MAP_NAMES[] = {"card_table_0", "card_table_1",  "card_control",
                                          "card_ingress", "card_egress",   "card_encaps",
                                          "card_sources", "card_counters", "card_devices"};
static_assert(sizeof LIVE_MAP_NAMES / sizeof *LIVE_MAP_NAMES == LIVE_MAPS);

/* The reasons as they are shown. */
constexpr const char *LIVE_REASON_NAMES[] = {
    "forwarded", "no-table", "stale",       "unbound",  "not-ipv4",  "not-ours", "held", "broken",
    "options",   "source",   "destination", "no-route", "resolve",   "nat",      "own",  "sent-up",
    "ttl",       "no-encap", "no-port",     "too-long", "same-port", "no-device"};
static_assert(sizeof LIVE_REASON_NAMES / sizeof *LIVE_REASON_NAMES == LIVE_REASONS);
static_assert(LIVE_REASONS <= sizeof live_counters::reasons / sizeof *live_counters::reasons);
static_assert(sizeof(live_counters) == 256 && sizeof(live_ingress) == 16);
static_assert(sizeof(live_control) == 48 + 4 * LIVE_CONTEXTS);
static_assert(live_ingress_word(0x060504030201, 3) == 0x0103060504030201 && live_ingress_ctx(0x0103060504030201) == 3);
static_assert(live_encap_word(0x060504030201) == 0x0001060504030201);
static_assert(live_source_bit(0xFFFFFFFF) < LIVE_SOURCE_BITS &&
              live_source_bit(0x0A010002) != live_source_bit(0x0A020001));
static_assert(live_egress_word(0x060504030201, 1500) == 0x05DC060504030201 && live_egress_mtu(1500ull << 48) == 1500);
#endif
