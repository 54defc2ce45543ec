// ZARN::IR::DAEMON::Connection: the search record built from a hit packet,
// and the completion of every search request before it goes on the wire.
#include "zarn_connection.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "log.h"

namespace ZARN {
namespace IR {
namespace DAEMON {

namespace {

// Storage of the record's texts: one byte more than the cut for the two
// paths and the highlight.
constexpr size_t kPathStorage = ZARN_RECORD_PATH_MAX + 1;
constexpr size_t kHighlightStorage = ZARN_RECORD_HIGHLIGHT_MAX + 1;

// The fragment length asked of the daemon is the record's highlight cut.
constexpr int kHighlightFragmentLength = ZARN_RECORD_HIGHLIGHT_MAX;

constexpr char kTextContent[] = "ZARNMDTextContent";

struct RecordDeleter {
    void operator()(_tag_search_record *record) const { Connection::FreeRecord(record); }
};
using RecordHolder = std::unique_ptr<_tag_search_record, RecordDeleter>;

// The member `key` of `object` when it is there, else null.  Never throws,
// whatever kind of value `object` is.
const Json::Value *Member(const Json::Value &object, const char *key) {
    if (!object.isObject()) return nullptr;
    return object.find(key, key + std::strlen(key));
}

// The text of a string member; "" when the member is absent or holds anything
// but a string, so that an odd hit still yields a record.
const char *TextMember(const Json::Value &object, const char *key) {
    const Json::Value *member = Member(object, key);
    return member != nullptr && member->isString() ? member->asCString() : "";
}

// Cuts by bytes: a multi-byte character at the limit may be cut in two.
void CopyText(char *destination, size_t limit, const char *text) {
    std::snprintf(destination, limit, "%s", text);
}

}  // namespace

_tag_search_record *Connection::BuildRecordFromJson(const Json::Value &hit) {
    // Value-initialised, so that the holder frees only what was allocated
    // when a later allocation throws.
    RecordHolder record(new _tag_search_record());
    record->path = new char[kPathStorage];
    record->fs_name = new char[kPathStorage];

    CopyText(record->path, ZARN_RECORD_PATH_MAX, TextMember(hit, "ZARNMDPath"));
    CopyText(record->fs_name, ZARN_RECORD_PATH_MAX, TextMember(hit, "ZARNMDFSName"));
    CopyText(record->extension, ZARN_RECORD_EXTENSION_MAX, TextMember(hit, "ZARNMDExtension"));
    record->is_dir = std::strcmp(TextMember(hit, "ZARNMDIsDir"), "y") == 0 ? 1 : 0;

    const Json::Value *additional = Member(hit, "additional");
    const Json::Value *doc_id = additional != nullptr ? Member(*additional, "doc_id") : nullptr;
    if (doc_id != nullptr && doc_id->isInt()) {
        record->doc_id = doc_id->asInt();
    } else {
        record->doc_id = 0;
        ZARN_LOG(LOG_WARNING, "doc_id is not attached to search result");
    }

    const Json::Value *highlight = Member(hit, "highlight");
    if (highlight != nullptr && highlight->isObject()) {
        record->highlight = new char[kHighlightStorage];
        CopyText(record->highlight, ZARN_RECORD_HIGHLIGHT_MAX, TextMember(*highlight, kTextContent));
    }
    return record.release();
}

void Connection::FreeRecord(_tag_search_record *record) {
    if (record == nullptr) return;
    delete[] record->path;
    delete[] record->fs_name;
    delete[] record->highlight;
    delete record;
}

Json::Value Connection::RewriteSearchQuery(const Json::Value &request, unsigned int uid,
                                           const char *agent, ZARNQuerySorter *sorters,
                                           int sorter_count, ConnectionFlag flags) {
    Json::Value result(request);
    Json::Value &data = result["data"];

    Json::Value &permission = data["filters"][0u];
    permission["name"] = "permission";
    permission["data"] = Json::UInt(uid);

    Json::Value &collector = data["collector"];
    collector["agent"] = agent;
    collector["uid"] = Json::UInt(uid);

    const bool highlight = (flags & CONNECTION_FLAG_HIGHLIGHT) != 0;
    Json::Value fields(Json::arrayValue);
    fields.append("ZARNMDPath");
    fields.append("ZARNMDFSName");
    fields.append("ZARNMDExtension");
    fields.append("ZARNMDIsDir");
    if (highlight) fields.append(kTextContent);
    data["fields"] = fields;

    for (int i = 0; i < sorter_count; ++i) {
        Json::Value &key = data["sorter"][Json::ArrayIndex(i)];
        key["field"] = sorters[i].field;
        key["direction"] = (sorters[i].options & SORTER_OPTION_DESC) != 0 ? "desc" : "asc";
        if ((sorters[i].options & SORTER_OPTION_NATURE_SORT) != 0) key["nature_sort"] = true;
    }

    if (highlight) {
        Json::Value &wanted = data["highlight"][0u];
        wanted["field"] = kTextContent;
        wanted["frag_length"] = kHighlightFragmentLength;
    }
    return result;
}

}  // namespace DAEMON
}  // namespace IR
}  // namespace ZARN
