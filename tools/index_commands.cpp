// "where" and "indexed": where a share's index lives, and whether a share or
// a path is among the indexed folders.
#include <stdio.h>

#include <string>

#include "cli.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace zarncli {

namespace {

// Room for the longest path plus the index's names inside "@eaDir".
constexpr int kPathBuffer = 8192;

typedef int (*PathGetter)(const char *, char *, int);

// One path of the share; false after reporting why there is none.
bool SharePath(const Args &args, PathGetter get, const char *what, std::string *path) {
    char buffer[kPathBuffer] = {0};
    const int length = get(args.words[0].c_str(), buffer, sizeof buffer);
    if (length < 0) {
        Failure(args, std::string("no ") + what + " for share '" + args.words[0] +
                          "': the share could not be looked up (platform error " +
                          std::to_string(KOREErrGet()) + ")");
        return false;
    }
    // The library cuts what does not fit, which would name another place.
    if (length >= kPathBuffer - 1) {
        Failure(args, std::string("the ") + what + " of share '" + args.words[0] +
                          "' is too long");
        return false;
    }
    *path = buffer;
    return true;
}

int RunWhere(const Args &args) {
    char index_id[kPathBuffer] = {0};
    if (FILEIDXGetIndexID(args.words[0].c_str(), index_id, sizeof index_id) <= 0)
        return Failure(args, "no index identifier for share '" + args.words[0] + "'");
    std::string database, queue;
    if (!SharePath(args, FILEIDXDBPathGet, "index database", &database) ||
        !SharePath(args, FILEIDXQueuePathGet, "index queue", &queue))
        return kExitFailure;
    printf("index id:  %s\ndatabase:  %s\nqueue:     %s\n", Printable(index_id).c_str(),
           Printable(database).c_str(), Printable(queue).c_str());
    return kExitOk;
}

struct Check {
    const char *kind;
    int (*cached)(const char *, int);  // the Ex form
    int (*fresh)(const char *);        // re-reads the folder list
};

const Check kChecks[] = {
    {"share", FILEIDXIsShareIndexedEx, FILEIDXIsShareIndexed},
    {"path", FILEIDXIsPathIndexedEx, FILEIDXIsPathIndexed},
    {"full-path", FILEIDXIsFullPathIndexedEx, FILEIDXIsFullPathIndexed},
    {"contains", FILEIDXIsPathContainIndexedEx, FILEIDXIsPathContainIndexed},
};

int RunIndexed(const Args &args) {
    for (const Check &check : kChecks) {
        if (args.words[0] != check.kind) continue;
        const char *subject = args.words[1].c_str();
        const int yes = args.Has("cached") ? check.cached(subject, 0) : check.fresh(subject);
        printf("%s\n", yes == 1 ? "yes" : "no");
        return yes == 1 ? kExitOk : kExitNo;
    }
    return UsageError(args, "unknown kind '" + args.words[0] +
                                "': use share, path, full-path or contains");
}

}  // namespace

const Command kWhereCommand = {
    "where",
    "show a share's index identifier, database and queue paths",
    "Usage: zarnsearch where SHARE\n"
    "\n"
    "Prints the index identifier of SHARE, its index database directory and\n"
    "its index queue.  Like every program that asks the library for the\n"
    "database path, this creates the share's \"@eaDir\" and database directories\n"
    "when they are missing.\n"
    "\n"
    "Options:\n"
    "  -v, --verbose     also print the library's log lines on stderr\n",
    {},
    1,
    1,
    RunWhere,
};

const Command kIndexedCommand = {
    "indexed",
    "check whether a share or a path is indexed",
    "Usage: zarnsearch indexed share NAME [--cached]\n"
    "       zarnsearch indexed path PATH [--cached]\n"
    "       zarnsearch indexed full-path PATH [--cached]\n"
    "       zarnsearch indexed contains PATH [--cached]\n"
    "\n"
    "Answers yes (exit status 0) or no (exit status 1):\n"
    "  share NAME        some indexed folder lies in share NAME\n"
    "  path PATH         PATH (\"/share/sub/path\") is an indexed folder or lies\n"
    "                    inside one\n"
    "  full-path PATH    the same for an absolute file-system path\n"
    "  contains PATH     an indexed folder is PATH or lies below it\n"
    "A failure (no folder list, an unknown share) answers no as well.\n"
    "\n"
    "Options:\n"
    "  --cached          do not force a reload: the library keeps the folder\n"
    "                    list it has read and may answer from share locations\n"
    "                    it has cached (each run starts with empty caches)\n"
    "  -v, --verbose     also print the library's log lines on stderr\n",
    {{"cached", false, false}},
    2,
    2,
    RunIndexed,
};

}  // namespace zarncli
