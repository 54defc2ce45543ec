#include "xapian_terms.h"

#include <map>
#include <mutex>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine.h"
#include "log.h"
#include "word_forms.h"
#include "xapian_layout.h"

namespace zarnd {

namespace {

std::mutex languages_mutex;
std::map<std::string, std::string> languages;  // index directory -> language

// The engine's stemmer, remembering on each thread the stems it gave: the
// same words come back in every document and every highlight, and a look-up
// costs a fraction of stemming.
class RememberingStemmer : public Xapian::StemImplementation {
public:
    explicit RememberingStemmer(const std::string &language) : language_(language), stemmer_(language) {}

    std::string operator()(const std::string &word) override {
        constexpr size_t kMaxWords = 1u << 16, kMaxWordBytes = 64;
        thread_local std::string language;
        thread_local std::unordered_map<std::string, std::string> stems;
        if (word.size() > kMaxWordBytes) return stemmer_(word);
        if (language != language_ || stems.size() >= kMaxWords) {
            stems.clear();
            language = language_;
        }
        const auto found = stems.find(word);
        if (found != stems.end()) return found->second;
        return stems.emplace(word, stemmer_(word)).first->second;
    }
    std::string get_description() const override { return stemmer_.get_description(); }

private:
    const std::string language_;
    Xapian::Stem stemmer_;
};

// The prefixes of the fields whose words are stemmed: "" and those of free
// text.  Words are lower case, so a term's prefix is its leading capitals.
bool StemmedPrefix(const std::string &prefix) {
    static const std::set<std::string> stemmed = [] {
        std::set<std::string> prefixes;
        size_t count = 0;
        const xap::FieldLayout *layouts = xap::FieldLayouts(&count);
        for (size_t i = 0; i < count; ++i)
            if (layouts[i].terms == xap::TermKind::kFreeText) prefixes.insert(layouts[i].prefix);
        return prefixes;
    }();
    return stemmed.count(prefix) != 0;
}

// What the engine stems: words that begin with a letter, not a digit.
bool BeginsWithLetter(const std::string &word) {
    constexpr unsigned kLetters = (1u << Xapian::Unicode::LOWERCASE_LETTER) | (1u << Xapian::Unicode::TITLECASE_LETTER) |
                                  (1u << Xapian::Unicode::MODIFIER_LETTER) | (1u << Xapian::Unicode::OTHER_LETTER);
    return (kLetters >> Xapian::Unicode::get_category(*Xapian::Utf8Iterator(word))) & 1;
}

}  // namespace

void SetIndexLanguage(const std::string &dir, const std::string &language) {
    Xapian::Stem stemmer;
    std::string chosen = language.empty() ? xap::kDefaultLanguage : language;
    if (!xap::StemmerFor(chosen, &stemmer)) {
        ZARN_LOG(LOG_WARNING, "unknown language %s for %s: words are stemmed in %s", chosen.c_str(), dir.c_str(),
                 xap::kDefaultLanguage);
        chosen = xap::kDefaultLanguage;
    }
    std::lock_guard<std::mutex> lock(languages_mutex);
    languages[dir] = chosen;
}

namespace xap {

std::string ConfiguredLanguage(const std::string &dir) {
    std::lock_guard<std::mutex> lock(languages_mutex);
    const auto it = languages.find(dir);
    return it == languages.end() ? kDefaultLanguage : it->second;
}

bool StemmerFor(const std::string &language, Xapian::Stem *stemmer) {
    if (language == "none") {
        *stemmer = Xapian::Stem();
        return true;
    }
    try {
        *stemmer = Xapian::Stem(new RememberingStemmer(language));
        return true;
    } catch (const Xapian::InvalidArgumentError &) {
        *stemmer = Xapian::Stem(new RememberingStemmer(kDefaultLanguage));
        return false;
    }
}

std::string LanguageOf(const Xapian::Database &db) {
    const std::string language = db.get_metadata(kLanguageKey);
    return language.empty() ? kDefaultLanguage : language;
}

void IndexWords(Xapian::TermGenerator *generator, const std::string &text, const std::string &prefix) {
    generator->index_text(FoldAccents(text), 1, prefix);
}

void IndexNameWords(Xapian::TermGenerator *generator, const std::string &name, const std::string &prefix) {
    const std::string folded = FoldAccents(name);
    generator->index_text(folded, 1, prefix);
    const std::string parts = NameParts(folded);
    if (parts.empty()) return;
    generator->increase_termpos();  // no phrase across the two spellings
    generator->index_text(parts, 1, prefix);
}

void AddStems(const Xapian::Stem &stemmer, Xapian::Document *doc) {
    if (stemmer.is_none()) return;
    std::vector<std::pair<std::string, Xapian::termcount>> stems;
    for (Xapian::TermIterator t = doc->termlist_begin(); t != doc->termlist_end(); ++t) {
        const std::string term = *t;
        size_t length = 0;
        while (length < term.size() && term[length] >= 'A' && term[length] <= 'Z') ++length;
        if (length == term.size()) continue;
        const std::string prefix = term.substr(0, length), word = term.substr(length);
        if (!StemmedPrefix(prefix) || !BeginsWithLetter(word)) continue;
        const std::string stem = stemmer(word);
        if (!stem.empty()) stems.emplace_back("Z" + prefix + stem, t.get_wdf());
    }
    for (const auto &stem : stems) doc->add_term(stem.first, stem.second);
}

}  // namespace xap
}  // namespace zarnd
