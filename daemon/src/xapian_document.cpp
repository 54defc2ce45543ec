#include "xapian_document.h"

#include "json_text.h"
#include "schema.h"
#include "utf8.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

void AddSlots(const FieldLayout &layout, const std::string &text, Xapian::Document *doc) {
    if (layout.slot != Xapian::BAD_VALUENO) doc->add_value(layout.slot, text);
    if (layout.natural_slot != Xapian::BAD_VALUENO) doc->add_value(layout.natural_slot, NaturalSortValue(text));
}

// The text content is indexed chunk by chunk, so that each chunk's first
// term position can be kept: a highlight then finds the chunk of a match.
void AddText(const std::string &text, Xapian::Document *doc, Xapian::TermGenerator *generator, ChunkPacker *packer,
             std::vector<std::string> *chunks) {
    std::vector<uint32_t> starts;
    for (const std::string &chunk : SplitText(text)) {
        starts.push_back(generator->get_termpos());
        generator->index_text(chunk);
        chunks->push_back(packer->Pack(chunk));
    }
    doc->add_value(kTextLayoutSlot, EncodeChunkStarts(starts));
}

void AddField(const FieldLayout &layout, const Json::Value &value, Xapian::Document *doc,
              Xapian::TermGenerator *generator) {
    if (layout.numeric) {
        if (!value.isIntegral()) return;
        doc->add_value(layout.slot, Xapian::sortable_serialise(value.asDouble()));
        return;
    }
    if (!value.isString()) return;
    const std::string text = value.asString();
    AddSlots(layout, text, doc);
    switch (layout.terms) {
    case TermKind::kFreeText:
        generator->index_text(text, 1, layout.prefix);
        generator->increase_termpos();  // no phrase across two fields
        break;
    case TermKind::kExact:
        doc->add_boolean_term(BoundedTerm(layout.prefix, text));
        break;
    case TermKind::kNone:
        break;
    }
}

void AddRestrictions(const std::string &access, Xapian::Document *doc) {
    std::vector<Restriction> restrictions;
    // A damaged chain lets nobody but root through, as MayRead decides.
    if (!RestrictionsOf(access, &restrictions)) restrictions.assign(1, Restriction());
    for (const Restriction &restriction : restrictions) doc->add_boolean_term(RestrictionTerm(restriction));
}

}  // namespace

bool DecodeData(const std::string &data, Json::Value *fields) {
    return zarn::json::FromString(data, fields) && fields->isObject();
}

std::string IdTerm(const std::string &path) { return BoundedTerm(kIdPrefix, path); }

Xapian::Document BuildDocument(const FileRecord &record, Xapian::TermGenerator *generator, ChunkPacker *packer,
                               std::vector<std::string> *text_chunks) {
    Xapian::Document doc;
    generator->set_document(doc);
    text_chunks->clear();
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i) {
        const Json::Value &value = record.fields.get(layouts[i].field, Json::Value());
        if (layouts[i].field == std::string(field::kTextContent)) {
            if (value.isString()) AddText(value.asString(), &doc, generator, packer, text_chunks);
        } else {
            AddField(layouts[i], value, &doc, generator);
        }
    }
    doc.add_boolean_term(IdTerm(record.path));
    AddRestrictions(record.access, &doc);
    doc.add_value(kAccessSlot, record.access);
    doc.add_value(kSignatureSlot, record.signature);
    Json::Value fields = record.fields;
    fields.removeMember(field::kTextContent);
    doc.set_data(zarn::json::ToString(fields));
    return doc;
}

bool ReadTextStart(const Xapian::Database &db, Xapian::docid doc_id, const Xapian::Document &doc,
                   std::string *text) {
    text->clear();
    std::vector<uint32_t> starts;
    if (!DecodeChunkStarts(doc.get_value(kTextLayoutSlot), &starts) || starts.empty()) return false;
    std::string chunk;
    for (unsigned k = 0; k < starts.size() && text->size() < kReturnedTextBytes; ++k) {
        if (!UnpackChunk(db.get_metadata(TextChunkKey(doc_id, k)), &chunk)) break;
        *text += chunk;
    }
    text->resize(Utf8CutLength(*text, kReturnedTextBytes));
    return true;
}

}  // namespace xap
}  // namespace zarnd
