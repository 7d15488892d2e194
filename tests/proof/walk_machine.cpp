// walk_machine.cpp - the steps of the walk. No code is shared with the lookups that it judges.
#include "walk_machine.h"

#include <algorithm>

namespace harness
{
namespace
{
constexpr std::uint32_t LAST_INDEX = HW_TABLE_BYTES / 4 - 1;
constexpr unsigned LEVELS = 4;

std::uint32_t inside(std::uint32_t index) { return std::min(index, LAST_INDEX); }
std::uint32_t index_named(std::uint32_t base, std::uint32_t word) { return ((word & ~3u) - base) / 4; }

walker done(std::uint32_t word, std::uint8_t path)
{
    walker end;
    end.stage = WALK_DONE;
    end.walks = 0;
    end.own = word;
    end.path = path;
    return end;
}

// The walk has come to nothing: once more, or a miss.
walker again(const walk_key &key, const walker &at)
{
    walker next = walk_start(key);
    next.walks = static_cast<std::uint8_t>(at.walks - 1);
    if (next.walks == 0)
        next.stage = WALK_MISS;
    return next;
}

walker after_slot(const walk_key &key, std::uint32_t base, const walker &at, std::uint32_t word)
{
    if (word == 0 || ((word & HW_NODE_TAG) != 0 && at.level == LEVELS))
        return again(key, at);
    walker next = at;
    next.index = inside(index_named(base, word));
    next.stage = WALK_LEAF;
    next.level = 0;
    if ((word & HW_NODE_TAG) != 0) {
        const unsigned shift = 24u - 8u * at.level;
        next.index = inside(index_named(base, word) + (key.address >> shift & 0xFF));
        next.stage = WALK_SLOT;
        next.level = static_cast<std::uint8_t>(at.level + 1);
    }
    return next;
}

walker after_leaf(const walker &at, std::uint32_t word)
{
    if ((word & ADJ_ECMP) == 0)
        return done(word, 0);
    walker next = at;
    next.stage = WALK_POINTER;
    next.walks = 0; // there is no way back: states that differ in it alone are one
    next.own = word;
    next.index = inside(at.index + 1);
    return next;
}

walker after_pointer(std::uint32_t base, const walker &at, std::uint32_t word)
{
    if (word == 0)
        return done(at.own, 0);
    walker next = at;
    next.stage = WALK_HEADER;
    next.index = next.block = inside(index_named(base, word));
    return next;
}

void after_header(const walker &at, std::uint32_t word, std::vector<walker> &next)
{
    next.push_back(done(at.own, 0)); // an invalid header, or the hash of path 0
    if ((word & ECMP_VALID) == 0)
        return;
    for (std::uint8_t path = 1; path <= ecmp_count(word); ++path) {
        walker chosen = at;
        chosen.stage = WALK_ENTRY;
        chosen.header = word;
        chosen.path = path;
        chosen.index = inside(at.block + path);
        next.push_back(chosen);
    }
}

walker after_entry(const walker &at, std::uint32_t word)
{
    walker next = at;
    next.stage = WALK_AGAIN;
    next.entry = word;
    next.index = at.block;
    return next;
}
} // namespace

walker walk_start(const walk_key &key)
{
    walker start;
    start.index = key.tree;
    return start;
}

void walk_step(const walk_key &key, std::uint32_t base, const walker &at, std::uint32_t word, std::vector<walker> &next)
{
    switch (at.stage) {
    case WALK_ROOT:
    case WALK_SLOT:
        return next.push_back(after_slot(key, base, at, word));
    case WALK_LEAF:
        return next.push_back(after_leaf(at, word));
    case WALK_POINTER:
        return next.push_back(after_pointer(base, at, word));
    case WALK_HEADER:
        return after_header(at, word, next);
    case WALK_ENTRY:
        return next.push_back(after_entry(at, word));
    case WALK_AGAIN:
        return next.push_back(word == at.header ? done(at.entry, at.path) : done(at.own, 0));
    default:
        return;
    }
}

walk_answer walk_answer_of(const walker &ended)
{
    if (ended.stage == WALK_MISS)
        return {true, false, 0};
    if (ended.path == 0)
        return {false, true, ended.own & ~ADJ_ECMP};
    return {false, false, (ecmp_entry_ifid(ended.own) & ADJ_IFID_MASK) << ADJ_IFID_SHIFT | adj_encap(ended.own)};
}

bool walk_is_legal(const walk_answer &answer, const walk_answers &legal)
{
    if (answer.miss || answer.own)
        return legal.contains(answer);
    return std::any_of(legal.begin(), legal.end(), [&answer](const walk_answer &one) {
        return !one.miss && (one.word & ~(ADJ_IP_RESOLVE | ADJ_NAT)) == answer.word;
    });
}

walk_answers walk_at_rest(const table_copy &copy, const walk_key &key)
{
    walk_answers answers;
    std::vector<walker> open{walk_start(key)};
    while (!open.empty()) {
        const walker at = open.back();
        open.pop_back();
        if (at.ended())
            answers.insert(walk_answer_of(at));
        else
            walk_step(key, copy.base, at, copy.words[at.index], open);
    }
    return answers;
}

std::uint32_t walk_leaf_at_rest(const table_copy &copy, const walk_key &key)
{
    walker at = walk_start(key);
    for (std::vector<walker> next; at.stage < WALK_LEAF; at = next.back())
        walk_step(key, copy.base, at, copy.words[at.index], next);
    return at.stage == WALK_LEAF ? at.index : 0;
}

void walk_add_leaf(const table_copy &copy, std::uint32_t leaf, walk_answers &answers)
{
    const std::uint32_t pointer = copy.words[leaf + 1];
    answers.insert(walk_answer_of(done(copy.words[leaf], 0)));
    if (pointer == 0)
        return;
    const std::uint32_t block = index_named(copy.base, pointer);
    const std::uint32_t header = copy.words[block];
    for (std::uint8_t path = 1; (header & ECMP_VALID) != 0 && path <= ecmp_count(header); ++path)
        answers.insert(walk_answer_of(done(copy.words[block + path], path)));
}
} // namespace harness
