// doctor_history.h - what the event history tells of this life of the route manager, and whether it can tell anything.
#pragma once

#include <cstdint>

#include "doctor_finding.h"
#include "doctor_look.h"

// since_ns: what is older is passed over (nanoseconds since 1970), and so is what an earlier life of the route manager
// wrote.
void doctor_judge_history(const routectl_call &call, const doctor_look &look, std::uint64_t since_ns,
                          doctor_findings &findings);
