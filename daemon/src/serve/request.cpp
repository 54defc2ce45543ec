#include "request.h"

#include <algorithm>

#include "failure.h"
#include "names.h"
#include "schema.h"

namespace zarnd {

namespace {

[[noreturn]] void Bad(const std::string &what) { throw Failure(kBadRequest, what); }

const Json::Value &Array(const Json::Value &data, const char *name, size_t max_entries) {
    const Json::Value &value = data[name];
    if (!value.isNull() && !value.isArray()) Bad(std::string("\"") + name + "\" is not an array");
    if (value.size() > max_entries)
        Bad(std::string("\"") + name + "\" has more than " + std::to_string(max_entries) + " entries");
    return value;
}

std::string String(const Json::Value &value, const std::string &what) {
    if (!value.isString()) Bad(what + " is not a string");
    return value.asString();
}

uint32_t Uid(const Json::Value &value, const std::string &what) {
    if (!value.isUInt()) Bad(what + " is not a user id");
    return value.asUInt();
}

uint32_t Count(const Json::Value &value, uint32_t absent, uint32_t min, uint32_t max, const char *name) {
    if (value.isNull()) return absent;
    if (!value.isUInt() || value.asUInt() < min || value.asUInt() > max)
        Bad(std::string("\"") + name + "\" must be an integer from " + std::to_string(min) + " to " +
            std::to_string(max));
    return value.asUInt();
}

// An index names a share, and a share is a folder: a name of at most 255
// bytes without control characters (the share table could not hold one).
// Checked here, before the name reaches the share service and its log.
std::string IndexName(const std::string &id, const char *member) {
    const bool control = std::any_of(id.begin(), id.end(), [](char c) { return c >= 0 && c < 0x20; });
    if (control || id.find('\x7f') != std::string::npos || id.size() > sizeof zarn::kIndexIdPrefix - 1 + 255)
        Bad(std::string(member) + " is not an index name");
    return id;
}

std::string IndexId(const Json::Value &indice) {
    if (indice.isString()) return IndexName(indice.asString(), "\"indice\"");
    if (!indice.isArray() || indice.size() != 1)
        Bad("\"indice\" must name exactly one index");
    return IndexName(String(indice[0], "\"indice\"[0]"), "\"indice\"[0]");
}

void ParseFilters(const Json::Value &data, SearchRequest *request) {
    for (const Json::Value &filter : Array(data, "filters", kMaxFilters)) {
        if (!filter.isObject()) Bad("a filter is not an object");
        const std::string name = String(filter["name"], "a filter's \"name\"");
        // An ignored filter could show what the client meant to hide.
        if (name != "permission") Bad("unknown filter " + name);
        request->permission_uid = Uid(filter["data"], "the permission filter's \"data\"");
        request->has_permission_uid = true;
    }
}

void ParseCollector(const Json::Value &data, SearchRequest *request) {
    const Json::Value &collector = data["collector"];
    if (collector.isNull()) return;
    if (!collector.isObject()) Bad("\"collector\" is not an object");
    if (collector.isMember("agent")) request->agent = String(collector["agent"], "the collector's \"agent\"");
    if (collector.isMember("uid")) {
        request->collector_uid = Uid(collector["uid"], "the collector's \"uid\"");
        request->has_collector_uid = true;
    }
}

void ParseFields(const Json::Value &data, SearchPlan *plan) {
    if (!data.isMember("fields")) {
        plan->fields = {field::kPath, field::kFSName, field::kExtension, field::kIsDir};
        return;
    }
    for (const Json::Value &name : Array(data, "fields", kMaxFields))
        plan->fields.push_back(String(name, "an entry of \"fields\""));
}

void ParseSorter(const Json::Value &data, SearchPlan *plan) {
    for (const Json::Value &entry : Array(data, "sorter", kMaxSortKeys)) {
        if (!entry.isObject()) Bad("a sort key is not an object");
        SortKey key;
        key.field = String(entry["field"], "a sort key's \"field\"");
        const std::string direction =
            entry.isMember("direction") ? String(entry["direction"], "a sort key's \"direction\"") : "asc";
        if (direction != "asc" && direction != "desc") Bad("unknown sort direction " + direction);
        key.descending = direction == "desc";
        const Json::Value &natural = entry["nature_sort"];
        if (!natural.isNull() && !natural.isBool()) Bad("\"nature_sort\" is not a boolean");
        key.natural = natural.asBool();
        plan->sort.push_back(key);
    }
}

void ParseHighlight(const Json::Value &data, SearchPlan *plan) {
    for (const Json::Value &entry : Array(data, "highlight", kMaxHighlights)) {
        if (!entry.isObject()) Bad("a highlight is not an object");
        HighlightRequest highlight;
        highlight.field = String(entry["field"], "a highlight's \"field\"");
        highlight.frag_length =
            Count(entry["frag_length"], kDefaultFragLength, 1, kMaxFragLength, "frag_length");
        plan->highlight.push_back(highlight);
    }
}

}  // namespace

SearchRequest ParseSearchRequest(const Json::Value &data) {
    if (!data.isObject()) Bad("\"data\" is not an object");
    SearchRequest request;
    request.index_id = IndexId(data["indice"]);
    SearchPlan &plan = request.plan;
    plan.size = Count(data["size"], kDefaultPageSize, 0, kMaxPageSize, "size");
    plan.from = Count(data["from"], 0, 0, kMaxPageEnd - plan.size, "from");
    const Json::Value &query = data["query_string"];
    if (!query.isNull()) {
        if (!query.isObject()) Bad("\"query_string\" is not an object");
        plan.query = String(query["query"], "\"query_string\".\"query\"");
        if (plan.query.size() > kMaxQueryBytes)
            Bad("the query is longer than " + std::to_string(kMaxQueryBytes) + " bytes");
        if (std::count(plan.query.begin(), plan.query.end(), '*') > static_cast<long>(kMaxQueryWildcards))
            Bad("the query has more than " + std::to_string(kMaxQueryWildcards) + " wildcards");
    }
    ParseFilters(data, &request);
    ParseCollector(data, &request);
    ParseFields(data, &plan);
    ParseSorter(data, &plan);
    ParseHighlight(data, &plan);
    return request;
}

DocumentRequest ParseDocumentRequest(const Json::Value &data) {
    if (!data.isObject()) Bad("\"data\" is not an object");
    DocumentRequest request;
    request.index_id = IndexName(String(data["id"], "\"id\""), "\"id\"");
    const Json::Value &doc_id = data["doc_id"];
    if (!doc_id.isInt() || doc_id.asInt() <= 0) Bad("\"doc_id\" is not a document id");
    request.doc_id = static_cast<uint32_t>(doc_id.asInt());
    return request;
}

}  // namespace zarnd
