// doc_tables.h - the tables of a page of docs/, each by the heading above it.
#pragma once

#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

struct doc_table {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows; // as many cells as columns

    // The cells of a column, from the top.
    std::vector<std::string> column(const std::string &name) const
    {
        std::vector<std::string> cells;
        for (std::size_t i = 0; i < columns.size(); ++i)
            for (const std::vector<std::string> &row : rows)
                if (columns[i] == name)
                    cells.push_back(row[i]);
        EXPECT_FALSE(cells.empty()) << "no column " << name;
        return cells;
    }
};

struct doc_page {
    std::string text;
    std::map<std::string, doc_table> tables;
};

inline std::vector<std::string> doc_cells(const std::string &line)
{
    std::vector<std::string> cells;
    for (std::size_t at = 1, bar = 0; (bar = line.find('|', at)) != std::string::npos; at = bar + 1) {
        const std::size_t first = line.find_first_not_of(' ', at), last = line.find_last_not_of(' ', bar - 1);
        cells.push_back(first >= bar ? "" : line.substr(first, last + 1 - first));
    }
    return cells;
}

inline doc_page doc_read(const std::string &path)
{
    doc_page page;
    std::ifstream file(path);
    EXPECT_TRUE(file.is_open()) << path;
    std::string heading;
    for (std::string line; std::getline(file, line); page.text += line + "\n") {
        if (line.rfind("#", 0) == 0)
            heading = line.substr(line.find(' ') + 1);
        if (line.rfind("|", 0) != 0)
            continue;
        doc_table &table = page.tables[heading];
        const std::vector<std::string> cells = doc_cells(line);
        if (table.columns.empty()) {
            table.columns = cells;
            continue;
        }
        EXPECT_EQ(cells.size(), table.columns.size()) << heading << ": " << line; // also a second table there
        if (line.rfind("|-", 0) != 0)
            table.rows.push_back(cells);
    }
    return page;
}

// The number, decimal or 0x hexadecimal, that a cell begins with.
inline std::uint64_t doc_number(const std::string &cell)
{
    char *end = nullptr;
    const std::uint64_t number = std::strtoull(cell.c_str(), &end, 0);
    EXPECT_NE(end, cell.c_str()) << "no number: " << cell;
    return number;
}

inline std::vector<std::uint64_t> doc_numbers(const std::vector<std::string> &cells)
{
    std::vector<std::uint64_t> numbers;
    for (const std::string &cell : cells)
        numbers.push_back(doc_number(cell));
    return numbers;
}
