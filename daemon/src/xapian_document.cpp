#include "xapian_document.h"

#include "json_text.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

void AddField(const FieldLayout &layout, const Json::Value &value, Xapian::Document *doc,
              Xapian::TermGenerator *generator) {
    if (layout.numeric) {
        if (!value.isIntegral()) return;
        doc->add_value(layout.slot, Xapian::sortable_serialise(value.asDouble()));
        return;
    }
    if (!value.isString()) return;
    const std::string text = value.asString();
    if (layout.slot != Xapian::BAD_VALUENO) doc->add_value(layout.slot, text);
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

}  // namespace

std::string IdTerm(const std::string &path) { return BoundedTerm(kIdPrefix, path); }

Xapian::Document BuildDocument(const FileRecord &record, Xapian::TermGenerator *generator) {
    Xapian::Document doc;
    generator->set_document(doc);
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i)
        AddField(layouts[i], record.fields.get(layouts[i].field, Json::Value()), &doc, generator);
    doc.add_boolean_term(IdTerm(record.path));
    doc.add_value(kAccessSlot, record.access);
    doc.add_value(kSignatureSlot, record.signature);
    doc.set_data(zarn::json::ToString(record.fields));
    return doc;
}

}  // namespace xap
}  // namespace zarnd
