// zarnsearch: shared pieces of the command-line client (argument parsing,
// strict numbers, exit codes, error reports).  Every command sees its
// arguments already split into options and positional words.
#ifndef ZARNSEARCH_CLI_H
#define ZARNSEARCH_CLI_H

#include <stddef.h>

#include <map>
#include <string>
#include <vector>

namespace Json {
class Value;
}

namespace zarncli {

enum ExitCode {
    kExitOk = 0,       // success; for "indexed", the answer is yes
    kExitNo = 1,       // a check answered no
    kExitUsage = 2,    // bad command line
    kExitFailure = 3,  // the daemon or the library failed
};

// Common to every command's help text.
extern const char kExitCodeHelp[];

struct OptionRule {
    const char *name;  // without the leading "--"
    bool takes_value;
    bool repeatable;
};

struct Args;

struct Command {
    const char *name;
    const char *summary;  // one line for the overview
    const char *help;     // usage, description and options
    std::vector<OptionRule> options;
    size_t min_words, max_words;  // positional words accepted
    int (*run)(const Args &args);
};

struct Args {
    const Command *command = nullptr;
    std::vector<std::string> words;                           // positional
    std::map<std::string, std::vector<std::string>> options;  // name -> values
    bool help = false;
    bool verbose = false;

    bool Has(const char *name) const { return options.count(name) != 0; }
    // The option's (last) value; null when absent.
    const std::string *Value(const char *name) const;
};

// Splits argv (the words after the command name) by `command`'s option
// table.  "--name value" and "--name=value" both work; "--" ends the
// options.  --help/-h and --verbose/-v are accepted by every command.
// On a usage error returns false with the reason in *error.
bool ParseArgs(const Command &command, int argc, char *const argv[], Args *args,
               std::string *error);

// A whole decimal number in [min, max]: no blanks, no sign other than a
// leading '-', nothing after the digits.
bool ParseNumber(const std::string &text, long min, long max, long *out);

// Reads option `name` into *out (left as it is when the option is absent).
// False after reporting a usage error.
bool NumberOption(const Args &args, const char *name, long min, long max, long *out);

// Reports "zarnsearch <command>: <message>" and a pointer to the help on
// stderr; returns kExitUsage.
int UsageError(const Args &args, const std::string &message);

// Reports a failure that the library told by a result code: the code, its
// name and its meaning.  Returns kExitFailure.
int LibraryFailure(const Args &args, const std::string &what, int code);

// Reports a failure without a result code.  Returns kExitFailure.
int Failure(const Args &args, const std::string &message);

// The name ("ZARN_ERR_CONNECT") and meaning of a library result code.
const char *ResultCodeName(int code);
const char *ResultCodeMeaning(int code);

// The text with every byte that is not part of well-formed UTF-8 replaced
// by U+FFFD: the library cuts texts by bytes, which can split a character.
std::string ValidUtf8(const std::string &text);
// One line of compact JSON; texts stay readable UTF-8 (pass them through
// ValidUtf8 first).
std::string JsonText(const Json::Value &value);

// Texts for the terminal: control characters shown as '?', so that names
// coming from the index cannot steer the terminal.
std::string Printable(const std::string &text);
// The bytes of a file name as the daemon sent it (common/name_text.h), control
// characters as '?': what a table shows of a name.
std::string RealName(const std::string &text);
// Columns a UTF-8 text takes (one per character).
size_t TextWidth(const std::string &text);
// The text filled with blanks to `width` columns, on the left when `right`.
std::string Pad(const std::string &text, size_t width, bool right = false);

// The commands, grouped by the files that run them.
extern const Command kSearchCommand;
extern const Command kCountCommand;
extern const Command kDocCommand;
extern const Command kWhereCommand;
extern const Command kIndexedCommand;

}  // namespace zarncli

#endif  // ZARNSEARCH_CLI_H
