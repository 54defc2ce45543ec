// What makes words written differently the same word for searching, on both
// sides of the index: accents folded away, CJK characters told apart, and a
// file name cut into the words it is made of.  Case is left to the engine,
// which lowercases every word it indexes or parses.
#ifndef ZARND_WORD_FORMS_H
#define ZARND_WORD_FORMS_H

#include <string>

namespace zarnd {

// `text` in compatibility decomposition with the accents of Latin, Greek
// and Cyrillic letters removed, then recomposed: "Résumé" -> "Resume",
// "ﬁle" -> "file".  Marks of other scripts (Japanese voicing, Indic vowel
// signs) change what a letter is and stay.  Invalid UTF-8 becomes U+FFFD;
// ASCII comes back as it is.
std::string FoldAccents(const std::string &text);

// Whether the UTF-8 character at text[at] belongs to a script that the
// engine cuts into n-grams (Han, Hiragana, Katakana, Hangul, Bopomofo);
// *length receives its byte length (1 for a byte that starts no character).
bool IsCjkAt(const std::string &text, size_t at, size_t *length);

// The words of a file name cut at case changes, between letters and digits
// and at anything else: "AnnualBudget2023.xlsx" -> "Annual Budget 2023
// xlsx", "team_offsite-notes" -> "team offsite notes", "XMLParser" -> "XML
// Parser".  "" when that cuts nowhere that the engine does not cut already.
std::string NameParts(const std::string &name);

}  // namespace zarnd

#endif  // ZARND_WORD_FORMS_H
