#include "xapian_query.h"

#include <vector>

#include "failure.h"
#include "query_rewrite.h"
#include "word_forms.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

std::string NamePrefix() { return FindLayout("ZARNMDFSName")->prefix; }

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

// Every n-gram of a run of CJK text, in each of the prefixes: what the
// engine's parser makes of it with its n-gram flag, built here because that
// parser leaks when such a query has a syntax error.
class CjkTerms : public Xapian::FieldProcessor {
public:
    explicit CjkTerms(std::vector<std::string> prefixes) : prefixes_(std::move(prefixes)) {}
    Xapian::Query operator()(const std::string &value) override {
        Xapian::TermGenerator generator;
        generator.set_flags(kTermFlags);
        generator.set_max_word_length(64);
        Xapian::Document doc;
        generator.set_document(doc);
        generator.index_text(FoldAccents(value));
        std::vector<Xapian::Query> each;
        for (const std::string &prefix : prefixes_) {
            std::vector<Xapian::Query> grams;
            for (Xapian::TermIterator t = doc.termlist_begin(); t != doc.termlist_end(); ++t)
                grams.emplace_back(prefix + *t);
            each.emplace_back(Xapian::Query::OP_AND, grams.begin(), grams.end());
        }
        return Xapian::Query(Xapian::Query::OP_OR, each.begin(), each.end());
    }

private:
    std::vector<std::string> prefixes_;
};

// The word being typed, in each of the prefixes: every word it begins
// (bounded as wildcards are), and its stem's forms.
class PartialTerm : public Xapian::FieldProcessor {
public:
    PartialTerm(std::vector<std::string> prefixes, const Xapian::Stem &stemmer)
        : prefixes_(std::move(prefixes)), stemmer_(stemmer) {}
    Xapian::Query operator()(const std::string &word) override {
        // One synonym: each document's weight is worked out once, not once
        // for the words begun and again for the forms.
        std::vector<Xapian::Query> any;
        for (const std::string &prefix : prefixes_) {
            any.emplace_back(Xapian::Query::OP_WILDCARD, prefix + word, kMaxWildcardTerms,
                             Xapian::Query::WILDCARD_LIMIT_MOST_FREQUENT);
            any.emplace_back(stemmer_.is_none() ? prefix + word : "Z" + prefix + stemmer_(word));
        }
        return Xapian::Query(Xapian::Query::OP_SYNONYM, any.begin(), any.end());
    }

private:
    std::vector<std::string> prefixes_;
    Xapian::Stem stemmer_;
};

void AddFields(Xapian::QueryParser *parser, const Xapian::Stem &stemmer, QueryFields *names) {
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i) {
        const FieldLayout &layout = layouts[i];
        if (layout.terms == TermKind::kFreeText && layout.prefix[0] != '\0') {
            parser->add_prefix(layout.field, layout.prefix);
            parser->add_prefix(std::string(kCjkField) + layout.field, (new CjkTerms({layout.prefix}))->release());
            names->text.push_back(layout.field);
        } else if (layout.terms == TermKind::kExact) {
            parser->add_boolean_prefix(layout.field, (new ExactTerm(layout.prefix))->release());
            names->raw.push_back(layout.field);
        }
        if (layout.numeric) {
            const std::string field_prefix = std::string(layout.field) + ":";
            parser->add_rangeprocessor(
                (new Xapian::NumberRangeProcessor(layout.slot, field_prefix))->release());
            names->raw.push_back(layout.field);
        }
    }
    // Bare words: the text content (no prefix) and the file name.
    const std::vector<std::string> bare = {"", NamePrefix()};
    for (const std::string &prefix : bare) parser->add_prefix("", prefix);
    parser->add_prefix(kCjkField, (new CjkTerms(bare))->release());
    parser->add_prefix(kPartialField, (new PartialTerm(bare, stemmer))->release());
}

bool MatchesEverything(const std::string &text) {
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return true;
    const size_t end = text.find_last_not_of(" \t\r\n");
    return begin == end && text[begin] == '*';
}

// What ranks hits beyond the match's own weight: each bare word in the file
// name (as typed, its stem's forms, and, being typed, the words it begins)
// and each word exactly as typed.  Built from the words, not parsed again,
// so that phrases and wildcards are not matched twice more.
Xapian::Query Weights(const RewrittenQuery &query, const Xapian::Stem &stemmer) {
    const std::string name = NamePrefix();
    std::vector<Xapian::Query> in_name, exact;
    for (size_t i = 0; i < query.words.size(); ++i) {
        const std::string &word = query.words[i];
        std::vector<Xapian::Query> forms = {Xapian::Query(name + word)};
        if (!stemmer.is_none()) forms.emplace_back("Z" + name + stemmer(word));
        if (query.typing && i + 1 == query.words.size())
            forms.emplace_back(Xapian::Query::OP_WILDCARD, name + word, kMaxWildcardTerms,
                               Xapian::Query::WILDCARD_LIMIT_MOST_FREQUENT);
        in_name.emplace_back(Xapian::Query::OP_SYNONYM, forms.begin(), forms.end());
        exact.emplace_back(word);  // in the name it weighs already
    }
    return Xapian::Query(
        Xapian::Query::OP_OR,
        Xapian::Query(Xapian::Query::OP_SCALE_WEIGHT, Xapian::Query(Xapian::Query::OP_OR, in_name.begin(), in_name.end()),
                      kNameWeight),
        Xapian::Query(Xapian::Query::OP_SCALE_WEIGHT, Xapian::Query(Xapian::Query::OP_OR, exact.begin(), exact.end()),
                      kExactWeight));
}

}  // namespace

Xapian::Query ParseQuery(const std::string &text, const Xapian::Database &db, const Xapian::Stem &stemmer,
                         bool ranked) {
    // Not Xapian::Query::MatchAll: copying that shared object bumps a
    // reference count that is not atomic, and workers search in parallel.
    if (MatchesEverything(text)) return Xapian::Query(std::string());
    Xapian::QueryParser parser;
    parser.set_database(db);  // wildcards expand against the index
    parser.set_default_op(Xapian::Query::OP_AND);
    parser.set_max_expansion(kMaxWildcardTerms, Xapian::Query::WILDCARD_LIMIT_MOST_FREQUENT,
                             Xapian::QueryParser::FLAG_WILDCARD);
    parser.set_stemmer(stemmer);
    parser.set_stemming_strategy(Xapian::QueryParser::STEM_SOME);
    QueryFields names;
    AddFields(&parser, stemmer, &names);
    const RewrittenQuery query = RewriteQuery(text, names);
    Xapian::Query match;
    try {
        match = parser.parse_query(query.text, Xapian::QueryParser::FLAG_DEFAULT | Xapian::QueryParser::FLAG_WILDCARD |
                                                   Xapian::QueryParser::FLAG_PURE_NOT);
    } catch (const Xapian::QueryParserError &e) {
        throw Failure(kBadRequest, "query does not parse: " + e.get_msg());
    }
    if (!ranked || match.empty() || query.words.empty()) return match;
    // Weight only: AND_MAYBE never changes what matches.
    return Xapian::Query(Xapian::Query::OP_AND_MAYBE, match, Weights(query, stemmer));
}

}  // namespace xap
}  // namespace zarnd
