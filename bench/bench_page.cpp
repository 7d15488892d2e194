// bench_page.cpp - puts the tables of a run into a page: `bench_page PAGE < OBJECTS`, the objects those of --json.
//
// A table stands between a line "<!-- bench: SUBJECT -->" and the next "<!-- end -->"; nothing else is touched. The
// page is written only when all objects have found their place.
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "bench_table.h"

namespace
{
void put_table(std::string &page, const nlohmann::json &object)
{
    const std::string subject = object.at("subject"), begin = "<!-- bench: " + subject + " -->\n";
    const std::size_t at = page.find(begin), from = at + begin.size();
    const std::size_t to = at == std::string::npos ? at : page.find("<!-- end -->\n", from);
    if (to == std::string::npos)
        throw std::runtime_error("no place for the table of \"" + subject + "\"");
    page.replace(from, to - from, "\n" + bench_table(object) + "\n");
}

void update(const char *path)
{
    std::ifstream in(path);
    std::string page{std::istreambuf_iterator<char>(in), {}};
    if (!in || page.empty())
        throw std::runtime_error("no such page");
    for (std::string line; std::getline(std::cin, line);)
        put_table(page, nlohmann::json::parse(line));
    std::ofstream out(path);
    if (!(out << page << std::flush))
        throw std::runtime_error("cannot be written");
}
} // namespace

int main(int argc, char **argv)
{
    if (argc != 2) {
        (void)std::fprintf(stderr, "usage: bench_page PAGE < OBJECTS\n");
        return 2;
    }
    try {
        update(argv[1]);
        return 0;
    } catch (const std::exception &wrong) {
        (void)std::fprintf(stderr, "bench_page: %s: %s\n", argv[1], wrong.what());
        return 1;
    }
}
