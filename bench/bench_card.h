// bench_card.h - the route manager inside the benchmark's own process, on a card directory of its own.
#pragma once

#include <cstdint>
#include <string>

// Makes the card directory, takes standard output to a file in it (bench_report goes on to the real one), and does what
// the process does at its start, up to the trees and their first routes, with the gates as they then are. Interface 5
// is up, routes by itself and has the address 10.1.0.1 in context 0. Ends the program with status 1 when a step fails.
// The directory is removed at exit.
void bench_card_start();

std::string bench_card_file(const char *name); // path of a file in the card directory
void bench_card_drop_output();                 // empties the file of standard output
std::uint64_t bench_card_output_lines();       // its lines

// The event history's gate of a category, as the debug service switches it.
void bench_card_history(std::uint32_t category, bool open);
