// Printing search hits: an aligned table for people, or one JSON object per
// line for programs.
#ifndef ZARNSEARCH_HIT_OUTPUT_H
#define ZARNSEARCH_HIT_OUTPUT_H

#include <stddef.h>

#include <string>
#include <vector>

#include "zarncontentsearchutils.h"

namespace zarncli {

// One hit as the table shows it.
struct HitRow {
    std::string doc_id, type, name, path, highlight;
    bool has_highlight;
};

// The table's lines: a heading, then each row (and its highlight on a line
// of its own).  When `width` is not 0, long names and paths are cut in the
// middle so that the columns fit in `width` columns; the highlight lines
// are left whole.
std::string FormatTable(const std::vector<HitRow> &rows, size_t width);

// `text` in at most `width` columns: when longer, its beginning, "…" and
// its end, the end holding at least the last `keep_end` characters (so a
// name keeps its extension, a path its last component) when they fit.
// Cuts fall between UTF-8 characters.
std::string CutMiddle(const std::string &text, size_t width, size_t keep_end = 0);

// The columns of the terminal on standard output; 0 when it is not a
// terminal or its width is unknown (then COLUMNS, when set, is taken).
size_t TerminalWidth();

class HitPrinter {
public:
    // terminal: the table goes to a terminal, which shows the highlight's
    // <em> marks in bold; elsewhere the marks are dropped.  width: the
    // columns to fit the table in, 0 for no limit.
    HitPrinter(bool json, bool terminal, size_t width = 0)
        : json_(json), terminal_(terminal), width_(width) {}

    // The search's total, when it is known; call before the first Add.
    void Total(int total);
    // Copies what it needs: the record may be freed afterwards.
    void Add(const _tag_search_record &record);
    // Prints what the table kept back.  Call once, after the last hit.
    void Finish();

    size_t count() const { return count_; }

private:
    void PrintJson(const _tag_search_record &record) const;

    bool json_;
    bool terminal_;
    size_t width_;
    bool total_known_ = false;
    int total_ = 0;
    size_t count_ = 0;
    std::vector<HitRow> rows_;
};

// The highlight fragment for the table, on one line: <em>...</em> become
// bold on a terminal and disappear elsewhere, HTML escapes become their
// characters, line breaks and runs of blanks one blank, other control
// characters '?'.
std::string RenderHighlight(const std::string &fragment, bool terminal);

}  // namespace zarncli

#endif  // ZARNSEARCH_HIT_OUTPUT_H
