/* card.bpf.c - a network processor in the kernel: judges every packet of the card's ports before the kernel sees it.
 *
 * A packet that the tables send on leaves by its port as the kernel would have sent it, byte for byte: addressed to
 * the neighbour, TTL and checksum counted on, bytes behind the IP packet cut off. Every other packet goes to the
 * kernel untouched, for the first reason that holds in the order of enum live_reason.
 * The table is searched as tools/ixp/ixp_walk.h does it: up to four walks, the leaf's word once, the header of a set
 * read again after the entry, a word that leads out of the table taken for its last word.
 * Always: whatever others store meanwhile is loaded whole, once. A packet is changed only when nothing can hold it up
 * any more.
 * Elsewhere: the maps and words (contract/live_card.h), who fills them (live_maps.h).
 */
#include <linux/bpf.h>

#include <bpf/bpf_endian.h>
#include <bpf/bpf_helpers.h>

#include "live_card.h"

#define INLINE static inline __attribute__((always_inline))

enum { WALKS = 4, LEVELS = 4, STRIDE = 8, TOP_SHIFT = 24, SLOT_MASK = 0xFF, LAST_WORD = HW_TABLE_BYTES / 4 - 1 };
enum { ETH_BYTES = 14, IP_BYTES = 20, ETH_TYPE_AT = 12, ETH_SOURCE_AT = 6, ETH_TYPE_IPV4 = 0x0800 };
enum { VERSION_4 = 4, PLAIN_HEADER = 0x45, MORE_FRAGMENTS_AND_OFFSET = 0x3FFF, TTL_STEP = 0x0100 };

/* Maps whose values are mapped by those who fill them. */
#define MAPPED(name, bytes)                                                                                            \
    struct {                                                                                                           \
        __uint(type, BPF_MAP_TYPE_ARRAY);                                                                              \
        __uint(max_entries, 1);                                                                                        \
        __uint(key_size, 4);                                                                                           \
        __uint(value_size, bytes);                                                                                     \
        __uint(map_flags, BPF_F_MMAPABLE);                                                                             \
    } name SEC(".maps")

MAPPED(card_table_0, HW_TABLE_BYTES);
MAPPED(card_table_1, HW_TABLE_BYTES);
MAPPED(card_control, sizeof(struct live_control));
MAPPED(card_ingress, LIVE_IFINDEXES * sizeof(struct live_ingress));
MAPPED(card_egress, LIVE_IFIDS * sizeof(uint64_t));
MAPPED(card_encaps, LIVE_ENCAPS * sizeof(uint64_t));
MAPPED(card_sources, LIVE_SOURCE_BITS / 8);
MAPPED(card_counters, LIVE_PORTS * sizeof(struct live_counters)); /* of each processor */

struct {
    __uint(type, BPF_MAP_TYPE_DEVMAP);
    __uint(max_entries, LIVE_IFIDS);
    __uint(key_size, 4);
    __uint(value_size, 4);
} card_devices SEC(".maps");

/* Processors of this machine: what the loader makes room for. */
const volatile uint32_t card_processors = 1;

/* What card_trace saw last, and the table that it takes the packet to: enum live_searched, or NONE for what happens to
 * a packet now. */
struct live_trace traced;
uint32_t asked_table;

/* The value of a MAPPED map: the loader makes the reference to such a map the address of its value. The compiler is
 * not to know what stands there. */
#define VALUE_OF(map)                                                                                                  \
    ({                                                                                                                 \
        void *value_ = &map;                                                                                           \
        asm volatile("" : "+r"(value_));                                                                               \
        value_;                                                                                                        \
    })
#define LOAD_ONCE(place) (*(const volatile __typeof__(place) *)&(place))

/* 0, in a form that makes the load whose address it is added to wait for the load that `word` came from. Where loads
 * stay in their order by themselves, nothing is needed. */
INLINE uint32_t after(uint32_t word)
{
#ifdef LIVE_LOADS_STAY_IN_ORDER
    (void)word;
    return 0;
#else
    asm volatile("%0 &= 0" : "+r"(word));
    return word;
#endif
}

/* --- The table: tools/ixp/ixp_walk.h. */

INLINE uint32_t load(const uint32_t *table, uint32_t index)
{
    if (index > LAST_WORD)
        index = LAST_WORD;
    return LOAD_ONCE(table[index]);
}

INLINE uint32_t index_of(uint32_t word) { return (word - HW_IXP_BASE) >> 2; }
INLINE int is_node(uint32_t word) { return (word & HW_NODE_TAG) != 0; }

/* Up to WALKS walks, the first one ordered behind what `earlier` came from: a leaf's slot word, or 0. */
INLINE uint32_t walk(const uint32_t *table, uint32_t tree, uint32_t address, uint32_t earlier)
{
    uint32_t word = earlier;
#pragma unroll
    for (int walks = 0; walks < WALKS; ++walks) {
        word = load(table, tree + after(word));
#pragma unroll
        for (int level = 0; level < LEVELS; ++level)
            if (is_node(word))
                word = load(table, index_of(word) + (address >> (TOP_SHIFT - STRIDE * level) & SLOT_MASK));
        if (word != 0 && !is_node(word))
            return word;
    }
    return 0;
}

/* The entry of a set that the flow takes, at the leaf that `slot` names: its word and number, or the leaf's own. */
INLINE uint32_t choose(const uint32_t *table, uint32_t slot, struct live_trace *t)
{
    const uint32_t own = t->adjacency, pointer = load(table, index_of(slot) + 1 + after(own));
    if (pointer == 0)
        return own;
    const uint32_t block = index_of(pointer), header = load(table, block);
    const uint32_t path = t->hash % (ecmp_count(header) + 1);
    if ((header & ECMP_VALID) == 0 || path == 0)
        return own;
    const uint32_t entry = load(table, block + path); /* which lies where the header says */
    if (load(table, block + after(entry)) != header)
        return own;
    t->path = path;
    return entry;
}

/* --- The packet. */

/* Ethernet and IP headers. Of a packet the program loads what it needs, once for all. */
struct headers {
    uint32_t source, destination; /* host order */
    uint32_t bytes;               /* of the IP packet */
    uint32_t ttl, protocol, fragment;
};

INLINE uint64_t mac_at(const uint8_t *p)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    return *(const uint32_t *)p | (uint64_t) * (const uint16_t *)(p + 4) << 32;
#else
    return live_mac(p);
#endif
}
INLINE void put_mac(uint8_t *p, uint64_t mac)
{
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    *(uint32_t *)p = (uint32_t)mac;
    *(uint16_t *)(p + 4) = (uint16_t)(mac >> 32);
#else
#pragma unroll
    for (int n = 0; n < 6; ++n)
        p[n] = live_mac_byte(mac, n);
#endif
}

/* Whether the checksum of a plain header is right. */
INLINE int checksum_is_right(const uint32_t *words)
{
    uint64_t sum = (uint64_t)words[0] + words[1] + words[2] + words[3] + words[4];
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    const uint32_t whole = (uint32_t)(sum + (sum >> 32)); /* in ones' complement, of 32 bits */
    return (whole + (whole >> 16 | whole << 16)) >> 16 == 0xFFFF;
}

/* What the kernel would look at first. */
INLINE enum live_reason read_headers(const uint8_t *ip, const uint8_t *end, struct headers *h)
{
    if (ip + IP_BYTES > end)
        return LIVE_BROKEN;
    if (ip[0] != PLAIN_HEADER)
        return ip[0] >> 4 == VERSION_4 && (ip[0] & 0xF) > 5 ? LIVE_OPTIONS : LIVE_BROKEN;
    h->bytes = bpf_ntohs(*(const uint16_t *)(ip + 2));
    if (h->bytes < IP_BYTES || h->bytes > end - ip || !checksum_is_right((const uint32_t *)ip))
        return LIVE_BROKEN;
    h->fragment = bpf_ntohs(*(const uint16_t *)(ip + 6)) & MORE_FRAGMENTS_AND_OFFSET;
    h->ttl = ip[8];
    h->protocol = ip[9];
    h->source = bpf_ntohl(*(const uint32_t *)(ip + 12));
    h->destination = bpf_ntohl(*(const uint32_t *)(ip + 16));
    return LIVE_FORWARDED;
}

INLINE int is_own(uint32_t source)
{
    const uint64_t *bits = VALUE_OF(card_sources);
    const uint32_t bit = live_source_bit(source);
    return LOAD_ONCE(bits[bit / 64]) >> bit % 64 & 1;
}

INLINE uint32_t flow_hash(const uint8_t *ip, const uint8_t *end, const struct headers *h)
{
    uint32_t ports = 0;
    const uint8_t *after_header = ip + IP_BYTES;
    if (h->fragment == 0 && live_has_ports(h->protocol) && h->bytes >= IP_BYTES + 4 && after_header + 4 <= end)
        ports = bpf_ntohl(*(const uint32_t *)after_header);
    return live_flow_hash(h->source, h->destination, h->protocol, ports);
}

/* Sends the packet to the interface and neighbour that `t` names, unless something is in the way. */
INLINE enum live_reason send_on(struct xdp_md *ctx, const struct headers *h, struct live_trace *t)
{
    const uint64_t *encaps = VALUE_OF(card_encaps), *egress = VALUE_OF(card_egress);
    if (t->encap >= LIVE_ENCAPS)
        return t->encap == LIVE_ENCAP_OWN ? LIVE_OWN : LIVE_SENT_UP;
    if (h->ttl <= 1)
        return LIVE_TTL;
    const uint64_t neighbour = LOAD_ONCE(encaps[t->encap]);
    if (neighbour == 0)
        return LIVE_NO_ENCAP;
    if (t->ifid >= LIVE_IFIDS)
        return LIVE_NO_PORT;
    const uint64_t port = LOAD_ONCE(egress[t->ifid]);
    if (port == 0)
        return LIVE_NO_PORT;
    if (h->bytes > live_egress_mtu(port))
        return LIVE_TOO_LONG;
    if (t->ifid == t->port)
        return LIVE_SAME_PORT;
    if (bpf_redirect_map(&card_devices, t->ifid, XDP_PASS) != XDP_REDIRECT)
        return LIVE_NO_DEVICE;

    const int behind = (int)(ctx->data_end - ctx->data) - ETH_BYTES - (int)h->bytes;
    if (behind > 0 && bpf_xdp_adjust_tail(ctx, -behind) != 0)
        return LIVE_BROKEN;
    uint8_t *frame = (uint8_t *)(long)ctx->data, *ip = frame + ETH_BYTES;
    if (ip + IP_BYTES > (uint8_t *)(long)ctx->data_end)
        return LIVE_BROKEN;
    put_mac(frame, neighbour);
    put_mac(frame + ETH_SOURCE_AT, port);
    t->bytes = ETH_BYTES + h->bytes;
    /* The kernel's own arithmetic, so that 0 and 0xFFFF are told apart as it does. */
    uint16_t *check = (uint16_t *)(ip + 10);
    const uint32_t counted = *check + (uint32_t)bpf_htons(TTL_STEP);
    *check = (uint16_t)(counted + (counted >= 0xFFFF));
    ip[8] = (uint8_t)(h->ttl - 1);
    return LIVE_FORWARDED;
}

/* By which port and for which context the packet came in, and whether the card forwards it at all. */
INLINE enum live_reason admit(const struct xdp_md *ctx, struct live_trace *t, uint32_t *earlier, uint32_t asked)
{
    const struct live_control *control = VALUE_OF(card_control);
    const struct live_ingress *ports = VALUE_OF(card_ingress);
    const uint8_t *frame = (const uint8_t *)(long)ctx->data, *end = (const uint8_t *)(long)ctx->data_end;
    uint64_t in = 0;
    uint32_t ifindex = ctx->ingress_ifindex;
    if (ifindex < LIVE_IFINDEXES) {
        in = LOAD_ONCE(ports[ifindex].word);
        const uint32_t ifid = (uint32_t)LOAD_ONCE(ports[ifindex].ifid);
        if (in != 0 && ifid < LIVE_PORTS)
            t->port = ifid;
    }
    t->ctx = live_ingress_ctx(in);
    t->table = asked != LIVE_SEARCHED_NONE ? asked : LOAD_ONCE(control->searched);
    if (t->table != LIVE_SEARCHED_TABLE_0 && t->table != LIVE_SEARCHED_TABLE_1)
        return LIVE_NO_TABLE;
    const int64_t age = (int64_t)(bpf_jiffies64() - LOAD_ONCE(control->renewed_ticks));
    if (asked == LIVE_SEARCHED_NONE && age > (int64_t)LOAD_ONCE(control->stale_after_ticks))
        return LIVE_STALE;
    if (in == 0)
        return LIVE_UNBOUND;
    if (frame + ETH_BYTES > end || *(const uint16_t *)(frame + ETH_TYPE_AT) != bpf_htons(ETH_TYPE_IPV4))
        return LIVE_NOT_IPV4;
    if ((mac_at(frame) ^ in) << 16 != 0) /* of 48 bits */
        return LIVE_NOT_OURS;
    const uint32_t forwards = LOAD_ONCE(control->forwards[t->ctx]);
    if (forwards == 0 && asked == LIVE_SEARCHED_NONE)
        return LIVE_HELD;
    *earlier = t->table + forwards;
    return LIVE_FORWARDED;
}

/* asked: a table to take in place of the one that is searched, whether packets may use it or not. */
INLINE enum live_reason judge(struct xdp_md *ctx, struct live_trace *t, uint32_t asked)
{
    uint32_t earlier = 0;
    enum live_reason reason = admit(ctx, t, &earlier, asked);
    if (reason != LIVE_FORWARDED)
        return reason;

    struct headers h;
    const uint8_t *ip = (const uint8_t *)(long)ctx->data + ETH_BYTES, *end = (const uint8_t *)(long)ctx->data_end;
    reason = read_headers(ip, end, &h);
    if (reason != LIVE_FORWARDED)
        return reason;
    if (live_is_special(h.source) || is_own(h.source))
        return LIVE_SOURCE;
    if (live_is_special(h.destination))
        return LIVE_DESTINATION;

    const uint32_t *table = t->table == LIVE_SEARCHED_TABLE_0 ? VALUE_OF(card_table_0) : VALUE_OF(card_table_1);
    const uint32_t slot = walk(table, t->ctx, h.destination, earlier);
    if (slot == 0)
        return LIVE_NO_ROUTE;
    t->adjacency = load(table, index_of(slot));
    if (t->adjacency == 0) /* the leaf of a context without a default route */
        return LIVE_NO_ROUTE;
    if ((t->adjacency & ADJ_IP_RESOLVE) != 0)
        return LIVE_RESOLVE;
    if ((t->adjacency & ADJ_NAT) != 0)
        return LIVE_NAT;
    uint32_t word = t->adjacency;
    if ((word & ADJ_ECMP) != 0) {
        t->hash = flow_hash(ip, end, &h);
        word = choose(table, slot, t);
    }
    t->ifid = t->path == 0 ? adj_ifid(word) : ecmp_entry_ifid(word);
    t->encap = adj_encap(word);
    return send_on(ctx, &h, t);
}

/* --- The programs. */

/* The rows of this processor, by port: no other counts there. */
INLINE struct live_counters *rows_here(void)
{
    struct live_counters *rows = VALUE_OF(card_counters);
    const uint32_t processor = bpf_get_smp_processor_id();
    return processor < card_processors ? rows + processor * LIVE_PORTS : 0;
}

INLINE int count_kept(const struct live_trace *t)
{
    struct live_counters *rows = rows_here();
    if (rows)
        rows[t->port].reasons[t->reason] += 1;
    return XDP_PASS;
}

INLINE int count_sent(const struct live_trace *t)
{
    struct live_counters *rows = rows_here();
    if (rows) {
        rows[t->port].reasons[LIVE_FORWARDED] += 1;
        if (t->ifid < LIVE_PORTS) {
            rows[t->ifid].out_packets += 1;
            rows[t->ifid].out_bytes += t->bytes;
        }
    }
    return XDP_REDIRECT;
}

/* Of every packet of a port. */
SEC("card") int card_forward(struct xdp_md *ctx)
{
    struct live_trace t = {};
    t.reason = judge(ctx, &t, LIVE_SEARCHED_NONE);
    return t.reason == LIVE_FORWARDED ? count_sent(&t) : count_kept(&t);
}

/* The same of a packet that somebody only asks about: nothing is counted. */
SEC("card") int card_trace(struct xdp_md *ctx)
{
    struct live_trace t = {};
    t.reason = judge(ctx, &t, LOAD_ONCE(asked_table));
    traced = t;
    return t.reason == LIVE_FORWARDED ? XDP_REDIRECT : XDP_PASS;
}

/* Says that who fills the maps is alive. Run by it, on no packet. */
SEC("card") int card_renew(struct xdp_md *ctx)
{
    struct live_control *control = VALUE_OF(card_control);
    (void)ctx;
    *(volatile uint64_t *)&control->renewed_ticks = bpf_jiffies64();
    return XDP_PASS;
}

char card_license[] SEC("license") = "GPL";
