// bench_mix.cpp - the prefixes that several benchmarks use.
#include "bench_mix.h"

#include "bench.h"

std::vector<peer_route> bench_mix(std::uint32_t count)
{
    std::vector<peer_route> mix;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint32_t a = (1 + i % 20) << 24, b = i / 20 % 4 << 16, c = i / 80 % 4 << 8;
        const std::uint32_t kind = i % 50;
        if (kind < 2 && i < 1000)
            mix.push_back({(21 + i / 50 * 2 + kind) << 24, 8, i + 1});
        else if (kind < 12)
            mix.push_back({a | (i / 50 + 8) << 16, 16, i + 1});
        else if (kind < 27)
            mix.push_back({a | b | c | (1 + i / 4 % 250), 32, i + 1});
        else
            mix.push_back({a | b | (i / 20 + 4) << 8, 24, i + 1});
    }
    const auto same = [](const peer_route &x, const peer_route &y) { return x.prefix == y.prefix && x.len == y.len; };
    for (std::size_t i = 0; i < mix.size(); ++i)
        for (std::size_t j = 0; j < i; ++j)
            bench_require(!same(mix[i], mix[j]), "the prefixes differ");
    return mix;
}
