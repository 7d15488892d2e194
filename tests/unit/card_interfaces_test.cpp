// card_interfaces_test.cpp - docs/card-interfaces.md against the numbers that the programs are built with.
//
// A table that is new in the page belongs into the list of the first test, and into one that judges it. What only a
// real platform knows is judged with it: counters in host_debug_test.cpp, names of opcodes in host_mts_test.cpp.
#include <algorithm>
#include <regex>

#include <gtest/gtest.h>

#include "card_dir.h"
#include "card_files.h"
#include "debug_service.h"
#include "doc_tables.h"
#include "fake_card.h"
#include "history_file.h"
#include "interface_db.h"
#include "interface_events.h"
#include "memory_provider.h"
#include "mts_datagram.h"
#include "rib_static.h"
#include "route_entry.h"
#include "route_ids.h"
#include "route_listing.h"
#include "route_rpc_client.h"
#include "route_rpc_serv.h"
#include "route_table.h"
#include "rpc_record.h"
#include "supervisor_advert.h"

using namespace harness;

namespace
{
using numbers = std::vector<std::uint64_t>;
using strings = std::vector<std::string>;

const doc_page &page()
{
    static const doc_page read = doc_read(DOCS_DIR "/card-interfaces.md");
    return read;
}

const doc_table &table(const std::string &heading)
{
    static const doc_table none;
    const auto found = page().tables.find(heading);
    EXPECT_NE(found, page().tables.end()) << "no table under " << heading;
    return found == page().tables.end() ? none : found->second;
}

numbers column(const std::string &heading, const std::string &name) { return doc_numbers(table(heading).column(name)); }

// The record's fields begin at `places` and end at `end`. Without `lengths` they touch, and a last one of no length
// stands for all that follows; with them, some bytes have no name.
void expect_record(const std::string &heading, const numbers &places, std::uint64_t end, numbers lengths = {})
{
    EXPECT_EQ(column(heading, "byte"), places) << heading;
    const bool touch = lengths.empty();
    for (std::size_t i = 0; touch && i < places.size(); ++i)
        lengths.push_back((i + 1 < places.size() ? places[i + 1] : end) - places[i]);
    strings cells = table(heading).column("bytes");
    if (touch && cells.back().empty())
        cells.back() = "0";
    EXPECT_EQ(doc_numbers(cells), lengths) << heading;
    EXPECT_LE(places.back() + lengths.back(), end) << heading;
}

// What a field of the table begins with.
std::uint64_t value_of(const std::string &heading, std::size_t row)
{
    return doc_number(table(heading).column("field").at(row));
}

void expect_text(const std::string &text) { EXPECT_NE(page().text.find(text), std::string::npos) << text; }

// The words in code type of a cell.
strings code_words(const std::string &cell)
{
    static const std::regex WORD("`([^`]*)`");
    strings words;
    for (std::sregex_iterator at(cell.begin(), cell.end(), WORD), end; at != end; ++at)
        words.push_back((*at)[1]);
    return words;
}

// The highest and the lowest bit of a cell like "30..28" as a mask.
std::uint32_t bits_of(const std::string &cell)
{
    const std::uint64_t high = doc_number(cell);
    const std::size_t dots = cell.find("..");
    const std::uint64_t low = dots == std::string::npos ? high : doc_number(cell.substr(dots + 2));
    return static_cast<std::uint32_t>((std::uint64_t{2} << high) - (std::uint64_t{1} << low));
}

std::vector<std::uint32_t> bit_column(const std::string &heading)
{
    std::vector<std::uint32_t> masks;
    for (const std::string &cell : table(heading).column("bits"))
        masks.push_back(bits_of(cell));
    return masks;
}

std::string hex(std::uint64_t number)
{
    char text[32];
    std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(number));
    return text;
}
} // namespace

TEST(card_interfaces, every_table_of_the_page_is_judged)
{
    strings headings;
    for (const auto &[heading, judged] : page().tables)
        headings.push_back(heading);
    EXPECT_EQ(headings, (strings{"Adjacency word",
                                 "Call",
                                 "Categories",
                                 "Counters",
                                 "Counts of show_fib_summary",
                                 "Counts of show_rib_summary",
                                 "Data of the route manager",
                                 "Database header",
                                 "Debug request",
                                 "ECMP entry",
                                 "ECMP header",
                                 "History header",
                                 "History record",
                                 "Interface change",
                                 "Interface flags",
                                 "Interface record",
                                 "Interface routes",
                                 "Interface state",
                                 "Memories",
                                 "Memory answer",
                                 "Memory request",
                                 "Message",
                                 "Numbers",
                                 "Opcodes",
                                 "Paths",
                                 "Procedures of the route manager",
                                 "Procedures that it calls",
                                 "Reply",
                                 "Route advertisement",
                                 "Route flags",
                                 "Route record",
                                 "Settings",
                                 "Status",
                                 "Table",
                                 "Type codes",
                                 "Value",
                                 "Verbs"}));
}

TEST(card_interfaces, names_in_the_card_directory)
{
    strings expected = {CARD_CONF_FILE, IFDB_FILE, WIRED_FILE, IXP_FILES[0], IXP_FILES[1]};
    expected.push_back(std::string("mem/<memory>") + PROVIDER_SUFFIX);
    expected.push_back(std::string(MTS_FOLDER) + "/<sap>");
    expected.push_back(std::string(RPC_FOLDER) + "/<endpoint>");
    expected.push_back(std::string(RPC_NAMES_FOLDER) + "/<procedure>");
    expected.push_back(std::string(HISTORY_FOLDER) + "/<component>");
    expected.push_back(std::string(HISTORY_FOLDER) + "/<component>" + HISTORY_ERRORS_SUFFIX);
    expected.push_back(SUPERVISOR_SOCKET);
    strings paths;
    for (const std::string &cell : table("Paths").column("path"))
        for (const std::string &path : code_words(cell))
            paths.push_back(path);
    EXPECT_EQ(paths, expected);
    expect_text("`$" + std::string(CARD_DIR_VARIABLE) + "`, or `" + CARD_DIR_DEFAULT +
                "` without it; its path has at most " + std::to_string(CARD_DIR_PATH_MAX) + " bytes");
    expect_text("lock file `P" + std::string(LOCK_SUFFIX) + "`");
    EXPECT_EQ(column("Numbers", "number"),
              (numbers{ROUTE_MGR_SAP, MTS_FIRST_SERVICE_SAP, MTS_FIRST_TOOL_SAP, ROUTE_RPC_ENDPOINT,
                       TNRPC_FIRST_SERVICE_ENDPOINT, ROUTE_HIST_ID, ROUTE_CONTEXTS}));
}

TEST(card_interfaces, settings_have_their_defaults)
{
    const card_conf conf;
    const std::map<std::string, std::uint64_t> numbers_of = {{"`slot`", conf.slot},
                                                             {"`num_ixp`", conf.num_ixp},
                                                             {"`wired_phys_base`", conf.wired_phys_base},
                                                             {"`supervisor_address`", conf.supervisor_address},
                                                             {"`rpc_timeout_ms`", conf.rpc_timeout_ms}};
    strings words;
    std::size_t judged = 0;
    for (const std::vector<std::string> &row : table("Settings").rows) {
        if (numbers_of.count(row[0]) == 0) {
            words.push_back(row[0] + " " + row[1]);
            continue;
        }
        EXPECT_EQ(doc_number(row[1]), numbers_of.at(row[0])) << row[0];
        ++judged;
    }
    EXPECT_EQ(judged, numbers_of.size());
    EXPECT_EQ(words, (strings{"`ixp1` `file`", "`ixp2` `file`", "`route_cache` `none`"}));
    EXPECT_FALSE(conf.ixp_is_provided[0] || conf.ixp_is_provided[1]);
    EXPECT_FALSE(conf.route_cache_kernel);
    expect_text("at most " + hex(0x100000000 - HW_WIRED_BYTES));
}

TEST(card_interfaces, records_of_remote_calls)
{
    expect_record("Call", {0, 4, 8, 10, TNRPC_CALL_HEAD}, TNRPC_CALL_HEAD);
    EXPECT_EQ(value_of("Call", 0), TNRPC_CALL_MAGIC);
    expect_text("length of the name, 1 to " + std::to_string(TNRPC_MAX_NAME));
    expect_text("at most " + std::to_string(TNRPC_CALL_BYTES) + " bytes");
    expect_record("Reply", {0, 4, 8, 12, TNRPC_REPLY_HEAD}, TNRPC_REPLY_HEAD);
    EXPECT_EQ(value_of("Reply", 0), TNRPC_REPLY_MAGIC);
    expect_record("Value", {0, 2, 4, TNRPC_VALUE_HEAD}, TNRPC_VALUE_HEAD);
    EXPECT_EQ(column("Type codes", "code"),
              (numbers{RPC_ARG_SMALL, RPC_ARG_U16, RPC_ARG_U32, RPC_ARG_REF, RPC_ARG_BLOCK}));
    for (const std::vector<std::string> &row : table("Type codes").rows)
        for (std::uint32_t length = 0; length < 9; ++length)
            EXPECT_EQ(tnrpc_is_call_length(static_cast<unsigned>(doc_number(row[0])), length),
                      (" " + row[1] + " ").find(" " + std::to_string(length) + " ") != std::string::npos)
                << "code " << row[0] << ", length " << length;
    EXPECT_EQ(column("Status", "status"),
              (numbers{TNRPC_RAN, TNRPC_NO_PROCEDURE, TNRPC_BAD_ARGUMENTS, TNRPC_OUT_OF_RANGE}));
}

TEST(card_interfaces, procedures_that_the_route_manager_serves)
{
    fake_card card;
    (void)norvik_route_tnrpc_serv();
    EXPECT_EQ(table("Procedures of the route manager").rows.size(), card.procedures.size());
    for (const std::vector<std::string> &row : table("Procedures of the route manager").rows) {
        const std::string name = code_words(row[0]).at(0);
        ASSERT_EQ(card.procedures.count(name), 1u) << name;
        const fake_procedure &served = card.procedures[name];
        std::vector<unsigned> types;
        std::map<unsigned, std::uint32_t> limits;
        static const std::regex ARGUMENT("`([0-9]+)` ([^,]*)");
        for (std::sregex_iterator at(row[1].begin(), row[1].end(), ARGUMENT), end; at != end; ++at) {
            const std::string what = (*at)[2];
            if (what == "context" || what == "route id" || what == "root index")
                limits[static_cast<unsigned>(types.size())] = ROUTE_CONTEXTS - 1;
            types.push_back(static_cast<unsigned>(doc_number((*at)[1])));
        }
        EXPECT_EQ(types, served.types) << name;
        EXPECT_EQ(limits, served.limits) << name;
    }
}

TEST(card_interfaces, procedures_that_the_route_manager_calls)
{
    fake_card card;
    ASSERT_EQ(card.start(), 0);
    card.forget();
    ASSERT_EQ(rib_add_route(3, 3, IP(10, 0, 0, 0), 0xFF000000, IP(10, 1, 1, 1)), 0u);
    (void)slowpath_valid_mac(5);
    const auto &rows = table("Procedures that it calls").rows;
    ASSERT_EQ(card.calls.size(), rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        std::string expected = "tnrpc_call " + code_words(rows[i][0]).at(0);
        for (const std::string &code : code_words(rows[i][2]))
            expected += " " + code;
        const std::string codes = std::regex_replace(card.calls[i], std::regex(":[^ ]*"), "");
        EXPECT_EQ(codes, expected);
    }
}

TEST(card_interfaces, listings_and_summaries)
{
    expect_record("Route record",
                  {ROUTE_AT_PREFIX, ROUTE_AT_LEN, ROUTE_AT_NEXTHOP, ROUTE_AT_ROUTE_ID, ROUTE_AT_IFID, ROUTE_AT_FLAGS,
                   ROUTE_AT_ENCAP},
                  ROUTE_RECORD_BYTES);
    expect_text("an array of these, " + std::to_string(ROUTE_PAGE_RECORDS) + " at most");
    expect_text("position " + hex(ROUTE_WALK_DONE) + " is the end");
    EXPECT_EQ(column("Route flags", "bit"),
              (numbers{RIB_F_ARP_HOST, RIB_F_ARP_INSTALLED, RIB_F_GATEWAY, RIB_F_IN_MTRIE, RIB_F_INTERFACE,
                       RIB_F_CONNECTED, RIB_F_ECMP, RIB_F_NAT, RIB_F_MCAST_DROP, RIB_F_NAT_IN_MTRIE}));
    expect_record("Counts of show_rib_summary",
                  {RIB_SUMMARY_AT_CONNECTED, RIB_SUMMARY_AT_STATICS, RIB_SUMMARY_AT_ENTRY_BYTES}, RIB_SUMMARY_BYTES,
                  {4, 4, 2});
    expect_text("### Counts of show_rib_summary\n\n" + std::to_string(RIB_SUMMARY_BYTES) + " bytes.");
    expect_record("Counts of show_fib_summary",
                  {FIB_SUMMARY_AT_NODES, FIB_SUMMARY_AT_LEAVES, FIB_SUMMARY_AT_BLOCKS, FIB_SUMMARY_AT_ROUTES,
                   FIB_SUMMARY_AT_NODE_BYTES, FIB_SUMMARY_AT_LEAF_BYTES, FIB_SUMMARY_AT_BLOCK_BYTES},
                  FIB_SUMMARY_BYTES, {4, 4, 4, 4, 2, 2, 2});
    expect_text("### Counts of show_fib_summary\n\n" + std::to_string(FIB_SUMMARY_BYTES) + " bytes.");
    expect_text("The lines of `mtrie_hw_dump_api` are " + std::to_string(HW_DUMP_LINE_BYTES) + " bytes each");
}

TEST(card_interfaces, messages_and_their_payloads)
{
    expect_record("Message", {MTS_AT_MAGIC, MTS_AT_OPCODE, MTS_AT_NODE, MTS_AT_SAP, MTS_HEADER_BYTES},
                  MTS_HEADER_BYTES);
    EXPECT_EQ(value_of("Message", 0), MTS_MAGIC);
    expect_text("payload, at most " + std::to_string(MTS_MAX_PAYLOAD) + " bytes");
    expect_text("To node " + hex(MTS_NODE_BROADCAST) + ",");
    EXPECT_EQ(column("Opcodes", "opcode"),
              (numbers{MTS_OPC_DEBUG_REQUEST, MTS_OPC_DEBUG_ANSWER, MTS_OPC_NORVIK_IF_CREATED,
                       MTS_OPC_NORVIK_IF_DELETED, MTS_OPC_NORVIK_IF_UP, MTS_OPC_NORVIK_IF_DOWN,
                       MTS_OPC_NORVIK_ENCAP_ACQUIRE, MTS_OPC_NORVIK_ENCAP_RELEASE, MTS_OPC_NORVIK_IF_CHANGED,
                       MTS_OPC_ROUTE_IF_ADDED, MTS_OPC_ROUTE_IF_REMOVED}));
    expect_record("Interface state", {IFEV_AT_IFID, IFEV_AT_CTX, IFEV_AT_ADDR, IFEV_AT_MASK, IFEV_AT_RMODE}, IFEV_BYTES,
                  {2, 2, 4, 4, 4});
    expect_text("### Interface state\n\nAt least " + std::to_string(IFEV_BYTES) + " bytes.");
    expect_record("Interface change",
                  {IFEV_CHANGED_AT_IFID, IFEV_CHANGED_AT_CHANGE, IFEV_CHANGED_AT_OLD_ADDR, IFEV_CHANGED_AT_OLD_MASK},
                  IFEV_CHANGED_BYTES);
    expect_text("### Interface change\n\nAt least " + std::to_string(IFEV_CHANGED_BYTES) + " bytes.");
    expect_text("bit " + hex(IFEV_CHANGED_ADDRESS) + " the address");
    expect_record("Interface routes", {IFANN_AT_CTX, IFANN_AT_ADDR, IFANN_AT_MASK, IFANN_AT_IFID}, IFANN_BYTES);
    expect_text("### Interface routes\n\n" + std::to_string(IFANN_BYTES) + " bytes.");
}

TEST(card_interfaces, the_debug_service)
{
    expect_record("Debug request", {DEBUG_AT_VERB, DEBUG_AT_CATEGORY, DEBUG_AT_CONTEXT, DEBUG_AT_VALUE},
                  DEBUG_REQUEST_BYTES);
    expect_text("category; " + std::to_string(DEBUG_ALL_CATEGORIES) + " all");
    expect_text("context; " + hex(DEBUG_ALL_CONTEXTS) + " all");
    EXPECT_EQ(column("Verbs", "verb"),
              (numbers{DEBUG_SWITCH_OUTPUT, DEBUG_SWITCH_HISTORY, DEBUG_SHOW_MEMORY, DEBUG_SET_THRESHOLD,
                       DEBUG_SHOW_COUNTERS, DEBUG_SHOW_ROUTES, DEBUG_SHOW_GATES}));
    EXPECT_EQ(column("Categories", "category"),
              (numbers{ROUTE_DBG_ERRORS, ROUTE_DBG_EVENTS, ROUTE_DBG_MTS, ROUTE_DBG_LOCK, ROUTE_DBG_WARNING,
                       ROUTE_DBG_INFO, ROUTE_DBG_MAIN_LOOP, ROUTE_DBG_ADJ_EVENTS, ROUTE_DBG_ADJ_ERRORS,
                       ROUTE_DBG_ADJ_READS, ROUTE_DBG_ADJ_WRITES, ROUTE_DBG_ADJ_DETAILS}));
}

TEST(card_interfaces, the_event_history)
{
    expect_record("History header",
                  {offsetof(history_header, magic), offsetof(history_header, version),
                   offsetof(history_header, capacity), offsetof(history_header, tail), offsetof(history_header, head),
                   offsetof(history_header, zero)},
                  sizeof(history_header));
    EXPECT_EQ(value_of("History header", 0), HISTORY_MAGIC);
    EXPECT_EQ(value_of("History header", 1), HISTORY_VERSION);
    using record = history_record_header;
    expect_record("History record",
                  {offsetof(record, size), offsetof(record, event_type), offsetof(record, time_words),
                   offsetof(record, data_bytes), sizeof(record)},
                  sizeof(record));
    expect_text("with " + hex(HISTORY_ERRORS_CAPACITY) + " bytes of ring. A record of category " +
                std::to_string(HISTORY_ERRORS_CATEGORY) + " goes into it too");
    expect_text("size of the whole record, a multiple of " + std::to_string(HISTORY_ALIGN));
    expect_record("Data of the route manager", {HISTORY_AT_CATEGORY, HISTORY_AT_TEXT}, HISTORY_AT_TEXT);
    expect_text("Event type " + hex(ROUTE_HIST_EVENT) + ", at most " +
                std::to_string(HISTORY_AT_TEXT + HISTORY_TEXT_BYTES) + " bytes.");
}

TEST(card_interfaces, the_interface_database)
{
    expect_record("Database header", {0, 4, 8, 12, 16}, 4 * IFDB_HEADER_WORDS);
    for (std::size_t i = 0; i < std::size(IFDB_HEADER); ++i)
        EXPECT_EQ(value_of("Database header", i), IFDB_HEADER[i]);
    expect_text("that of interface `i` at " + std::to_string(4 * IFDB_HEADER_WORDS) + " + " +
                std::to_string(IFDB_RECORD_BYTES) + " i");
    EXPECT_EQ(column("Interface record", "word"), (numbers{IFDB_SEQUENCE, IFDB_FLAGS, IFDB_RMODE, IFDB_BVI,
                                                           IFDB_ADDRESS, IFDB_MASK, IFDB_CONTEXT, IFDB_VLAN}));
    expect_text("routing mode; " + std::to_string(IF_RMODE_ROUTED) + " routes by itself");
    EXPECT_EQ(column("Interface flags", "bit"),
              (numbers{IFDB_EXISTS, IFDB_UP, IFDB_HAS_ADDRESS, IFDB_HAS_CONTEXT, IFDB_HAS_VLAN}));
}

TEST(card_interfaces, the_memories_and_the_table_in_them)
{
    EXPECT_EQ(column("Memories", "bytes"), (numbers{HW_WIRED_BYTES, HW_TABLE_BYTES, HW_TABLE_BYTES}));
    EXPECT_EQ(table("Memories").column("base address"),
              (strings{"`wired_phys_base`", hex(HW_IXP_BASE), hex(HW_IXP_BASE)}));
    EXPECT_EQ(table("Memories").column("memory"),
              (strings{"`" + std::string(WIRED_FILE) + "`", "`" + std::string(IXP_FILES[0]) + "`",
                       "`" + std::string(IXP_FILES[1]) + "`"}));
    expect_text("the first " + hex(HW_TABLE_BYTES) + " bytes of each");
    EXPECT_EQ(column("Table", "byte"), (numbers{0, HW_NODES, HW_LEAVES, HW_ECMPS}));
    EXPECT_EQ(column("Table", "number"), (numbers{HW_ROOT_COUNT, HW_NODE_COUNT, HW_LEAF_COUNT, HW_ECMP_COUNT}));
    EXPECT_EQ(column("Table", "bytes each"), (numbers{4, HW_NODE_BYTES, HW_LEAF_BYTES, HW_ECMP_BYTES}));
    static_assert(HW_NODE_TAG == 1); // "with bit 0 set"
    using masks = std::vector<std::uint32_t>;
    EXPECT_EQ(bit_column("Adjacency word"),
              (masks{ADJ_IP_RESOLVE, ADJ_ECMP, ADJ_NAT, ADJ_IFID_MASK << ADJ_IFID_SHIFT, ADJ_ENCAP_MASK}));
    EXPECT_EQ(bit_column("ECMP header"),
              (masks{ECMP_VALID, ECMP_FIELD_MASK << ECMP_COUNT_SHIFT, ECMP_FIELD_MASK << ECMP_SEQ_SHIFT}));
    EXPECT_EQ(bit_column("ECMP entry"), (masks{ECMP_IFID_MASK << ECMP_IFID_SHIFT, ADJ_ENCAP_MASK}));
}

TEST(card_interfaces, a_memory_with_a_provider)
{
    expect_record("Memory request", {MEMQ_AT_MAGIC, MEMQ_AT_PURPOSE}, MEMQ_BYTES);
    EXPECT_EQ(value_of("Memory request", 0), MEMQ_MAGIC);
    expect_text("### Memory request\n\n" + std::to_string(MEMQ_BYTES) + " bytes.");
    expect_text("purpose: " + std::to_string(MEMORY_WRITE) + " writes it, as the route manager does; " +
                std::to_string(MEMORY_READ) + " reads it");
    expect_record("Memory answer", {MEMP_AT_MAGIC, MEMP_AT_SIZE, MEMP_AT_GENERATION}, MEMP_BYTES);
    EXPECT_EQ(value_of("Memory answer", 0), MEMP_MAGIC);
    expect_text("### Memory answer\n\n" + std::to_string(MEMP_BYTES) + " bytes.");
    expect_text("bytes of the memory, " + hex(HW_TABLE_BYTES) + " or more");
    expect_text("the route manager's own queue, `mts/" + std::to_string(ROUTE_MGR_SAP) + "`");
}

TEST(card_interfaces, the_advertisement_of_a_route)
{
    expect_record("Route advertisement",
                  {ADVERT_AT_SLOT, ADVERT_AT_SUPERVISOR, ADVERT_AT_HEADER, ADVERT_AT_OPCODE, ADVERT_AT_PREFIX,
                   ADVERT_AT_MASK, ADVERT_AT_NEXT_HOP, ADVERT_AT_VLAN, ADVERT_AT_METRIC},
                  ADVERT_BYTES, {1, 1, sizeof ADVERT_HEADER, 1, 4, 4, 4, 4, 4});
    expect_text("### Route advertisement\n\n" + std::to_string(ADVERT_BYTES) + " bytes;");
    std::string header;
    for (const std::uint8_t byte : ADVERT_HEADER) {
        char text[4];
        std::snprintf(text, sizeof text, "%s%02X", header.empty() ? "" : " ", byte);
        header += text;
    }
    const strings what = table("Route advertisement").column("field");
    EXPECT_EQ(what.at(2), header);
    EXPECT_EQ(what.at(3), hex(ADVERT_ADVERTISE) + " advertise, " + hex(ADVERT_WITHDRAW) + " withdraw");
    EXPECT_EQ(what.at(8), "metric; " + hex(ROUTE_ADVERT_WITHDRAW) + " withdraws");
}
