// lines_bench.cpp - what a line costs: a closed gate, a record of the event history, a line on standard output.
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "bench.h"
#include "bench_card.h"
#include "line_format.h"
#include "route_log.h"

namespace
{
constexpr unsigned LINES = 200000;

// The seven arguments change, so that no line is the one before it.
#define FORMAT "call ARP_RESOLUTION for ifid =%d, ctxid=%d, ip=%d.%d.%d.%d sense = %d \n"
#define SEVEN(i)                                                                                                       \
    static_cast<int>((i)&4095), 3, 10, static_cast<int>((i) >> 16 & 255), static_cast<int>((i) >> 8 & 255),            \
        static_cast<int>((i)&255), 1

template <class Line> double per_line(Line line)
{
    bench_card_drop_output();
    return bench_time(bench_clock::cpu,
                      [&] {
                          for (unsigned i = 0; i < LINES; ++i)
                              line(i);
                          std::fflush(stdout);
                      }) /
           LINES;
}

constexpr unsigned GATES = 4;
void closed_gates(unsigned i)
{
    route_log(ROUTE_DBG_INFO, 3, FORMAT, SEVEN(i));
    route_log(ROUTE_DBG_WARNING, 3, FORMAT, SEVEN(i));
    route_log(ROUTE_DBG_MTS, 3, FORMAT, SEVEN(i));
    route_log(ROUTE_DBG_MAIN_LOOP, 3, FORMAT, SEVEN(i));
}
void history_record(unsigned i) { route_log(ROUTE_DBG_EVENTS, 3, FORMAT, SEVEN(i)); }
void printed_line(unsigned i) { line_print<FORMAT>(SEVEN(i)); }
void library_line(unsigned i) { (void)std::printf(FORMAT, SEVEN(i)); }

void clock_alone(unsigned)
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    asm volatile("" ::"r"(now.tv_nsec));
}

// The text by the library, into the same record.
void library_record(unsigned i)
{
    struct {
        std::uint32_t category;
        char text[512];
    } record = {ROUTE_DBG_EVENTS, {}};
    const int prefix = std::snprintf(record.text, sizeof record.text, "<Ctx:%d>", 3);
    const auto used = static_cast<std::size_t>(prefix);
    (void)std::snprintf(record.text + used, sizeof record.text - used, FORMAT, SEVEN(i));
    (void)sdwrap_hist_event(ROUTE_HIST_EVENT, std::strlen(record.text) + 5, &record);
}

std::string file_text(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

void check()
{
    char text[512];
    (void)std::snprintf(text, sizeof text, FORMAT, SEVEN(0x123456u));
    bench_card_drop_output();
    printed_line(0x123456);
    std::fflush(stdout);
    bench_require(file_text(bench_card_file("stdout")) == text, "the printed line");
    history_record(0x123456);
    const std::string ring = file_text(bench_card_file("history/115"));
    bench_require(ring.find(std::string("<Ctx:3>") + text) != std::string::npos, "the history record");
}
} // namespace

int main(int argc, char **argv)
{
    const bench_options options = bench_start(argc, argv);
    bench_card_start();
    check();
    const std::vector<double> m =
        bench_rounds(options, 15,
                     {[] { return per_line(closed_gates) / GATES; }, [] { return per_line(history_record); },
                      [] { return per_line(library_record); }, [] { return per_line(printed_line); },
                      [] { return per_line(library_line); }, [] { return per_line(clock_alone); }});
    bench_print(
        options, "The fixed lines, seven arguments each",
        {{"closed gates (history and debug)", "ns", m[0], "", {}, "", 1, false, "the loop around four of them with it"},
         {"history record", "ns", m[1], "the library's formatter", m[2], "", 70, false,
          std::to_string(static_cast<int>(m[5] + 0.5)) + " ns of it the clock"},
         {"line to standard output, a file", "ns", m[3], "std::printf", m[4], "", 100, false,
          "with the write of each full buffer"}});
    return 0;
}
