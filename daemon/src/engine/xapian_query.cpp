#include "xapian_query.h"

#include <algorithm>

#include "failure.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

// field:value for a field kept as one exact term, through the same bounding
// as the indexer so that long values still match.
class ExactTerm : public Xapian::FieldProcessor {
public:
    explicit ExactTerm(std::string prefix) : prefix_(std::move(prefix)) {}
    Xapian::Query operator()(const std::string &value) override {
        return Xapian::Query(BoundedTerm(prefix_, value));
    }

private:
    std::string prefix_;
};

void AddFields(Xapian::QueryParser *parser) {
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i) {
        const FieldLayout &layout = layouts[i];
        switch (layout.terms) {
        case TermKind::kFreeText:
            parser->add_prefix(layout.field, layout.prefix);
            break;
        case TermKind::kExact:
            parser->add_boolean_prefix(layout.field, (new ExactTerm(layout.prefix))->release());
            break;
        case TermKind::kNone:
            break;
        }
        if (layout.numeric) {
            const std::string field_prefix = std::string(layout.field) + ":";
            parser->add_rangeprocessor(
                (new Xapian::NumberRangeProcessor(layout.slot, field_prefix))->release());
        }
    }
    // Bare words: the text content (no prefix) and the file name.
    parser->add_prefix("", "");
    parser->add_prefix("", FindLayout("ZARNMDFSName")->prefix);
}

bool MatchesEverything(const std::string &text) {
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return true;
    const size_t end = text.find_last_not_of(" \t\r\n");
    return begin == end && text[begin] == '*';
}

}  // namespace

Xapian::Query ParseQuery(const std::string &text, const Xapian::Database &db) {
    // Not Xapian::Query::MatchAll: copying that shared object bumps a
    // reference count that is not atomic, and workers search in parallel.
    if (MatchesEverything(text)) return Xapian::Query(std::string());
    Xapian::QueryParser parser;
    parser.set_database(db);  // wildcards expand against the index
    parser.set_default_op(Xapian::Query::OP_AND);
    parser.set_max_expansion(kMaxWildcardTerms, Xapian::Query::WILDCARD_LIMIT_MOST_FREQUENT,
                             Xapian::QueryParser::FLAG_WILDCARD | Xapian::QueryParser::FLAG_PARTIAL);
    AddFields(&parser);
    const unsigned flags = Xapian::QueryParser::FLAG_DEFAULT | Xapian::QueryParser::FLAG_WILDCARD |
                           Xapian::QueryParser::FLAG_PURE_NOT | kTermFlags;
    try {
        // Xapian 1.4.22 leaks a little memory when a query with a syntax
        // error holds CJK text: find such errors in a parse without the CJK
        // n-grams first (only text that is not ASCII can hold CJK).
        if (std::any_of(text.begin(), text.end(), [](char c) { return (c & 0x80) != 0; }))
            parser.parse_query(text, flags & ~kTermFlags);
        return parser.parse_query(text, flags);
    } catch (const Xapian::QueryParserError &e) {
        throw Failure(kBadRequest, "query does not parse: " + e.get_msg());
    }
}

}  // namespace xap
}  // namespace zarnd
