#include "hit_output.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

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
    HitRow row;
    row.doc_id = std::to_string(record.doc_id);
    row.type = record.is_dir ? "dir" : record.extension[0] ? Printable(record.extension) : "file";
    row.name = RealName(record.fs_name);
    row.path = RealName(record.path);
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

    fputs(FormatTable(rows_, width_).c_str(), stdout);
    fflush(stdout);
}

namespace {

// Byte offsets at which the characters of a UTF-8 text start.
std::vector<size_t> CharacterStarts(const std::string &text) {
    std::vector<size_t> starts;
    for (size_t i = 0; i < text.size(); ++i)
        if (((unsigned char)text[i] & 0xC0) != 0x80) starts.push_back(i);
    return starts;
}

// Characters from the last '.' of a name, or from the last '/' of a path.
size_t TailFrom(const std::string &text, char mark) {
    const size_t at = text.rfind(mark);
    return at == std::string::npos || at == 0 ? 0 : TextWidth(text.substr(at));
}

}  // namespace

std::string CutMiddle(const std::string &text, size_t width, size_t keep_end) {
    const std::vector<size_t> starts = CharacterStarts(text);
    const size_t length = starts.size();
    if (length <= width) return text;
    if (width == 0) return std::string();
    const size_t room = width - 1;  // beside the ellipsis
    // At least half the room goes to the end, which tells paths and names
    // apart; the beginning keeps one character when it can.
    size_t tail = std::max(room - room / 2, keep_end);
    if (tail >= room) tail = room > 1 ? room - 1 : room;
    const size_t head = room - tail;
    const size_t head_end = head < length ? starts[head] : text.size();
    const size_t tail_start = tail == 0 ? text.size() : starts[length - tail];
    return text.substr(0, head_end) + "\xE2\x80\xA6" + text.substr(tail_start);  // U+2026
}

size_t TerminalWidth() {
    if (isatty(STDOUT_FILENO) != 1) return 0;
    struct winsize size;
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    const char *columns = getenv("COLUMNS");
    long value = 0;
    return columns != nullptr && ParseNumber(columns, 1, 100000, &value) ? static_cast<size_t>(value) : 0;
}

std::string FormatTable(const std::vector<HitRow> &rows, size_t width) {
    const HitRow heading = {"DOC ID", "TYPE", "NAME", "PATH", "", false};
    size_t id_width = TextWidth(heading.doc_id), type_width = TextWidth(heading.type),
           name_width = TextWidth(heading.name), path_width = TextWidth(heading.path);
    for (const HitRow &row : rows) {
        id_width = std::max(id_width, TextWidth(row.doc_id));
        type_width = std::max(type_width, TextWidth(row.type));
        name_width = std::max(name_width, TextWidth(row.name));
        path_width = std::max(path_width, TextWidth(row.path));
    }
    // Ids and types are short and stay whole; names and paths share what is
    // left, the name up to two fifths of it when both are too long.  Below
    // a few columns each, the lines overflow rather than show nothing.
    constexpr size_t kNarrowest = 8;
    const size_t fixed = id_width + 2 + type_width + 2 + 2;
    if (width != 0 && fixed + name_width + path_width > width) {
        const size_t room = width > fixed + 2 * kNarrowest ? width - fixed : 2 * kNarrowest;
        name_width = std::max(std::min(name_width, std::max(room * 2 / 5, room - std::min(room, path_width))),
                              kNarrowest);
        path_width = std::max(room - std::min(room, name_width), kNarrowest);
    } else {
        width = 0;
    }
    std::string out;
    auto add_row = [&](const HitRow &row) {
        const std::string name = width ? CutMiddle(row.name, name_width, TailFrom(row.name, '.')) : row.name;
        const std::string path = width ? CutMiddle(row.path, path_width, TailFrom(row.path, '/')) : row.path;
        out += Pad(row.doc_id, id_width, true) + "  " + Pad(row.type, type_width) + "  " +
               Pad(name, name_width) + "  " + path + "\n";
        if (row.has_highlight && !row.highlight.empty())
            out += std::string(id_width + 2, ' ') + row.highlight + "\n";
    };
    add_row(heading);
    for (const HitRow &row : rows) add_row(row);
    return out;
}

}  // namespace zarncli
