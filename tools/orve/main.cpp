// orve: a command-line host of libsemantic_vector_indexing, built on its public C API only.
#include <cerrno>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"
#include "semantic_vector_indexing.h"
#include "outputs.h"
#include "tool_error.h"

namespace {

using namespace orve::tool;

struct command_entry {
    const command_def& (*def)();
    int (*run)(const parsed_args&);
};

const command_entry kCommands[] = {
    {demo_def, run_demo},       {build_def, run_build}, {query_def, run_query},
    {inspect_def, run_inspect}, {tune_def, run_tune},
};

void print_overview(FILE* out) {
    std::fprintf(out,
                 "usage: orve COMMAND [OPTIONS]\n\n"
                 "A command-line host of the semantic vector indexing library: it ingests "
                 "512-dimension\nfloat32 embeddings, builds and writes the library's indexes, "
                 "and answers queries.\n\ncommands:\n");
    for (const command_entry& c : kCommands) {
        std::fprintf(out, "  %-9s %s\n", c.def().name.c_str(), c.def().summary.c_str());
    }
    std::fprintf(
        out,
        "\nRun 'orve COMMAND --help' for the options of one command, 'orve --version' for the\n"
        "version. Progress goes to "
        "standard\nerror when it is a terminal; --quiet silences it and warnings.\n");
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        print_overview(stderr);
        return 2;
    }
    if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        print_overview(stdout);
        return 0;
    }
    if (args[0] == "--version") {
        std::printf("orve %s\n", ORVE_VERSION_STRING);
        return 0;
    }
    const command_entry* chosen = nullptr;
    for (const command_entry& c : kCommands) {
        if (c.def().name == args[0]) chosen = &c;
    }
    if (!chosen) {
        std::fprintf(stderr, "orve: unknown command '%s' (see orve --help)\n", args[0].c_str());
        return 2;
    }
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (wants_help(rest)) {
        std::fputs(format_help(chosen->def()).c_str(), stdout);
        return 0;
    }
    install_cleanup_on_signals();
    try {
        const int rc = chosen->run(parse_args(chosen->def(), rest));
        // Results that never reached standard output (a full disk, a closed pipe) are a
        // failure, not a silent success.
        if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
            throw tool_error("standard output: " + errno_text(errno));
        }
        return rc;
    } catch (const usage_error& e) {
        std::fprintf(stderr, "orve %s: %s (see orve %s --help)\n", chosen->def().name.c_str(),
                     e.what(), chosen->def().name.c_str());
        return 2;
    } catch (const tool_error& e) {
        std::fprintf(stderr, "orve: %s\n", e.what());
        return 1;
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "orve: out of memory\n");
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orve: %s\n", e.what());
        return 1;
    }
}
