#include "xapian_document.h"

#include <cmath>
#include <cstring>

#include "schema.h"
#include "utf8.h"
#include "varint.h"
#include "xapian_layout.h"
#include "xapian_record.h"
#include "xapian_terms.h"

namespace zarnd {
namespace xap {

namespace {

constexpr unsigned char kDoubleTag = 0x40;

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
        IndexWords(generator, chunk, std::string());
        chunks->push_back(packer->Pack(chunk));
    }
    doc->add_value(kTextLayoutSlot, EncodeChunkStarts(starts));
}

// The sort slots of a field's value; true for a text, whose terms come next.
bool AddSortSlots(const FieldLayout &layout, const Json::Value &value, Xapian::Document *doc) {
    if (layout.numeric) {
        if (value.isNumeric()) doc->add_value(layout.slot, Xapian::sortable_serialise(value.asDouble()));
        return false;
    }
    if (!value.isString()) return false;
    AddSlots(layout, value.asString(), doc);
    return true;
}

bool IsNameField(const FieldLayout &layout) {
    return layout.field == std::string(field::kFSName) || layout.field == std::string(field::kSearchFileName);
}

void AddField(const FieldLayout &layout, const Json::Value &value, Xapian::Document *doc,
              Xapian::TermGenerator *generator) {
    if (!AddSortSlots(layout, value, doc)) return;
    const std::string text = value.asString();
    switch (layout.terms) {
    case TermKind::kFreeText:
        if (IsNameField(layout))
            IndexNameWords(generator, text, layout.prefix);
        else
            IndexWords(generator, text, layout.prefix);
        if (layout.bare) IndexWords(generator, text, "");
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

// Compact fields: for each stored field, in layout order, its index (with
// the top bit set for an integer, the next for a double) and its value, a
// zigzag varint, 8 bytes of the double's bits (least significant first) or
// a varint length and the bytes.  Hits decode it without a JSON parse.
const Json::Value &FieldOf(const Json::Value &fields, const char *name) {
    static const Json::Value kNull;
    const Json::Value *value = fields.find(name, name + std::strlen(name));
    return value != nullptr ? *value : kNull;
}

std::string EncodeData(const Json::Value &fields, uint64_t omit) {
    std::string data;
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i) {
        if ((omit >> i) & 1) continue;
        const Json::Value &value = FieldOf(fields, layouts[i].field);
        if (value.isIntegral() && value.isInt64()) {
            const int64_t n = value.asInt64();
            data.push_back(static_cast<char>(0x80 | i));
            PutVarint(&data, (static_cast<uint64_t>(n) << 1) ^ static_cast<uint64_t>(n >> 63));
        } else if (value.isDouble()) {
            const double real = value.asDouble();
            uint64_t bits = 0;
            std::memcpy(&bits, &real, sizeof bits);
            data.push_back(static_cast<char>(kDoubleTag | i));
            for (int shift = 0; shift < 64; shift += 8) data.push_back(static_cast<char>(bits >> shift));
        } else if (value.isString() && std::strcmp(layouts[i].field, field::kTextContent) != 0) {
            const char *begin = nullptr, *end = nullptr;
            value.getString(&begin, &end);
            data.push_back(static_cast<char>(i));
            PutVarint(&data, static_cast<uint64_t>(end - begin));
            data.append(begin, end);
        }
    }
    return data;
}

bool DecodeData(const std::string &data, Json::Value *fields) {
    *fields = Json::Value(Json::objectValue);
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t at = 0; at < data.size();) {
        const unsigned char tag = static_cast<unsigned char>(data[at++]);
        uint64_t number = 0;
        if ((tag & 0x3f) >= count) return false;
        Json::Value &value = (*fields)[layouts[tag & 0x3f].field];
        if (tag & kDoubleTag) {
            if ((tag & 0x80) || data.size() - at < 8) return false;
            for (int shift = 0; shift < 64; shift += 8)
                number |= uint64_t{static_cast<unsigned char>(data[at++])} << shift;
            double real = 0;
            std::memcpy(&real, &number, sizeof real);
            if (!std::isfinite(real)) return false;  // JSON cannot carry it
            value = real;
            continue;
        }
        if (!GetVarint(data, &at, &number)) return false;
        if (tag & 0x80) {
            value = Json::Int64(static_cast<int64_t>(number >> 1) ^ -static_cast<int64_t>(number & 1));
        } else {
            if (number > data.size() - at) return false;
            value = data.substr(at, number);
            at += number;
        }
    }
    return true;
}

std::string IdTerm(const std::string &path) { return BoundedTerm(kIdPrefix, path); }

Xapian::Document BuildDocument(const FileRecord &record, Xapian::TermGenerator *generator, const Xapian::Stem &stemmer,
                               ChunkPacker *packer, std::vector<std::string> *text_chunks, bool shard) {
    Xapian::Document doc;
    generator->set_document(doc);
    text_chunks->clear();
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i) {
        const Json::Value &value = FieldOf(record.fields, layouts[i].field);
        if (std::strcmp(layouts[i].field, field::kTextContent) == 0) {
            if (value.isString()) AddText(value.asString(), &doc, generator, packer, text_chunks);
        } else {
            AddField(layouts[i], value, &doc, generator);
        }
    }
    AddStems(stemmer, &doc);
    doc.add_boolean_term(IdTerm(record.path));
    AddRestrictions(record.access, &doc);
    doc.add_value(kAccessSlot, record.access);
    // The record's copy holds every field the data would: no data.
    doc.add_value(kRecordSlot, EncodeRecordValue(record));
    if (shard) doc.add_value(kHitSlot, EncodeHitValue(record));
    return doc;
}

Xapian::Document SortValues(const Json::Value &fields) {
    Xapian::Document doc;
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    for (size_t i = 0; i < count; ++i)
        if (layouts[i].slot != Xapian::BAD_VALUENO) AddSortSlots(layouts[i], FieldOf(fields, layouts[i].field), &doc);
    return doc;
}

bool ReadTextChunk(const TextSource &source, size_t chunk, std::string *text, size_t limit) {
    return UnpackChunk(source.db->get_metadata(TextChunkKey(source.doc_id, static_cast<unsigned>(chunk))), text, limit);
}

bool ReadTextStart(const TextSource &source, const Xapian::Document &doc, std::string *text) {
    text->clear();
    std::vector<uint32_t> starts;
    if (!DecodeChunkStarts(doc.get_value(kTextLayoutSlot), &starts) || starts.empty()) return false;
    std::string chunk;
    // A few bytes beyond the cap let the cut fall between characters.
    for (unsigned k = 0; k < starts.size() && text->size() < kReturnedTextBytes; ++k) {
        if (!ReadTextChunk(source, k, &chunk, kReturnedTextBytes + 4 - text->size()))
            break;
        *text += chunk;
    }
    text->resize(Utf8CutLength(*text, kReturnedTextBytes));
    return true;
}

}  // namespace xap
}  // namespace zarnd
