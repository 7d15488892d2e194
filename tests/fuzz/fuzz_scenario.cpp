// fuzz_scenario.cpp - scenario files, as a person may have written them.
//
// An input is the text of one file or of several, a NUL between them. A file that is refused leaves everything as it
// was and is named with its line; of one that is taken every number is within its range.
#include <algorithm>
#include <cstdint>
#include <string>

#include "card_tool/address_text.h"
#include "fuzz_input.h"
#include "scenario.h"

namespace
{
constexpr std::uint64_t DAY_MS = 86'400'000;

void check_step(const scenario_step &s)
{
    const bool in_range = s.ifid <= SCENARIO_MAX_IFID && s.bvi <= SCENARIO_MAX_IFID && s.ctx <= SCENARIO_MAX_CTX &&
                          s.encap <= 0x7FFF && s.ixp <= 0xFFFF && s.metric <= 0xFFFE && s.mac >> 48 == 0;
    if (!in_range || !address_is_mask(s.mask) || s.at_ms > DAY_MS || s.delay_ms > DAY_MS ||
        s.vlan.value_or(1) - 1 > 4093)
        fuzz_fail("a number out of its range was taken");
    if (s.kind == STEP_SHOW && s.text.empty())
        fuzz_fail("a command of no words");
    for (const expected_path &path : s.paths)
        if (path.ifid > SCENARIO_MAX_IFID || path.encap > 0xFFFF)
            fuzz_fail("a path out of its range was taken");
    if ((s.kind == STEP_ROUTE_ADD || s.kind == STEP_ROUTE_DEL) && (s.address & ~s.mask) != 0)
        fuzz_fail("a prefix with host bits");
}

// Reads one file behind what stands.
void read_file(scenario &all, const std::string &text)
{
    const std::size_t before = all.steps.size(), interfaces = all.interfaces.size();
    std::string error;
    if (scenario_parse("f.card", text, &all, &error) != 0) {
        if (!error.starts_with("f.card:") || error.find('\n') != std::string::npos)
            fuzz_fail("an error that does not say where, or in more than a line");
        if (all.steps.size() != before || all.interfaces.size() != interfaces)
            fuzz_fail("something of a file that was refused");
        return;
    }
    if (!error.empty())
        fuzz_fail("an error of a file that was taken");
    for (std::size_t i = before; i < all.steps.size(); ++i) {
        check_step(all.steps[i]);
        if (i > 0 && all.steps[i].at_ms < all.steps[i - 1].at_ms)
            fuzz_fail("time goes back");
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    scenario all;
    const std::string texts(reinterpret_cast<const char *>(data), size);
    for (std::size_t at = 0; at <= texts.size();) {
        const std::size_t end = std::min(texts.find('\0', at), texts.size());
        read_file(all, texts.substr(at, end - at));
        at = end + 1;
    }
    return 0;
}
