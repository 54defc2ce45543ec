// The one place where text becomes terms, for file names, metadata and
// every document's text content alike (extracted text too).  Each word is
// indexed as written (accents folded, lowercased by the engine), so that a
// quoted phrase matches it exactly, and, in the share's language, by its
// stem under the engine's "Z" prefix, so that a plain word matches its
// other forms.
#ifndef ZARND_XAPIAN_TERMS_H
#define ZARND_XAPIAN_TERMS_H

#include <string>

#include <xapian.h>

namespace zarnd {
namespace xap {

// The stemming language of an index is kept in it under this key, so that
// searches stem queries as the indexer stemmed the text.
constexpr char kLanguageKey[] = "zarnelasticd.language";
constexpr char kDefaultLanguage[] = "english";

// The engine's stemmer of `language` (a name or code Xapian::Stem knows, or
// "none"); false, with the default language's, for one it does not know.
bool StemmerFor(const std::string &language, Xapian::Stem *stemmer);

// The stemming language kept in `db`, the default when none is.
std::string LanguageOf(const Xapian::Database &db);

// The language that SetIndexLanguage set for `dir`, the default when none.
std::string ConfiguredLanguage(const std::string &dir);

// Words of free text under `prefix` ("" for the text content).
void IndexWords(Xapian::TermGenerator *generator, const std::string &text, const std::string &prefix);

// A file name: its words as the engine cuts them, and then the words it is
// made of (NameParts), so that "AnnualBudget2023.xlsx" is found by
// "annualbudget2023" as before and by "budget" too.
void IndexNameWords(Xapian::TermGenerator *generator, const std::string &name, const std::string &prefix);

// Adds the stem of each word of free text in `doc` once: "Z", the field's
// prefix and the stem, weighing what all the words with that stem weigh.
// The engine's generator, left to stem, adds the same terms word by word,
// which cost the indexer a third of its time.
void AddStems(const Xapian::Stem &stemmer, Xapian::Document *doc);

}  // namespace xap
}  // namespace zarnd

#endif  // ZARND_XAPIAN_TERMS_H
