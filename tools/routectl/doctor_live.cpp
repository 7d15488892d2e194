// doctor_live.cpp - judges what the packet program does by what the kernel would do.
#include <fmt/format.h>

#include "doctor_judge.h"
#include "live_ask.h"

void doctor_judge_live(const routectl_call &call, doctor_findings &findings)
{
    live_compared compared;
    if (live_compare(call, nullptr, &compared).status != ROUTECTL_DONE)
        return;
    for (const auto &difference : compared.differences)
        findings.push_back({&DOCTOR_LIVE_DIFFERS, difference.value("context", 0), difference.value("address", ""),
                            fmt::format("the card: {}; the kernel: {}", difference.value("card", ""),
                                        difference.value("kernel", ""))});
}
