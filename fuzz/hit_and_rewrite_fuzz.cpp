// Any JSON text as a hit packet and as a search request.
#include <cstdint>
#include <cstring>
#include <string>

#include <json/value.h>

#include "json_text.h"
#include "zarn_connection.h"

using ZARN::IR::DAEMON::Connection;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Json::Value value;
    if (!zarn::json::FromString(std::string(reinterpret_cast<const char *>(data), size), &value))
        return 0;
    if (value.isObject()) {
        _tag_search_record *record = Connection::BuildRecordFromJson(value);
        if (strlen(record->path) > 4095 || strlen(record->fs_name) > 4095 ||
            strnlen(record->extension, 16) > 15 ||
            (record->highlight != nullptr && strlen(record->highlight) > 349))
            __builtin_trap();
        Connection::FreeRecord(record);
    }
    ZARNQuerySorter sorters[2] = {{3, "ZARNMDFSName"}, {0, "ZARNMDFSSize"}};
    try {
        const Json::Value once = Connection::RewriteSearchQuery(value, 1026, "fuzz", sorters, 2,
                                                                CONNECTION_FLAG_HIGHLIGHT);
        const Json::Value twice = Connection::RewriteSearchQuery(once, 1026, "fuzz", sorters, 2,
                                                                 CONNECTION_FLAG_HIGHLIGHT);
        if (!(once == twice)) __builtin_trap();
    } catch (const Json::LogicError &) {
        // An ill-typed request member is refused by JsonCpp, as documented.
    }
    return 0;
}
