// proof_card.cpp - replaying the journal of a change, store by store, over each copy.
#include "proof_card.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "ixp_lookup.h"
#include "norvik_mtrie_hw.h"
#include "norvik_mtrie_leaf.h"
#include "prefix_mgr.h"

namespace harness
{
namespace
{
constexpr std::uint32_t HASHES[] = {0, 1, 2, 3, 4, 5, 6, 7, 839}; // every path of every count

std::uint32_t mask_of(std::uint32_t len) { return len == 0 ? 0 : 0xFFFFFFFFu << (32 - len); }

std::string told(unsigned copy, std::size_t store, const walk_key &key, const walk_answer &answer, const char *how)
{
    char text[160];
    std::snprintf(text, sizeof text, "%s: copy %u, store %zu, tree %u, address %08x: %s %08x", how, copy, store,
                  key.tree, key.address,
                  answer.miss  ? "a miss"
                  : answer.own ? "leaf word"
                               : "path",
                  answer.word);
    return text;
}

void note(proof_finding &found, unsigned &counter, const std::string &text)
{
    ++counter;
    if (found.first.empty())
        found.first = text;
}

// One address of one copy on its way through a window.
struct watched {
    explorer readers;
    walk_answers legal;                                        // of every table at rest so far
    std::set<std::uint32_t> leaves;                            // that answered in one of them
    walk_answers behind;                                       // what these have held since
    std::vector<std::pair<walk_answer, std::size_t>> answered; // by lookups between stores, with the store's number
};

void look_up(const table_copy &copy, watched &address, std::size_t store)
{
    constexpr std::size_t COUNT = std::size(HASHES);
    std::uint32_t addresses[COUNT], words[COUNT], paths[COUNT];
    std::fill_n(addresses, COUNT, address.readers.key.address);
    ixp_forward({copy.words.data(), copy.base}, IXP_SCALAR, address.readers.key.tree,
                {addresses, HASHES, words, paths, COUNT});
    for (std::size_t i = 0; i < COUNT; ++i) {
        walker end;
        end.stage = words[i] == IXP_MISS ? WALK_MISS : WALK_DONE;
        end.own = words[i];
        end.path = static_cast<std::uint8_t>(paths[i]);
        const walk_answer answer = walk_answer_of(end);
        if (!address.legal.contains(answer))
            address.answered.emplace_back(answer, store);
    }
}

void add_rest(const table_copy &copy, watched &address)
{
    address.legal.merge(walk_at_rest(copy, address.readers.key));
    if (const std::uint32_t leaf = walk_leaf_at_rest(copy, address.readers.key); leaf != 0)
        address.leaves.insert(leaf);
    for (const std::uint32_t leaf : address.leaves)
        walk_add_leaf(copy, leaf, address.behind);
}

unsigned &counter_of(proof_finding &found, const walk_answer &answer, const watched &address)
{
    if (answer.miss)
        return found.folded;
    if (walk_is_legal(answer, address.behind))
        return found.left_behind;
    return !answer.own && answer.word == 0 ? found.came_back : found.unnamed;
}

void judge_address(unsigned copy, const watched &address, proof_finding &found)
{
    const walk_key &key = address.readers.key;
    for (const auto &[answer, store] : address.answered)
        if (!walk_is_legal(answer, address.legal))
            note(found, found.after_stores, told(copy, store, key, answer, "after a store"));
    for (const walk_answer &answer : address.readers.answers)
        if (!walk_is_legal(answer, address.legal))
            note(found, counter_of(found, answer, address), told(copy, 0, key, answer, "in some order"));
}
} // namespace

proof_card::proof_card()
{
    if (card.start_tables() != 0)
        std::abort();
    card.open_all_history(false);
    settle();
}

void proof_card::settle()
{
    for (unsigned copy = 0; copy < PROOF_COPIES; ++copy) {
        copies[copy].base = copy == 0 ? card.wired_phys_base : HW_IXP_BASE;
        copies[copy].words.resize(HW_TABLE_BYTES / 4);
        for (std::uint32_t i = 0; i < HW_TABLE_BYTES / 4; ++i)
            copies[copy].words[i] = *card_at<std::uint32_t>(card.memory(copy) + 4 * i);
    }
    card.forget();
}

std::array<std::vector<copy_store>, PROOF_COPIES> proof_card::journal_of(const std::function<void()> &change)
{
    card.forget();
    card.journal_on = true;
    change();
    card.journal_on = false;
    std::array<std::vector<copy_store>, PROOF_COPIES> split;
    std::array<card_addr, PROOF_COPIES> start;
    for (unsigned copy = 0; copy < PROOF_COPIES; ++copy)
        start[copy] = card.memory(copy);
    for (const fake_store &store : card.journal)
        for (unsigned copy = 0; copy < PROOF_COPIES; ++copy)
            if (store.address - start[copy] < HW_TABLE_BYTES)
                split[copy].push_back({(store.address - start[copy]) / 4, store.value});
    return split;
}

proof_finding proof_card::judge(std::uint32_t tree, const std::vector<std::uint32_t> &addresses,
                                const std::vector<std::function<void()>> &changes)
{
    std::array<std::vector<watched>, PROOF_COPIES> all;
    for (unsigned copy = 0; copy < PROOF_COPIES; ++copy)
        for (const std::uint32_t address : addresses) {
            all[copy].push_back({explore_begin(copies[copy], {tree, address}), {}, {}, {}, {}});
            add_rest(copies[copy], all[copy].back());
        }
    for (const auto &change : changes) {
        const auto journal = journal_of(change);
        for (unsigned copy = 0; copy < PROOF_COPIES; ++copy) {
            std::size_t number = 0;
            for (const copy_store &store : journal[copy]) {
                copies[copy].words[store.index] = store.value;
                ++number;
                for (watched &address : all[copy]) {
                    explore_store(address.readers, copies[copy], store.index);
                    look_up(copies[copy], address, number);
                }
            }
            stores += number;
            for (watched &address : all[copy])
                add_rest(copies[copy], address);
        }
    }
    proof_finding found;
    for (unsigned copy = 0; copy < PROOF_COPIES; ++copy)
        for (const watched &address : all[copy]) {
            states += address.readers.states.size();
            judge_address(copy, address, found);
        }
    return found;
}

void add_boundaries(std::vector<std::uint32_t> &addresses, std::uint32_t prefix, std::uint32_t len)
{
    const std::uint32_t first = prefix & mask_of(len), last = first | ~mask_of(len);
    addresses.insert(addresses.end(), {first, last, first - 1, last + 1, first + (last - first) / 2});
}

namespace
{
void collect(const mtrie_node *node, std::set<const mtrie_leaf *> &leaves)
{
    for (const std::uint32_t word : node->children)
        if (mtrie_is_child(word))
            collect(mtrie_child_of(word), leaves);
        else if (word != 0)
            leaves.insert(mtrie_leaf_of(word));
}
} // namespace

std::vector<std::uint32_t> tree_boundaries(std::uint32_t tree)
{
    std::set<const mtrie_leaf *> leaves;
    collect(mtrie_get_root_node(tree), leaves);
    std::vector<std::uint32_t> addresses;
    for (const mtrie_leaf *leaf : leaves)
        add_boundaries(addresses, leaf->prefix, static_cast<std::uint32_t>(__builtin_popcount(leaf->mask)));
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    return addresses;
}

namespace
{
route_entry entry_of(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, proof_path path, unsigned flags)
{
    route_entry entry{};
    entry.prefix = prefix;
    entry.len = len;
    entry.ctx = entry.route_id = static_cast<std::uint16_t>(tree);
    entry.ifid = static_cast<std::uint16_t>(path.ifid);
    entry.encap_id = path.encap;
    entry.flags = static_cast<std::uint16_t>(flags);
    return entry;
}
} // namespace

std::uint32_t proof_add(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, proof_path path, unsigned flags)
{
    const route_entry entry = entry_of(tree, prefix, len, path, flags);
    return prefix_mgr_route_add(wired_table_mgr, &entry);
}

std::uint32_t proof_remove(std::uint32_t tree, std::uint32_t prefix, std::uint32_t len, proof_path path)
{
    const route_entry entry = entry_of(tree, prefix, len, path, 0);
    return prefix_mgr_route_remove(wired_table_mgr, &entry);
}

std::uint32_t proof_default(std::uint32_t tree, proof_path path, unsigned flags)
{
    return mtrie_set_default_leaf_stub(tree, 0, 0, path.encap, path.ifid, flags, 1);
}

std::uint32_t proof_default_reset(std::uint32_t tree, proof_path path)
{
    return mtrie_set_default_leaf_stub(tree, 0, 0, path.encap, path.ifid, 0, 0);
}
} // namespace harness
