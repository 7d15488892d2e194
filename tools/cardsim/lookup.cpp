// lookup.cpp - reads every copy of the tables as the processors do, and judges what it finds.
//
// Elsewhere: the walk (card_view/hw_walk.cpp), the expectations as they are written (scenario.cpp).

#include "lookup.h"

#include <algorithm>

#include <fmt/format.h>

#include "card_dir.h"
#include "card_view/hw_walk.h"
#include "card_view/table_view.h"

namespace
{
bool has_path(const hw_walk &walk, const expected_path &path)
{
    return std::any_of(walk.paths.begin(), walk.paths.end(),
                       [&path](const hw_path &p) { return p.ifid == path.ifid && p.encap == path.encap; });
}

bool is_right(const scenario_step &step, const hw_walk &walk)
{
    if (!walk.fault.empty())
        return false;
    const bool is_miss = !walk.has_leaf || hw_walk_is_blank(walk);
    if (step.is_miss || is_miss)
        return step.is_miss && is_miss;
    if (step.nat)
        return walk.nat && walk.paths.size() == 1 && walk.paths[0].encap == *step.nat;
    if (step.resolve_ifid)
        return walk.ip_resolve && walk.paths.size() == 1 && walk.paths[0].ifid == *step.resolve_ifid;
    // Without a number of paths, those that are named have to be all.
    const std::size_t count = step.path_count ? *step.path_count : step.paths.size();
    return !walk.nat && walk.paths.size() == count &&
           std::all_of(step.paths.begin(), step.paths.end(),
                       [&walk](const expected_path &path) { return has_path(walk, path); });
}

std::string walk_text(const hw_walk &walk)
{
    if (!walk.fault.empty())
        return walk.fault;
    if (!walk.has_leaf || hw_walk_is_blank(walk))
        return "miss";
    std::string text = walk.nat ? "nat" : "";
    for (const hw_path &path : walk.paths) {
        const char *const between = text.empty() ? "" : walk.nat ? " " : " and ";
        text += fmt::format("{}interface {} encap 0x{:04x}", between, path.ifid.value_or(0), path.encap);
    }
    return text + (walk.ip_resolve ? " resolve" : "");
}
} // namespace

bool lookup_check(const scenario_step &step, std::string *seen)
{
    const card_conf &conf = card_conf_get();
    bool right = true;
    for (unsigned copy = 0; copy <= conf.num_ixp; ++copy) {
        std::string why;
        const table_view view = table_open(card_dir_path(), static_cast<table_copy>(copy), conf, &why);
        std::string text = why;
        if (view.is_open()) {
            const hw_walk walk = hw_walk_direct(view, step.ctx, step.address);
            right = right && is_right(step, walk);
            text = walk_text(walk);
        } else {
            right = false;
        }
        *seen += fmt::format("    {:5}  {}\n", TABLE_COPY_NAMES[copy], text);
    }
    return right;
}
