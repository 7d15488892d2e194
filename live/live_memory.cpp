// live_memory.cpp - which table who gets.
//
// The generations, which lie in the maps, say which table was handed out last, also to a provider that has just
// started.
#include "live_memory.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "route_table.h"

namespace
{
constexpr const char *MEMORY = "mem/ixp2";

constexpr live_searched searched_of(unsigned table)
{
    return table == 0 ? LIVE_SEARCHED_TABLE_0 : LIVE_SEARCHED_TABLE_1;
}

memory_handout handout_of(const live_maps &maps, unsigned table)
{
    return {live_maps_table_descriptor(maps, table), HW_TABLE_BYTES,
            static_cast<std::uint32_t>(live_maps_generation(maps, table))};
}

memory_handout for_writer(live_memory &memory)
{
    live_maps &maps = *memory.maps;
    memory.written = live_maps_searched(maps) == LIVE_SEARCHED_TABLE_0 ? 1 : 0;
    std::string why;
    if (live_maps_barrier(why) != 0) { // a packet may be under way by the table that was searched until now
        std::fprintf(stderr, "cardlive: %s\n", why.c_str());
        return {};
    }
    const std::uint64_t last = std::max(live_maps_generation(maps, 0), live_maps_generation(maps, 1));
    live_maps_set_generation(maps, memory.written, last + 1);
    return handout_of(maps, memory.written);
}

memory_handout for_reader(const live_memory &memory)
{
    const live_searched searched = live_maps_searched(*memory.maps);
    if (searched == LIVE_SEARCHED_NONE)
        return handout_of(*memory.maps, memory.written);
    return handout_of(*memory.maps, searched == LIVE_SEARCHED_TABLE_0 ? 0 : 1);
}
} // namespace

int live_memory_open(live_memory *memory, live_maps *maps)
{
    memory->maps = maps;
    memory->written = live_maps_generation(*maps, 1) > live_maps_generation(*maps, 0) ? 1 : 0;
    memory->service.for_writer = [memory] { return for_writer(*memory); };
    memory->service.for_reader = [memory] { return for_reader(*memory); };
    return memory_service_open(&memory->service, MEMORY);
}

bool live_memory_has_writer(live_memory &memory)
{
    return memory_service_has_writer(memory.service) && live_maps_generation(*memory.maps, memory.written) != 0;
}

bool live_memory_is_searched(const live_memory &memory)
{
    return live_maps_searched(*memory.maps) == searched_of(memory.written);
}

void live_memory_search(live_memory &memory)
{
    live_maps_search(*memory.maps, searched_of(memory.written));
    memory_service_end_readers(memory.service);
}
