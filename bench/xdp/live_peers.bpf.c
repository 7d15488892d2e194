/* live_peers.bpf.c - the packet program of a live card, and the same program with other lookups in its place.
 *
 * Each takes the next of many packets first: its addresses, TTL and checksum are written over the last one's. What that
 * costs is measured alone (peer_packet) and taken off. All of them look at the packet, count it and send it on with
 * the card's own code; only where it goes is found in different ways.
 */
#include "card.bpf.c"

enum { PACKETS = 1 << 14, AF_INET_4 = 2 };

struct live_peers_value {
    uint32_t destinations[PACKETS]; /* network order */
    uint32_t next, came_out;
    uint64_t to; /* the port's MAC address */
    uint64_t out; /* where peer_send sends: the ifindex's key in peer_devices */
};
MAPPED(peer_packets, sizeof(struct live_peers_value));

struct peer_key {
    uint32_t len, address;
};
struct peer_hop {
    uint32_t ifid, encap;
};
struct {
    __uint(type, BPF_MAP_TYPE_LPM_TRIE);
    __uint(max_entries, 1024);
    __uint(map_flags, BPF_F_NO_PREALLOC);
    __type(key, struct peer_key);
    __type(value, struct peer_hop);
} peer_trie SEC(".maps");

/* By ifindex, as bpf_fib_lookup answers. */
struct {
    __uint(type, BPF_MAP_TYPE_DEVMAP);
    __uint(max_entries, 1024);
    __uint(key_size, 4);
    __uint(value_size, 4);
} peer_devices SEC(".maps");

/* The next packet. */
INLINE void next_packet(struct xdp_md *ctx)
{
    struct live_peers_value *packets = VALUE_OF(peer_packets);
    uint8_t *frame = (uint8_t *)(long)ctx->data, *ip = frame + ETH_BYTES;
    if (ip + IP_BYTES > (uint8_t *)(long)ctx->data_end)
        return;
    const uint32_t next = packets->next;
    packets->next = next + 1;
    put_mac(frame, packets->to);
    ip[8] = 64;
    *(uint32_t *)(ip + 16) = packets->destinations[next & (PACKETS - 1)];
    *(uint16_t *)(ip + 10) = 0;
    const uint32_t *words = (const uint32_t *)ip;
    uint64_t sum = (uint64_t)words[0] + words[1] + words[2] + words[3] + words[4];
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    sum = (sum & 0xFFFF) + (sum >> 16);
    *(uint16_t *)(ip + 10) = (uint16_t)~sum;
}

INLINE int counted(const struct live_trace *t)
{
    return t->reason == LIVE_FORWARDED ? count_sent(t) : count_kept(t);
}

/* All that the card looks at before it searches. */
INLINE enum live_reason looked_at(struct xdp_md *ctx, struct live_trace *t, struct headers *h)
{
    uint32_t earlier;
    enum live_reason reason = admit(ctx, t, &earlier, LIVE_SEARCHED_NONE);
    if (reason != LIVE_FORWARDED)
        return reason;
    const uint8_t *ip = (const uint8_t *)(long)ctx->data + ETH_BYTES;
    reason = read_headers(ip, (const uint8_t *)(long)ctx->data_end, h);
    if (reason != LIVE_FORWARDED)
        return reason;
    if (live_is_special(h->source) || is_own(h->source))
        return LIVE_SOURCE;
    return live_is_special(h->destination) ? LIVE_DESTINATION : LIVE_FORWARDED;
}

SEC("card") int peer_packet(struct xdp_md *ctx)
{
    next_packet(ctx);
    return XDP_PASS;
}

INLINE int walked(struct xdp_md *ctx)
{
    struct live_trace t = {};
    t.reason = judge(ctx, &t, LIVE_SEARCHED_NONE);
    return counted(&t);
}
SEC("card") int peer_walk(struct xdp_md *ctx)
{
    next_packet(ctx);
    return walked(ctx);
}

INLINE int trie_found(struct xdp_md *ctx)
{
    struct live_trace t = {};
    struct headers h;
    t.reason = looked_at(ctx, &t, &h);
    if (t.reason == LIVE_FORWARDED) {
        const struct peer_key key = {32, bpf_htonl(h.destination)};
        const struct peer_hop *hop = bpf_map_lookup_elem(&peer_trie, &key);
        if (hop) {
            t.ifid = hop->ifid;
            t.encap = hop->encap;
            t.reason = send_on(ctx, &h, &t);
        } else
            t.reason = LIVE_NO_ROUTE;
    }
    return counted(&t);
}
SEC("card") int peer_trie_lookup(struct xdp_md *ctx)
{
    next_packet(ctx);
    return trie_found(ctx);
}

/* As forwarding by the kernel's own tables is done: it answers the interface and both addresses. */
INLINE enum live_reason send_as_found(struct xdp_md *ctx, const struct headers *h, struct live_trace *t)
{
    struct bpf_fib_lookup found = {.family = AF_INET_4, .l4_protocol = (uint8_t)h->protocol};
    found.tot_len = (uint16_t)h->bytes;
    found.ipv4_src = bpf_htonl(h->source);
    found.ipv4_dst = bpf_htonl(h->destination);
    found.ifindex = ctx->ingress_ifindex;
    if (bpf_fib_lookup(ctx, &found, sizeof found, 0) != BPF_FIB_LKUP_RET_SUCCESS)
        return LIVE_NO_ROUTE;
    if (h->ttl <= 1)
        return LIVE_TTL;
    if (bpf_redirect_map(&peer_devices, found.ifindex, XDP_PASS) != XDP_REDIRECT)
        return LIVE_NO_DEVICE;
    uint8_t *frame = (uint8_t *)(long)ctx->data, *ip = frame + ETH_BYTES;
    if (ip + IP_BYTES > (uint8_t *)(long)ctx->data_end)
        return LIVE_BROKEN;
    __builtin_memcpy(frame, found.dmac, sizeof found.dmac);
    __builtin_memcpy(frame + ETH_SOURCE_AT, found.smac, sizeof found.smac);
    uint16_t *check = (uint16_t *)(ip + 10);
    const uint32_t up = *check + (uint32_t)bpf_htons(TTL_STEP);
    *check = (uint16_t)(up + (up >= 0xFFFF));
    ip[8] = (uint8_t)(h->ttl - 1);
    t->ifid = 1; /* counts under some port */
    t->bytes = ETH_BYTES + h->bytes;
    return LIVE_FORWARDED;
}
INLINE int fib_found(struct xdp_md *ctx)
{
    struct live_trace t = {};
    struct headers h;
    t.reason = looked_at(ctx, &t, &h);
    if (t.reason == LIVE_FORWARDED)
        t.reason = send_as_found(ctx, &h, &t);
    return counted(&t);
}
SEC("card") int peer_fib_lookup(struct xdp_md *ctx)
{
    next_packet(ctx);
    return fib_found(ctx);
}

/* The same on frames that really come in; the next packet was made by whoever sent them. */
SEC("card") int port_walk(struct xdp_md *ctx) { return walked(ctx); }
SEC("card") int port_fib(struct xdp_md *ctx) { return fib_found(ctx); }
SEC("card") int port_send(struct xdp_md *ctx)
{
    next_packet(ctx);
    return bpf_redirect_map(&peer_devices, (uint32_t)((struct live_peers_value *)VALUE_OF(peer_packets))->out, 0);
}
INLINE void came_out(void)
{
    struct live_peers_value *packets = VALUE_OF(peer_packets);
    packets->came_out += 1; /* one processor takes all of them */
}
SEC("card") int port_drop(struct xdp_md *ctx)
{
    (void)ctx;
    came_out();
    return XDP_DROP;
}
/* Of packets that the kernel has forwarded: there a packet program would have to make frames of them first. */
SEC("card") int port_tc_drop(struct __sk_buff *packet)
{
    (void)packet;
    came_out();
    return 2; /* TC_ACT_SHOT */
}
