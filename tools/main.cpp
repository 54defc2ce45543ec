// zarnsearch: searches the content-search index and answers questions about
// where indexes live, from the command line, through the public library API.
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <exception>
#include <string>

#include "cli.h"

namespace {

using namespace zarncli;

const Command *const kCommands[] = {&kSearchCommand, &kCountCommand, &kDocCommand,
                                    &kWhereCommand, &kIndexedCommand};

const Command *FindCommand(const char *name) {
    for (const Command *command : kCommands)
        if (strcmp(command->name, name) == 0) return command;
    return nullptr;
}

void PrintOverview(FILE *out) {
    fprintf(out,
            "Usage: zarnsearch [-v|--verbose] COMMAND [ARGUMENTS] [OPTIONS]\n"
            "       zarnsearch COMMAND --help\n"
            "       zarnsearch --version\n"
            "\n"
            "Searches shares through the local search daemon and tells where their\n"
            "indexes live.\n"
            "\n"
            "Commands:\n");
    for (const Command *command : kCommands)
        fprintf(out, "  %-9s %s\n", command->name, command->summary);
    fprintf(out,
            "\n"
            "  -v, --verbose  also print the library's log lines on stderr\n"
            "\n%s",
            kExitCodeHelp);
}

int Run(int argc, char **argv) {
    // --verbose may also come before the command.
    bool verbose = false;
    while (argc > 1 && (strcmp(argv[1], "-v") == 0 || strcmp(argv[1], "--verbose") == 0)) {
        verbose = true;
        --argc, ++argv;
    }
    if (argc < 2) {
        PrintOverview(stderr);
        return kExitUsage;
    }
    const std::string first = argv[1];
    if (first == "--version") {
        printf("zarnsearch %s\n", ZARN_VERSION);
        return kExitOk;
    }
    if (first == "--help" || first == "-h" || first == "help") {
        const Command *command = argc > 2 ? FindCommand(argv[2]) : nullptr;
        if (command == nullptr) {
            PrintOverview(stdout);
        } else {
            printf("%s\n%s", command->help, kExitCodeHelp);
        }
        return kExitOk;
    }
    Args args;
    const Command *command = FindCommand(argv[1]);
    if (command == nullptr) return UsageError(args, "unknown command '" + first + "'");
    std::string error;
    if (!ParseArgs(*command, argc - 2, argv + 2, &args, &error)) return UsageError(args, error);
    if (args.help) {
        printf("%s\n%s", command->help, kExitCodeHelp);
        return kExitOk;
    }
    // The library reports why it failed only to syslog; show it here too.
    if (verbose || args.verbose) openlog("zarnsearch", LOG_PERROR, LOG_USER);
    return command->run(args);
}

}  // namespace

int main(int argc, char **argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception &error) {
        fprintf(stderr, "zarnsearch: %s\n", error.what());
        return kExitFailure;
    }
}
