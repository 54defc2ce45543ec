// Splitting a command line into options and words, and strict numbers.
#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "cli.h"

namespace zarncli {

namespace {

const OptionRule *FindOption(const Command &command, const std::string &name) {
    for (const OptionRule &rule : command.options)
        if (name == rule.name) return &rule;
    return nullptr;
}

// Handles one "--name[=value]" word; may take the next word as the value.
bool ParseOption(const Command &command, const std::string &word, int argc,
                 char *const argv[], int *i, Args *args, std::string *error) {
    const size_t equals = word.find('=');
    const std::string name = word.substr(2, equals == std::string::npos ? std::string::npos
                                                                         : equals - 2);
    if (name == "help" || name == "verbose") {
        if (equals != std::string::npos) {
            *error = "option --" + name + " takes no value";
            return false;
        }
        (name == "help" ? args->help : args->verbose) = true;
        return true;
    }
    const OptionRule *rule = FindOption(command, name);
    if (rule == nullptr) {
        *error = "unknown option --" + name;
        return false;
    }
    if (!rule->repeatable && args->Has(rule->name)) {
        *error = "option --" + name + " given twice";
        return false;
    }
    std::string value;
    if (!rule->takes_value) {
        if (equals != std::string::npos) {
            *error = "option --" + name + " takes no value";
            return false;
        }
    } else if (equals != std::string::npos) {
        value = word.substr(equals + 1);
    } else if (*i + 1 < argc) {
        value = argv[++*i];
    } else {
        *error = "option --" + name + " needs a value";
        return false;
    }
    args->options[rule->name].push_back(value);
    return true;
}

}  // namespace

const std::string *Args::Value(const char *name) const {
    auto found = options.find(name);
    return found == options.end() ? nullptr : &found->second.back();
}

bool ParseArgs(const Command &command, int argc, char *const argv[], Args *args,
               std::string *error) {
    args->command = &command;
    bool options_ended = false;
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        if (options_ended) {
            args->words.push_back(word);
        } else if (word == "--") {
            options_ended = true;
        } else if (word == "-h") {
            args->help = true;
        } else if (word == "-v") {
            args->verbose = true;
        } else if (word.size() > 2 && word.compare(0, 2, "--") == 0) {
            if (!ParseOption(command, word, argc, argv, &i, args, error)) return false;
        } else if (word.size() > 1 && word[0] == '-' && !isdigit((unsigned char)word[1])) {
            // Negative numbers stay words; other dashed words are options we lack.
            *error = "unknown option " + word;
            return false;
        } else {
            args->words.push_back(word);
        }
    }
    if (args->help) return true;
    if (args->words.size() < command.min_words) {
        *error = "missing arguments";
        return false;
    }
    if (args->words.size() > command.max_words) {
        *error = "unexpected argument '" + args->words[command.max_words] + "'";
        return false;
    }
    return true;
}

bool ParseNumber(const std::string &text, long min, long max, long *out) {
    const char *begin = text.c_str();
    // strtol would skip blanks and take a '+'; a number here is digits only.
    if (!isdigit((unsigned char)begin[0]) &&
        !(begin[0] == '-' && isdigit((unsigned char)begin[1])))
        return false;
    char *end = nullptr;
    errno = 0;
    const long value = strtol(begin, &end, 10);
    if (errno != 0 || *end != '\0' || value < min || value > max) return false;
    *out = value;
    return true;
}

bool NumberOption(const Args &args, const char *name, long min, long max, long *out) {
    const std::string *text = args.Value(name);
    if (text == nullptr) return true;
    if (ParseNumber(*text, min, max, out)) return true;
    UsageError(args, "--" + std::string(name) + " needs a whole number from " +
                         std::to_string(min) + " to " + std::to_string(max) + ", not '" +
                         *text + "'");
    return false;
}

}  // namespace zarncli
