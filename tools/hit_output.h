// Printing search hits: an aligned table for people, or one JSON object per
// line for programs.
#ifndef ZARNSEARCH_HIT_OUTPUT_H
#define ZARNSEARCH_HIT_OUTPUT_H

#include <stddef.h>

#include <string>
#include <vector>

#include "zarncontentsearchutils.h"

namespace zarncli {

class HitPrinter {
public:
    // terminal: the table goes to a terminal, which shows the highlight's
    // <em> marks in bold; elsewhere the marks are dropped.
    HitPrinter(bool json, bool terminal) : json_(json), terminal_(terminal) {}

    // The search's total, when it is known; call before the first Add.
    void Total(int total);
    // Copies what it needs: the record may be freed afterwards.
    void Add(const _tag_search_record &record);
    // Prints what the table kept back.  Call once, after the last hit.
    void Finish();

    size_t count() const { return count_; }

private:
    struct Row {
        std::string doc_id, type, name, path, highlight;
        bool has_highlight;
    };

    void PrintJson(const _tag_search_record &record) const;

    bool json_;
    bool terminal_;
    bool total_known_ = false;
    int total_ = 0;
    size_t count_ = 0;
    std::vector<Row> rows_;
};

// The highlight fragment for the table, on one line: <em>...</em> become
// bold on a terminal and disappear elsewhere, HTML escapes become their
// characters, line breaks and runs of blanks one blank, other control
// characters '?'.
std::string RenderHighlight(const std::string &fragment, bool terminal);

}  // namespace zarncli

#endif  // ZARNSEARCH_HIT_OUTPUT_H
