// tool_app.cpp - the version, and the end of a run whose options are help, version or wrong.
//
// The version is the project's, given by the build. Always: no exception of the option parser leaves this file.
#include "tool_app.h"

#include <cstdio>

std::string tool_version(const std::string &name) { return name + " " CARD_TOOL_VERSION; }

std::optional<int> tool_app_parse(CLI::App &app, int argc, char **argv)
{
    app.set_version_flag("-V,--version", tool_version(app.get_name()), "Print the version and exit");
    app.failure_message([](const CLI::App *failed, const CLI::Error &error) {
        return failed->get_name() + ": " + error.what() + " (" + failed->get_name() + " --help explains)\n";
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : TOOL_USAGE;
    }
    return std::nullopt;
}
