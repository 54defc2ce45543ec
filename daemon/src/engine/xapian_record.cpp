#include "xapian_record.h"

#include <algorithm>
#include <cstring>

#include "schema.h"
#include "varint.h"
#include "xapian_document.h"
#include "xapian_layout.h"

namespace zarnd {
namespace xap {

namespace {

// Two fields are most often parts of the path: a flag then stands for each.
constexpr char kNameIsLastPart = 1;
constexpr char kParentIsFolder = 2;

std::string LastPart(const std::string &path) { return path.substr(path.rfind('/') + 1); }
std::string Folder(const std::string &path) { return path.substr(0, path.rfind('/')); }

// Whether `field` is carried: every field but the text content (kept in
// chunks of its own), so that a sort on several keys can be finished here
// (MergeSortedPages) and a document lookup finds fields that sort on
// nothing (keywords, descriptions, comments) too.
bool Carried(const FieldLayout &layout) { return std::strcmp(layout.field, field::kTextContent) != 0; }

// The fields of the hit value, beside the path.
bool InHit(const char *name) {
    return std::strcmp(name, field::kFSName) == 0 || std::strcmp(name, field::kExtension) == 0 ||
           std::strcmp(name, field::kIsDir) == 0;
}

// The record's copy; `hit`: the hit value's fields only, no signature.
std::string EncodeCopy(const FileRecord &record, bool hit) {
    std::string value = record.path;
    value.push_back('\0');
    size_t count = 0;
    const FieldLayout *layouts = FieldLayouts(&count);
    const std::string last_part = LastPart(record.path), folder = Folder(record.path);
    uint64_t omit = 0;
    char flags = 0;
    for (size_t i = 0; i < count; ++i) {
        const char *name = layouts[i].field;
        if (!Carried(layouts[i]) || std::strcmp(name, field::kPath) == 0 || (hit && !InHit(name))) {
            omit |= uint64_t{1} << i;
            continue;
        }
        const auto derive = [&](const char *derived_name, const std::string &derived, char flag) {
            if (std::strcmp(name, derived_name) != 0) return;
            const Json::Value &field = FieldOf(record.fields, name);
            if (!field.isString() || field.asString() != derived) return;
            omit |= uint64_t{1} << i;
            flags |= flag;
        };
        derive(field::kFSName, last_part, kNameIsLastPart);
        derive(field::kParent, folder, kParentIsFolder);
    }
    value.push_back(flags);
    PutVarint(&value, hit ? 0 : record.signature.size());
    if (!hit) value += record.signature;
    return value + EncodeData(record.fields, omit);
}

}  // namespace

std::string EncodeRecordValue(const FileRecord &record) { return EncodeCopy(record, false); }

std::string EncodeHitValue(const FileRecord &record) { return EncodeCopy(record, true); }

bool HitCarriesAll(const std::vector<std::string> &names) {
    return std::all_of(names.begin(), names.end(),
                       [](const std::string &name) { return name == field::kPath || InHit(name.c_str()); });
}

bool DecodeRecordValue(const std::string &value, std::string *path, std::string *signature, Json::Value *fields) {
    const size_t end = value.find('\0');
    if (end == std::string::npos || end + 1 >= value.size()) return false;
    const char flags = value[end + 1];
    size_t at = end + 2;
    uint64_t length = 0;
    if (!GetVarint(value, &at, &length) || length > value.size() - at) return false;
    if (path != nullptr) path->assign(value, 0, end);
    if (signature != nullptr) signature->assign(value, at, length);
    if (fields == nullptr) return true;
    if (!DecodeData(value.substr(at + length), fields)) return false;
    const std::string own_path = value.substr(0, end);
    (*fields)[field::kPath] = own_path;
    if (flags & kNameIsLastPart) (*fields)[field::kFSName] = LastPart(own_path);
    if (flags & kParentIsFolder) (*fields)[field::kParent] = Folder(own_path);
    return true;
}

bool CarriesAll(const std::vector<std::string> &names) {
    return std::all_of(names.begin(), names.end(), [](const std::string &name) {
        const FieldLayout *layout = FindLayout(name);
        return layout != nullptr && Carried(*layout);
    });
}

std::string DocIdTerm(Xapian::docid doc_id) {
    std::string term = kDocIdPrefix;
    PutVarint(&term, doc_id);
    return term;
}

std::map<std::string, std::string> ReadSignatures(const Xapian::Database &db, const Xapian::Query &filter,
                                                  Xapian::doccount page_size) {
    std::map<std::string, std::string> result;
    Xapian::Enquire enquire(db);
    enquire.set_weighting_scheme(Xapian::BoolWeight());
    enquire.set_sort_by_value(kRecordSlot, false);
    enquire.set_docid_order(Xapian::Enquire::DONT_CARE);
    const Xapian::Query all = filter.empty() ? Xapian::Query::MatchAll : filter;
    // Each page starts at the last value seen: values are unique (the path
    // leads), and a page's first record is the previous one's last.
    for (std::string last;;) {
        Xapian::Query query = all;
        if (!last.empty()) query = Xapian::Query(Xapian::Query::OP_FILTER, all, Xapian::Query(Xapian::Query::OP_VALUE_GE, kRecordSlot, last));
        enquire.set_query(query);
        // One more than the page after the first: the last value comes again.
        const Xapian::doccount wanted = last.empty() ? page_size : page_size + 1;
        const Xapian::MSet page = enquire.get_mset(0, wanted);
        Xapian::doccount fresh = 0;
        for (Xapian::MSetIterator it = page.begin(); it != page.end(); ++it) {
            std::string value = it.get_sort_key(), path, signature;
            if (value == last) continue;
            if (DecodeRecordValue(value, &path, &signature, nullptr)) result[std::move(path)] = std::move(signature);
            last = std::move(value);
            ++fresh;
        }
        if (page.size() < wanted || fresh == 0) return result;
    }
}

}  // namespace xap
}  // namespace zarnd
