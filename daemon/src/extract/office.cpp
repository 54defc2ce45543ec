// Zipped documents: Office Open XML (docx, xlsx, pptx), OpenDocument (odt,
// ods, odp) and EPUB.  Text from the content entries, properties from the
// core ones; libarchive reads the zip, libxml2 the XML.
#include <archive.h>
#include <archive_entry.h>

#include <cstring>
#include <map>
#include <memory>

#include "extract/markup.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

// Entries looked at at most, and bytes inflated over all of them: a zip
// bomb costs this much and no more.
constexpr size_t kMaxEntries = 10000;
constexpr size_t kMaxInflated = 64u << 20;

bool StartsWith(const std::string &text, const char *start) { return text.rfind(start, 0) == 0; }
bool EndsWith(const std::string &text, const char *end) {
    const size_t n = std::strlen(end);
    return text.size() >= n && text.compare(text.size() - n, n, end) == 0;
}

bool Accepts(const Input &input) {
    if (StartsWith(input.kind, "application/vnd.openxmlformats-officedocument.") ||
        StartsWith(input.kind, "application/vnd.oasis.opendocument.") || input.kind == "application/epub+zip")
        return true;
    // A zip that libmagic could not tell apart: its name says what to look for.
    static const char *const kZipped[] = {"docx", "xlsx", "pptx", "docm", "xlsm", "pptm",
                                          "odt",  "ods",  "odp",  "odg",  "epub"};
    if (input.kind != "application/zip") return false;
    for (const char *extension : kZipped)
        if (input.extension == extension) return true;
    return false;
}

// The text of elements named `text_element` ("" for every text), with a
// line break after `break_element`s.
class TextEvents : public XmlEvents {
public:
    TextEvents(Sink *sink, const char *text_element, bool odf) : sink_(sink), text_element_(text_element), odf_(odf) {}
    void Start(const std::string &name, const std::function<std::string(const char *)> &) override {
        if (name == text_element_) ++inside_;
        if (name == "tab") sink_->Text("\t", 1);
        if (odf_ && (name == "s" || name == "line-break")) sink_->Text(" ", 1);
    }
    void End(const std::string &name) override {
        if (name == text_element_ && inside_ > 0) --inside_;
        if (name == "p" || name == "h" || name == "si" || name == "tr") sink_->Break();
    }
    void Text(const char *text, size_t size) override {
        if (inside_ > 0 || *text_element_ == '\0') sink_->Text(text, size);
    }
    bool Done() override { return sink_->Full(); }

private:
    Sink *sink_;
    const char *text_element_;
    bool odf_;
    int inside_ = 0;
};

enum class Put { kSet, kAdd, kDate };
struct Property {
    const char *element;  // local name
    const char *key;
    Put put;
};

// Core properties of the three families (docProps/core.xml and app.xml,
// meta.xml, the EPUB package document).  A subject goes with the
// description in OOXML and OpenDocument, with the keywords in EPUB, where
// it is a list of topics.
const Property kOoxml[] = {
    {"title", field::kTitle, Put::kSet},           {"creator", field::kAuthors, Put::kAdd},
    {"keywords", field::kKeywords, Put::kAdd},     {"subject", field::kDescription, Put::kAdd},
    {"description", field::kDescription, Put::kAdd}, {"created", field::kContentCreationDate, Put::kDate},
    {"modified", field::kContentModificationDate, Put::kDate}, {"Application", field::kCreator, Put::kSet},
};
const Property kOdf[] = {
    {"title", field::kTitle, Put::kSet},          {"initial-creator", field::kAuthors, Put::kAdd},
    {"creator", field::kAuthors, Put::kAdd},      {"keyword", field::kKeywords, Put::kAdd},
    {"subject", field::kDescription, Put::kAdd},  {"description", field::kDescription, Put::kAdd},
    {"creation-date", field::kContentCreationDate, Put::kDate}, {"date", field::kContentModificationDate, Put::kDate},
    {"generator", field::kCreator, Put::kSet},
};
const Property kEpub[] = {
    {"title", field::kTitle, Put::kSet},         {"creator", field::kAuthors, Put::kAdd},
    {"subject", field::kKeywords, Put::kAdd},    {"description", field::kDescription, Put::kAdd},
    {"date", field::kContentCreationDate, Put::kDate}, {"identifier", field::kIdentifier, Put::kSet},
};

class PropertyEvents : public XmlEvents {
public:
    PropertyEvents(Sink *sink, const Property *properties, size_t count)
        : sink_(sink), properties_(properties), count_(count) {}
    void Start(const std::string &name, const std::function<std::string(const char *)> &attribute) override {
        current_ = nullptr;
        value_.clear();
        for (size_t i = 0; i < count_; ++i)
            if (name == properties_[i].element) current_ = &properties_[i];
        // EPUB 3 keeps the modification date in <meta property="dcterms:modified">.
        if (name == "meta" && attribute("property") == "dcterms:modified") current_ = &kModified;
        if (name == "encryption-data") sink_->SetBool(field::kIsEncrypted, true);
    }
    void End(const std::string &) override {
        if (current_ != nullptr) {
            int64_t seconds = 0;
            if (current_->put == Put::kSet && !seen_set_[current_->key]++) sink_->Set(current_->key, value_);
            if (current_->put == Put::kAdd) sink_->Add(current_->key, value_);
            if (current_->put == Put::kDate && ParseIsoDate(value_, &seconds) && !seen_set_[current_->key]++)
                sink_->SetInt(current_->key, seconds);
        }
        current_ = nullptr;
    }
    void Text(const char *text, size_t size) override {
        if (current_ != nullptr && value_.size() < kMaxFieldBytes) value_.append(text, size);
    }

private:
    static constexpr Property kModified = {"meta", field::kContentModificationDate, Put::kDate};
    Sink *sink_;
    const Property *properties_;
    size_t count_;
    const Property *current_ = nullptr;
    std::string value_;
    std::map<std::string, int> seen_set_;
};

enum class Family { kUnknown, kOoxml, kOdf, kEpub };

// What an entry holds for the family: the walk to run on it, if any.
enum class Role { kNone, kText, kProperties, kHtml, kManifest };

Role RoleOf(Family family, const std::string &name) {
    switch (family) {
    case Family::kOoxml:
        if (name == "docProps/core.xml" || name == "docProps/app.xml") return Role::kProperties;
        if (!EndsWith(name, ".xml")) return Role::kNone;
        if (StartsWith(name, "word/") || StartsWith(name, "ppt/slides/") || StartsWith(name, "ppt/notesSlides/") ||
            name == "xl/sharedStrings.xml")
            return Role::kText;
        return Role::kNone;
    case Family::kOdf:
        if (name == "content.xml") return Role::kText;
        if (name == "meta.xml") return Role::kProperties;
        if (name == "META-INF/manifest.xml") return Role::kManifest;
        return Role::kNone;
    case Family::kEpub:
        if (EndsWith(name, ".opf")) return Role::kProperties;
        if (EndsWith(name, ".xhtml") || EndsWith(name, ".html") || EndsWith(name, ".htm")) return Role::kHtml;
        return Role::kNone;
    case Family::kUnknown:
        return Role::kNone;
    }
    return Role::kNone;
}

Family FamilyOf(const Input &input) {
    if (StartsWith(input.kind, "application/vnd.openxmlformats-officedocument.")) return Family::kOoxml;
    if (StartsWith(input.kind, "application/vnd.oasis.opendocument.")) return Family::kOdf;
    if (input.kind == "application/epub+zip") return Family::kEpub;
    if (input.extension == "epub") return Family::kEpub;
    if (input.extension[0] == 'o') return Family::kOdf;
    return Family::kOoxml;
}

void Extract(const Input &input, Sink *sink) {
    const Family family = FamilyOf(input);
    std::unique_ptr<archive, int (*)(archive *)> zip(archive_read_new(), archive_read_free);
    if (!zip || archive_read_support_format_zip(zip.get()) != ARCHIVE_OK ||
        archive_read_open_memory(zip.get(), input.data, input.size) != ARCHIVE_OK)
        throw ExtractError("not a readable zip");
    sink->SetBool(field::kIsEncrypted, false);
    size_t entries = 0, inflated = 0;
    archive_entry *entry = nullptr;
    int status;
    while ((status = archive_read_next_header(zip.get(), &entry)) == ARCHIVE_OK) {
        if (++entries > kMaxEntries) throw ExtractError("more than " + std::to_string(kMaxEntries) + " zip entries");
        const char *path = archive_entry_pathname(entry);
        const std::string name = path == nullptr ? std::string() : path;
        const Role role = RoleOf(family, name);
        if (role == Role::kNone) continue;
        if (archive_entry_is_encrypted(entry)) {
            sink->SetBool(field::kIsEncrypted, true);
            continue;
        }
        if (role != Role::kProperties && role != Role::kManifest && sink->Full()) continue;
        // The entry's bytes as libarchive inflates them, within the caps.
        bool over = false;
        const Pull pull = [&](char *buffer, size_t size) -> ssize_t {
            if (inflated >= kMaxInflated) {
                over = true;
                return -1;
            }
            const la_ssize_t got = archive_read_data(zip.get(), buffer, std::min(size, kMaxInflated - inflated));
            if (got > 0) inflated += static_cast<size_t>(got);
            return got < 0 ? -1 : got;
        };
        WalkEnd end = WalkEnd::kEnd;
        if (role == Role::kText) {
            TextEvents events(sink, family == Family::kOdf ? "" : "t", family == Family::kOdf);
            end = WalkXml(pull, &events);
        } else if (role == Role::kHtml) {
            HtmlMeta ignored;
            end = WalkHtml(pull, sink, &ignored);
            sink->Break();
        } else if (family == Family::kOoxml) {
            PropertyEvents events(sink, kOoxml, sizeof kOoxml / sizeof kOoxml[0]);
            end = WalkXml(pull, &events);
        } else {
            PropertyEvents events(sink, family == Family::kOdf ? kOdf : kEpub,
                                  family == Family::kOdf ? sizeof kOdf / sizeof kOdf[0] : sizeof kEpub / sizeof kEpub[0]);
            end = WalkXml(pull, &events);
        }
        if (over) throw ExtractError("more than " + std::to_string(kMaxInflated >> 20) + " MiB inflated");
        const std::string problem = WalkProblem(end, name);
        if (!problem.empty()) throw ExtractError(problem);
    }
    if (status != ARCHIVE_EOF) {
        const char *message = archive_error_string(zip.get());
        throw ExtractError(std::string("damaged zip: ") + (message ? message : "unreadable entry"));
    }
}

const Extractor kOffice = {"office", Accepts, Extract};
const Registration kRegistered(kOffice);

}  // namespace

}  // namespace extract
}  // namespace zarnd
