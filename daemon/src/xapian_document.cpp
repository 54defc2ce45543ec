#include "xapian_document.h"

#include "json_text.h"
#include "schema.h"
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

std::string EncodeData(const Json::Value &fields) {
    // Compact JSON never holds a raw newline: the first one ends it.
    const Json::Value &text = fields[field::kTextContent];
    if (!text.isString()) return zarn::json::ToString(fields);
    Json::Value rest = fields;
    rest.removeMember(field::kTextContent);
    return zarn::json::ToString(rest) + "\n" + text.asString();
}

bool DecodeData(const std::string &data, bool with_text, Json::Value *fields) {
    const size_t newline = data.find('\n');
    if (!zarn::json::FromString(data.substr(0, newline), fields) || !fields->isObject()) return false;
    if (with_text && newline != std::string::npos) (*fields)[field::kTextContent] = data.substr(newline + 1);
    return true;
}

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
    doc.set_data(EncodeData(record.fields));
    return doc;
}

}  // namespace xap
}  // namespace zarnd
