#include "hit_output.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <json/json.h>

#include "cli.h"

namespace zarncli {

namespace {

const char kBold[] = "\033[1m";
const char kPlain[] = "\033[0m";

// The daemon escapes the fragment's text as HTML so that its marks stand
// out; these are the escapes of HTML text.
const struct {
    const char *escape;
    char plain;
} kEscapes[] = {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'},
                {"&quot;", '"'}, {"&#39;", '\''}, {"&#x27;", '\''}};

}  // namespace

std::string RenderHighlight(const std::string &fragment, bool terminal) {
    const std::string text = ValidUtf8(fragment);
    std::string out;
    bool bold = false;
    for (size_t i = 0; i < text.size();) {
        if (text.compare(i, 4, "<em>") == 0) {
            if (terminal) out += kBold;
            bold = true;
            i += 4;
            continue;
        }
        if (text.compare(i, 5, "</em>") == 0) {
            if (terminal) out += kPlain;
            bold = false;
            i += 5;
            continue;
        }
        const char c = text[i];
        if (c == '\n' || c == '\r' || c == '\t' || c == ' ') {
            // A fragment is one line: line breaks and runs of blanks become one blank.
            if (!out.empty() && out.back() != ' ') out += ' ';
            ++i;
            continue;
        }
        if (c == '&') {
            bool decoded = false;
            for (const auto &entry : kEscapes) {
                const size_t length = strlen(entry.escape);
                if (text.compare(i, length, entry.escape) == 0) {
                    out += entry.plain;
                    i += length;
                    decoded = true;
                    break;
                }
            }
            if (decoded) continue;
        }
        out += ((unsigned char)c < 0x20 || c == 0x7f) ? '?' : c;
        ++i;
    }
    // A fragment cut inside a mark must not leave the terminal bold.
    if (terminal && bold) out += kPlain;
    return out;
}

void HitPrinter::Total(int total) {
    total_known_ = true;
    total_ = total;
    if (json_) {
        Json::Value line(Json::objectValue);
        line["total"] = total;
        printf("%s\n", JsonText(line).c_str());
    }
}

void HitPrinter::Add(const _tag_search_record &record) {
    ++count_;
    if (json_) {
        PrintJson(record);
        return;
    }
    Row row;
    row.doc_id = std::to_string(record.doc_id);
    row.type = record.is_dir ? "dir" : record.extension[0] ? Printable(record.extension) : "file";
    row.name = Printable(record.fs_name);
    row.path = Printable(record.path);
    row.has_highlight = record.highlight != nullptr;
    if (record.highlight) row.highlight = RenderHighlight(record.highlight, terminal_);
    rows_.push_back(std::move(row));
}

void HitPrinter::PrintJson(const _tag_search_record &record) const {
    Json::Value line(Json::objectValue);
    line["path"] = ValidUtf8(record.path);
    line["fs_name"] = ValidUtf8(record.fs_name);
    line["extension"] = ValidUtf8(record.extension);
    line["is_dir"] = record.is_dir != 0;
    line["doc_id"] = record.doc_id;
    line["highlight"] = record.highlight ? Json::Value(ValidUtf8(record.highlight))
                                         : Json::Value(Json::nullValue);
    printf("%s\n", JsonText(line).c_str());
}

void HitPrinter::Finish() {
    if (json_) {
        fflush(stdout);
        return;
    }
    if (total_known_)
        printf("total: %d, shown: %zu\n", total_, count_);
    else
        printf("shown: %zu\n", count_);
    if (rows_.empty()) return;

    Row heading = {"DOC ID", "TYPE", "NAME", "PATH", "", false};
    size_t id_width = TextWidth(heading.doc_id), type_width = TextWidth(heading.type),
           name_width = TextWidth(heading.name);
    for (const Row &row : rows_) {
        id_width = std::max(id_width, TextWidth(row.doc_id));
        type_width = std::max(type_width, TextWidth(row.type));
        name_width = std::max(name_width, TextWidth(row.name));
    }
    auto print_row = [&](const Row &row) {
        printf("%s  %s  %s  %s\n", Pad(row.doc_id, id_width, true).c_str(),
               Pad(row.type, type_width, false).c_str(),
               Pad(row.name, name_width, false).c_str(), row.path.c_str());
        if (row.has_highlight && !row.highlight.empty())
            printf("%*s%s\n", (int)id_width + 2, "", row.highlight.c_str());
    };
    print_row(heading);
    for (const Row &row : rows_) print_row(row);
    fflush(stdout);
}

}  // namespace zarncli
