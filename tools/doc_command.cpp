// "doc": typed metadata fields of one indexed document.
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>

#include <algorithm>
#include <charconv>
#include <vector>

#include <json/json.h>

#include "cli.h"
#include "zarncontentsearchutils.h"

namespace zarncli {

namespace {

const char *TypeName(ZARNQueryDocumentFieldType type) {
    switch (type) {
        case DOCUMENT_FIELD_TYPE_INT: return "int";
        case DOCUMENT_FIELD_TYPE_DOUBLE: return "double";
        case DOCUMENT_FIELD_TYPE_BOOL: return "bool";
        case DOCUMENT_FIELD_TYPE_STRING: return "string";
    }
    return "-";
}

std::string TextOf(const ZARNQueryDocumentFieldValue &value) {
    switch (value.type) {
        case DOCUMENT_FIELD_TYPE_INT: return std::to_string(value.value.int_value);
        case DOCUMENT_FIELD_TYPE_DOUBLE: {
            char text[32];
            const auto end = std::to_chars(text, text + sizeof text, value.value.double_value);
            return std::string(text, end.ptr);
        }
        case DOCUMENT_FIELD_TYPE_BOOL: return value.value.bool_value ? "true" : "false";
        case DOCUMENT_FIELD_TYPE_STRING: return Printable(value.value.string_value);
    }
    return "(no value)";
}

Json::Value JsonOf(const ZARNQueryDocumentFieldValue &value) {
    switch (value.type) {
        case DOCUMENT_FIELD_TYPE_INT: return Json::Value((Json::Int64)value.value.int_value);
        case DOCUMENT_FIELD_TYPE_DOUBLE: return Json::Value(value.value.double_value);
        case DOCUMENT_FIELD_TYPE_BOOL: return Json::Value(value.value.bool_value);
        case DOCUMENT_FIELD_TYPE_STRING: return Json::Value(ValidUtf8(value.value.string_value));
    }
    return Json::Value(Json::nullValue);
}

int RunDoc(const Args &args) {
    const std::string &share = args.words[0];
    long doc_id = 0;
    if (!ParseNumber(args.words[1], INT_MIN, INT_MAX, &doc_id))
        return UsageError(args, "DOC_ID must be a whole number, not '" + args.words[1] + "'");
    std::vector<const char *> names;
    for (size_t i = 2; i < args.words.size(); ++i) names.push_back(args.words[i].c_str());
    std::vector<ZARNQueryDocumentFieldValue> values(names.size());

    const int code = ZARNQueryDocumentFieldGet(share.c_str(), (int)doc_id, names.data(),
                                               (int)names.size(), values.data());
    if (code != ZARN_OK) return LibraryFailure(args, "reading the document", code);

    if (args.Has("json")) {
        Json::Value fields(Json::objectValue);
        for (size_t i = 0; i < names.size(); ++i) fields[ValidUtf8(names[i])] = JsonOf(values[i]);
        printf("%s\n", JsonText(fields).c_str());
        return kExitOk;
    }
    size_t name_width = TextWidth("FIELD"), type_width = TextWidth("TYPE");
    std::vector<std::string> printable_names;
    for (size_t i = 0; i < names.size(); ++i) {
        printable_names.push_back(Printable(names[i]));
        name_width = std::max(name_width, TextWidth(printable_names.back()));
        type_width = std::max(type_width, TextWidth(TypeName(values[i].type)));
    }
    auto print_row = [&](const std::string &name, const std::string &type,
                         const std::string &value) {
        printf("%s  %s  %s\n", Pad(name, name_width).c_str(), Pad(type, type_width).c_str(),
               value.c_str());
    };
    print_row("FIELD", "TYPE", "VALUE");
    for (size_t i = 0; i < names.size(); ++i)
        print_row(printable_names[i], TypeName(values[i].type), TextOf(values[i]));
    return kExitOk;
}

}  // namespace

const Command kDocCommand = {
    "doc",
    "show metadata fields of one indexed document",
    "Usage: zarnsearch doc SHARE DOC_ID FIELD... [--json]\n"
    "\n"
    "Reads the named metadata fields (for example ZARNMDTitle, ZARNMDFSSize) of\n"
    "document DOC_ID, the document id that 'search' shows, in the index of\n"
    "SHARE, and prints each with its type: int, double, bool or string.  A\n"
    "field the library does not know, one the document lacks and one stored\n"
    "with another type all show as \"(no value)\" (null with --json).\n"
    "\n"
    "Options:\n"
    "  --json            one JSON object mapping each field to its value\n"
    "  -v, --verbose     also print the library's log lines on stderr (they\n"
    "                    tell the reason a field has no value)\n",
    {{"json", false, false}},
    3,
    (size_t)INT_MAX,
    RunDoc,
};

}  // namespace zarncli
