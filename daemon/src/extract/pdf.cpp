// PDF: text of every page, the information dictionary, encryption; through
// poppler's C++ interface.
#include <memory>

#include <poppler-document.h>
#include <poppler-page.h>

#include "extract/extractor.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

bool Accepts(const Input &input) { return input.kind == "application/pdf"; }

std::string Info(const poppler::document &doc, const char *key) {
    const poppler::byte_array utf8 = doc.info_key(key).to_utf8();
    return std::string(utf8.begin(), utf8.end());
}

void SetDate(const poppler::document &doc, const char *info_key, const char *key, Sink *sink) {
    const time_t when = doc.info_date_t(info_key);
    if (when != time_t(-1)) sink->SetInt(key, when);
}

void Extract(const Input &input, Sink *sink) {
    // poppler reads the bytes in place; the mapping outlives the document.
    std::unique_ptr<poppler::document> doc(
        poppler::document::load_from_raw_data(input.data, static_cast<int>(input.size)));
    if (!doc) throw ExtractError("not a readable PDF");
    // Locked by a user password: neither the text nor the fields can be
    // read (and poppler does not call such a document encrypted).
    sink->SetBool(field::kIsEncrypted, doc->is_locked() || doc->is_encrypted());
    if (doc->is_locked()) return;
    sink->Set(field::kTitle, Info(*doc, "Title"));
    sink->Set(field::kAuthors, Info(*doc, "Author"));
    sink->Set(field::kKeywords, Info(*doc, "Keywords"));
    sink->Set(field::kDescription, Info(*doc, "Subject"));
    // The program the author used; the converter's name when that is all.
    const std::string creator = Info(*doc, "Creator");
    sink->Set(field::kCreator, creator.empty() ? Info(*doc, "Producer") : creator);
    SetDate(*doc, "CreationDate", field::kContentCreationDate, sink);
    SetDate(*doc, "ModDate", field::kContentModificationDate, sink);
    for (int i = 0, pages = doc->pages(); i < pages && !sink->Full(); ++i) {
        std::unique_ptr<poppler::page> page(doc->create_page(i));
        if (!page) continue;
        const poppler::byte_array utf8 = page->text().to_utf8();
        sink->Text(utf8.data(), utf8.size());
        sink->Break();
    }
}

const Extractor kPdf = {"pdf", Accepts, Extract};
const Registration kRegistered(kPdf);

}  // namespace

}  // namespace extract
}  // namespace zarnd
