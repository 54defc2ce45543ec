// A query string made ready for the engine's query parser, which parses it
// without stemming capitalised words, without folding accents and, on
// Xapian 1.4.22, leaking memory when it cuts CJK text into n-grams itself:
//   - words outside exact-field values lose their accents and are
//     lowercased, so that "Résumé", "RESUME" and "resume" read the same;
//     operators (AND, OR, NOT, XOR, NEAR, ADJ) and field names stay;
//   - a single word after a free-text field stays that word exactly
//     (quoted: no stem, no prefix), as field searches always answered;
//   - a run of CJK text becomes a value of kCjkField (or of kCjkField
//     followed by the field name, after a free-text field), which the parser
//     hands to a field processor that builds its n-grams; inside a phrase
//     each CJK character becomes a word of the phrase;
//   - the last word, when it is a bare word, not quoted and not followed by
//     a space, becomes a value of kPartialField: it matches as a prefix;
//   - a bare word made of words ("teamOffsite", "team_offsite") also
//     matches them as a phrase, as file names are indexed by their parts.
#ifndef ZARND_QUERY_REWRITE_H
#define ZARND_QUERY_REWRITE_H

#include <string>
#include <vector>

namespace zarnd {

constexpr char kCjkField[] = "ZARNCJK";
constexpr char kPartialField[] = "ZARNPARTIAL";

struct QueryFields {
    std::vector<std::string> raw;   // values kept byte for byte: exact and number fields
    std::vector<std::string> text;  // free-text fields
};

struct RewrittenQuery {
    std::string text;                // for the parser
    std::vector<std::string> words;  // the bare words, as indexed, but those after "-" (for weights)
    bool typing = false;             // words.back() is the word being typed
};

RewrittenQuery RewriteQuery(const std::string &text, const QueryFields &fields);

}  // namespace zarnd

#endif  // ZARND_QUERY_REWRITE_H
