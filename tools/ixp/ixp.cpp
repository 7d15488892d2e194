// ixp.cpp - an emulated network processor: looks destinations up in one route-table memory of a card.
//
// It knows the table's format and nothing else of the route manager: it maps the memory read-only and reads it as the
// processor would, in that copy's own address form, while the daemon goes on changing it.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <utility>

#include "card_dir.h"
#include "card_files.h"
#include "card_tool/tool_app.h"
#include "ixp_tool.h"
#include "route_table.h"

namespace
{
constexpr std::chrono::seconds ASK_AGAIN(1); // a provider that gave nothing

// Where the memory is, and who has it.
ixp_memory memory_of(const ixp_options &options)
{
    ixp_memory memory;
    const bool wired = options.memory.size() >= 5 && options.memory.ends_with("wired");
    memory.table.base = options.base.value_or(wired ? HW_WIRED_BASE_DEFAULT : HW_IXP_BASE);
    memory.path = options.memory;
    if (options.memory.find('/') != std::string::npos)
        return memory;
    const char *const set = std::getenv(CARD_DIR_VARIABLE);
    const std::string card = set == nullptr ? CARD_DIR_DEFAULT : set;
    memory.path = card + "/mem/" + options.memory;
    const card_conf conf = card_conf_read(card + "/" + CARD_CONF_FILE);
    memory.timeout_ms = conf.rpc_timeout_ms;
    for (std::size_t i = 0; i < std::size(IXP_FILES); ++i)
        if (conf.ixp_is_provided[i] && memory.path == card + "/" + IXP_FILES[i])
            memory.source = memory_source::provider;
    return memory;
}

// Maps it. Returns whether that is done, else why not.
bool memory_open(ixp_memory &memory, std::string *why)
{
    mapped_file file = mapped_memory_open(memory.path, memory.source, memory.timeout_ms, why);
    if (!file.is_open()) {
        memory.refused = std::chrono::steady_clock::now();
        return false;
    }
    memory.file = std::move(file);
    memory.table.words = static_cast<const std::uint32_t *>(memory.file.bytes);
    return true;
}

using mode = int (*)(const ixp_options &, ixp_memory &, ixp_implementation);

int run(const ixp_options &options, mode chosen)
{
    const ixp_implementation implementation = ixp_chosen_implementation(options);
    if (implementation == IXP_IMPLEMENTATIONS) {
        std::fprintf(stderr, "ixp: %s: no such implementation on this machine\n", options.implementation.c_str());
        return TOOL_USAGE;
    }
    std::string why;
    ixp_memory memory = memory_of(options);
    if (!memory_open(memory, &why)) {
        std::fprintf(stderr, "ixp: %s\n", why.c_str());
        return TOOL_USAGE;
    }
    return chosen(options, memory, implementation);
}

void shared_options(CLI::App &app, ixp_options &options)
{
    app.add_option("-m,--memory", options.memory, "ixp1, ixp2 or wired of $CARD_DIR, or a file (with a slash)")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_option("--base", options.base, "address of the table as its reader sees it (wired: 0x08000000)")
        ->type_name("ADDR");
    app.add_option("-t,--tree", options.tree, "route id, 0 to 255")
        ->type_name("ID")
        ->check(CLI::Range(0, 255).description(""))
        ->capture_default_str();
    app.add_option("--implementation", options.implementation, "auto, scalar, batch or avx2")
        ->type_name("NAME")
        ->capture_default_str();
    app.add_flag("-j,--json", options.json, "JSON instead of text");
}
} // namespace

ixp_implementation ixp_chosen_implementation(const ixp_options &options)
{
    if (options.implementation == "auto")
        return ixp_best_implementation();
    for (unsigned i = 0; i < IXP_IMPLEMENTATIONS; ++i)
        if (const auto implementation = static_cast<ixp_implementation>(i);
            options.implementation == ixp_implementation_name(implementation) &&
            ixp_implementation_runs(implementation))
            return implementation;
    return IXP_IMPLEMENTATIONS;
}

void ixp_memory_follow(ixp_memory &memory)
{
    if (memory.source == memory_source::file || mapped_file_is_current(memory.file, memory.path))
        return;
    if (std::chrono::steady_clock::now() - memory.refused < ASK_AGAIN)
        return;
    std::string why; // not said: what is mapped stays as it is
    (void)memory_open(memory, &why);
}

namespace
{
// Takes the command line and runs the mode that it names. Returns the program's status.
int parse_and_run(int argc, char **argv)
{
    const CLI::Range SECONDS(0.001, 1e6);
    ixp_options options;
    mode chosen = nullptr;
    CLI::App app{"An emulated network processor: looks destinations up in a card's route-table memory.", "ixp"};
    app.require_subcommand(1);
    app.fallthrough();
    shared_options(app, options);
    CLI::App *lookup = app.add_subcommand("lookup", "look addresses up once; status 1 when one is a miss");
    lookup->add_option("address", options.addresses, "IPv4 addresses")->required();
    lookup->callback([&] { chosen = ixp_mode_lookup; });
    CLI::App *follow = app.add_subcommand("follow", "print the answers of addresses as they change");
    follow->add_option("address", options.addresses, "IPv4 addresses")->required();
    follow->add_option("--seconds", options.seconds, "stop after these")->check(SECONDS);
    follow->add_option("--every-ms", options.every_ms, "pause between passes")->capture_default_str();
    follow->callback([&] { chosen = ixp_mode_follow; });
    CLI::App *run_mode = app.add_subcommand("run", "look up without pause and say how fast");
    run_mode->add_option("--addresses", options.source, "random, zipf or a file")->capture_default_str();
    run_mode->add_option("--seconds", options.seconds, "how long (5)")->check(SECONDS);
    run_mode->add_option("--seed", options.seed, "of random and zipf")->capture_default_str();
    run_mode->callback([&] { chosen = ixp_mode_run; });
    if (const auto status = tool_app_parse(app, argc, argv))
        return *status;
    return run(options, chosen);
}
} // namespace

int main(int argc, char **argv)
{
    try {
        return parse_and_run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "ixp: %s\n", error.what());
        return TOOL_USAGE;
    }
}
