// plain_calls.cpp - the plain model's remote calls: their arguments, judged and decoded.
#include <map>

#include "plain_model.h"

namespace harness
{
namespace
{

using argument_list = std::vector<std::uint32_t>;
using procedure = void (*)(plain_model &m, const argument_list &a, model_reply &reply);

struct model_procedure {
    std::size_t arguments;
    std::vector<std::size_t> contexts; // arguments that may not be over 255
    procedure run;
};

std::uint16_t low(std::uint32_t value) { return static_cast<std::uint16_t>(value); }

model_key key_of(std::uint32_t prefix, std::uint32_t mask)
{
    const std::uint32_t len = model_mask_len(mask);
    return {len, prefix & plain_mask(len)};
}

void list_page(plain_model &m, const argument_list &a, model_reply &reply, bool fib)
{
    reply.refs = {a[1], a[2], a[3]};
    reply.blocks = {{}};
    if (!model_alloc(m)) {
        model_error(m, low(a[0]), "route_print: out of memory\n");
        return;
    }
    model_cursor cursor = {low(a[1]), low(a[2]), a[3]};
    const model_page page = model_list(m, low(a[0]), cursor, fib, 2550);
    reply.refs = {(a[1] & 0xFFFF0000) | cursor.list, (a[2] & 0xFFFF0000) | cursor.bucket, cursor.position};
    reply.blocks = {page.records};
    reply.result = page.count;
}

void summary(plain_model &m, const argument_list &a, model_reply &reply, bool fib)
{
    reply.blocks = {{}};
    reply.result = 1;
    if (!model_alloc(m)) {
        model_error(m, low(a[0]), fib ? "show_fib_summary: out of memory\n" : "show_rib_summary: out of memory\n");
        return;
    }
    reply.blocks = {fib ? model_fib_summary(m, low(a[0])) : model_rib_summary(m, low(a[0]))};
    reply.result = 0;
}

std::uint32_t set_is_full(plain_model &m, const argument_list &a)
{
    const model_key key = key_of(a[2], a[3]);
    const std::vector<model_path> *set = model_set(m, a[1], key); // the route id's
    if (set == nullptr || set->size() != 8)
        return 0;
    model_error(m, low(a[0]),
                text("rib_max_ecmp_route:  MAX ECMP exceeded for route_id (%u) ip/mask %08x/%u \n", a[1], key.second,
                     key.first));
    return 1;
}

void lookup_exact(plain_model &m, const argument_list &a, model_reply &reply)
{
    const plain_leaf *leaf = plain_exact(m.trees.at(a[0]), a[1], a[2]);
    reply.result = leaf == nullptr ? 1 : 0;
    reply.refs = {leaf == nullptr ? a[3] : leaf->adjacency >> 16 & 0x1FFF};
    if (leaf == nullptr) // the root's address, which the model does not know, is written as 0
        model_error(m, a[0], text("\nRequested route %x/%x not found at root 0x0 in table.\n", a[1], a[2]));
}

const std::map<std::string, model_procedure> &procedures()
{
    static const std::map<std::string, model_procedure> all = {
        {"arp_prefix_mgr_add_route",
         {6,
          {5},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_arp_add(m, {low(a[0]), a[5], a[1], a[2], low(a[4]), low(a[3]), RIB_F_ARP_INSTALLED});
          }}},
        {"arp_prefix_mgr_remove_route",
         {7,
          {6},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_arp_remove(m, {low(a[0]), a[6], a[1], a[2], low(a[5]), low(a[4]), RIB_F_ARP_INSTALLED});
          }}},
        {"rib_max_ecmp_route",
         {4, {0, 1}, [](plain_model &m, const argument_list &a, model_reply &r) { r.result = set_is_full(m, a); }}},
        {"rib_add_route",
         {5,
          {0, 1},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_static_add(m, {a[0], a[1], key_of(a[2], a[3]), a[4]});
          }}},
        {"rib_remove_route",
         {5,
          {0, 1},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_static_remove(m, a[0], a[2], model_mask_len(a[3]), a[4]);
          }}},
        {"slowpath_route_lookup",
         {3,
          {0},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.refs = {a[2]};
              r.result = model_lookup(m, a[0], a[1], r.refs[0]);
          }}},
        {"show_rib_print",
         {5, {0}, [](plain_model &m, const argument_list &a, model_reply &r) { list_page(m, a, r, false); }}},
        {"show_rib_summary",
         {2, {0}, [](plain_model &m, const argument_list &a, model_reply &r) { summary(m, a, r, false); }}},
        {"show_fib_print",
         {5, {0}, [](plain_model &m, const argument_list &a, model_reply &r) { list_page(m, a, r, true); }}},
        {"show_fib_summary",
         {2, {0}, [](plain_model &m, const argument_list &a, model_reply &r) { summary(m, a, r, true); }}},
        {"mtrie_lookup_exact_stub", {4, {0}, lookup_exact}},
        {"rib_add_nat_pool",
         {5,
          {0},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_nat_add(m, a[0], low(a[1]), a[2], a[3], low(a[4]));
          }}},
        {"rib_remove_nat_pool",
         {5,
          {0},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.result = model_nat_remove(m, a[0], a[2], a[3], low(a[4]));
          }}},
        {"mtrie_hw_dump_api",
         {4,
          {1},
          [](plain_model &m, const argument_list &a, model_reply &r) {
              r.blocks = {{}};
              if (model_alloc(m))
                  r.blocks = {model_dump(m, low(a[0]), a[1], a[2])};
          }}},
        {"norvik_send_route_advert",
         {6, {5}, [](plain_model &m, const argument_list &a, model_reply &r) { r.result = model_advert(m, a); }}},
    };
    return all;
}

} // namespace

model_reply plain_model::call(const std::string &name, const std::vector<std::uint32_t> &args)
{
    const auto it = procedures().find(name);
    if (it == procedures().end())
        return {1, 0, {}, {}};
    const model_procedure &served = it->second;
    if (args.size() != served.arguments)
        return {2, 0, {}, {}};
    for (const std::size_t context : served.contexts)
        if (args[context] > 255)
            return {3, 0, {}, {}};
    model_reply reply;
    served.run(*this, args, reply);
    return reply;
}
} // namespace harness
