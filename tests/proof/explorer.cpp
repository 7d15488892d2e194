// explorer.cpp - closing a set of reader states under the loads that a table allows.
#include "explorer.h"

namespace harness
{
namespace
{
// Adds states and everything that follows from them while nothing is stored.
void close_over(explorer &all, const table_copy &copy, std::vector<walker> open)
{
    while (!open.empty()) {
        const walker at = open.back();
        open.pop_back();
        if (!all.states.insert(at).second)
            continue;
        if (at.ended()) {
            all.answers.insert(walk_answer_of(at));
            continue;
        }
        all.waiting[at.index].push_back(at);
        walk_step(all.key, copy.base, at, copy.words[at.index], open);
    }
}
} // namespace

explorer explore_begin(const table_copy &copy, const walk_key &key)
{
    explorer all{key, {}, {}, {}};
    close_over(all, copy, {walk_start(key)});
    return all;
}

void explore_store(explorer &all, const table_copy &copy, std::uint32_t index)
{
    const auto it = all.waiting.find(index);
    if (it == all.waiting.end())
        return;
    std::vector<walker> next;
    for (const walker &at : it->second)
        walk_step(all.key, copy.base, at, copy.words[index], next);
    close_over(all, copy, std::move(next));
}
} // namespace harness
