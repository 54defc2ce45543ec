#include "xapian_terms.h"

#include <map>
#include <mutex>

#include "engine.h"
#include "log.h"
#include "word_forms.h"

namespace zarnd {

namespace {

std::mutex languages_mutex;
std::map<std::string, std::string> languages;  // index directory -> language

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
        *stemmer = Xapian::Stem(language);
        return true;
    } catch (const Xapian::InvalidArgumentError &) {
        *stemmer = Xapian::Stem(kDefaultLanguage);
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

}  // namespace xap
}  // namespace zarnd
