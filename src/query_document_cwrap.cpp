// ZARNQueryDocumentFieldGet: reads chosen metadata fields of one indexed
// document and hands them back typed, as the field type table says.
#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <exception>
#include <string>

#include <json/value.h>

#include "field_type_table.h"
#include "json_text.h"
#include "log.h"
#include "zarncontentsearchutils.h"
#include "zarnplatform.h"

namespace zarn {

// Keep this list in ascending byte order: the check below refuses to build
// otherwise, so a misplaced or repeated key cannot slip in.
constexpr FieldTypeEntry kFieldTypeList[kFieldTypeCount] = {
    {"ZARNMDAcquisitionMake", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDAcquisitionModel", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDAlbum", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDAperture", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDAttributeChangeDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDAudioBitRate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDAudioChannelCount", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDAudioSampleRate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDAudioTrackNumber", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDAuthors", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDCodecs", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDComment", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDComposer", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDContentCreationDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDContentModificationDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDCreator", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDDateAdded", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDDescription", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDDurationSecond", DOCUMENT_FIELD_TYPE_DOUBLE},
    {"ZARNMDExposureTimeString", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDExtension", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDFSContentChangeDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDFSCreationDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDFSName", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDFSSize", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDFinderLabel", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDFinderOpenDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDGroupId", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDISOSpeed", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDIdentifier", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDIsDir", DOCUMENT_FIELD_TYPE_BOOL},
    {"ZARNMDIsEncrypted", DOCUMENT_FIELD_TYPE_BOOL},
    {"ZARNMDKeywords", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDLastUsedDate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDLogicalSize", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDMediaTypes", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDMusicalGenre", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDOwnerGroupID", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDOwnerUserID", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDParent", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDPath", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDPhysicalSize", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDPrivilege", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDRecordingYear", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDResolutionHeightDPI", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDResolutionWidthDPI", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDSearchAncestor", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDSearchFileName", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDSpotlightBoost", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDStarRating", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDTextContent", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDTitle", DOCUMENT_FIELD_TYPE_STRING},
    {"ZARNMDTotalBitRate", DOCUMENT_FIELD_TYPE_INT},
    {"ZARNMDVideoBitRate", DOCUMENT_FIELD_TYPE_INT},
    {"_ZARNMDUserTags", DOCUMENT_FIELD_TYPE_STRING},
};

namespace {

constexpr bool ByteLess(const char *a, const char *b) {
    while (*a != '\0' && *a == *b) {
        ++a;
        ++b;
    }
    return static_cast<unsigned char>(*a) < static_cast<unsigned char>(*b);
}

constexpr bool StrictlyAscending() {
    for (std::size_t i = 1; i < kFieldTypeCount; ++i) {
        if (!ByteLess(kFieldTypeList[i - 1].key, kFieldTypeList[i].key)) return false;
    }
    return true;
}
static_assert(StrictlyAscending(), "field type keys must be unique and in ascending byte order");

using FieldTypeMap = std::map<std::string, ZARNQueryDocumentFieldType>;

FieldTypeMap BuildFieldTypes() {
    FieldTypeMap table;
    for (const FieldTypeEntry &entry : kFieldTypeList) table.emplace_hint(table.end(), entry.key, entry.type);
    return table;
}

// Built during library load, before any caller can reach it; only read after.
const FieldTypeMap kFieldTypes = BuildFieldTypes();

}  // namespace

bool LookupFieldType(const char *key, ZARNQueryDocumentFieldType *type) {
    if (key == nullptr) return false;
    const auto found = kFieldTypes.find(key);
    if (found == kFieldTypes.end()) return false;
    *type = found->second;
    return true;
}

namespace {

constexpr int kIndexIdBytes = 4097;

// JsonCpp raises an error when asked for a string, array or object as a
// boolean; such a "success" is no success.
bool ReportsSuccess(const Json::Value &reply) {
    const Json::Value &success = reply["success"];
    return success.isConvertibleTo(Json::booleanValue) && success.asBool();
}

// Writes member into record as `type`, or leaves the record zeroed.  A null
// member is a field the document does not have: not worth a log line.
void ConvertField(const Json::Value &member, ZARNQueryDocumentFieldType type,
                  ZARNQueryDocumentFieldValue *record) {
    if (member.isNull()) return;
    const int actual = static_cast<int>(member.type());
    const char *begin = nullptr;
    const char *end = nullptr;
    switch (type) {
        case DOCUMENT_FIELD_TYPE_INT:
            if (!member.isInt()) {
                ZARN_LOG(LOG_ERR, "field type not matched, expect: int, actual: %d", actual);
                return;
            }
            record->value.int_value = member.asInt();
            break;
        case DOCUMENT_FIELD_TYPE_DOUBLE:
            // Integers count as doubles too; older JsonCpp says so only
            // through isInt.
            if (member.isDouble()) {
                record->value.double_value = member.asDouble();
            } else if (member.isInt()) {
                record->value.double_value = member.asInt();
            } else {
                ZARN_LOG(LOG_ERR, "field type not matched, expect: double, actual: %d", actual);
                return;
            }
            break;
        case DOCUMENT_FIELD_TYPE_BOOL:
            if (!member.isString()) {
                ZARN_LOG(LOG_ERR, "field type not matched, expect: string (bool), actual: %d", actual);
                return;
            }
            member.getString(&begin, &end);
            record->value.bool_value = end - begin == 1 && *begin == 'y';
            break;
        case DOCUMENT_FIELD_TYPE_STRING: {
            if (!member.isString()) {
                ZARN_LOG(LOG_ERR, "field type not matched, expect: string, actual: %d", actual);
                return;
            }
            member.getString(&begin, &end);
            // Cut by bytes: a multi-byte character at the limit may be split.
            const std::size_t length =
                std::min<std::size_t>(static_cast<std::size_t>(end - begin), ZARN_FIELD_STRING_MAX);
            std::snprintf(record->value.string_value, length + 1, "%s", begin);
            break;
        }
        default:
            return;
    }
    record->type = type;
}

void FillRecord(const Json::Value &data, const char *key, ZARNQueryDocumentFieldValue *record) {
    ZARNQueryDocumentFieldType type;
    if (!LookupFieldType(key, &type)) {
        ZARN_LOG(LOG_ERR, "unknown type of field %s", key != nullptr ? key : "(null)");
        return;
    }
    ConvertField(data[key], type, record);
}

// Sends the request for doc_id, reads the one reply and fills the records.
int FetchFields(int fd, const char *share, int doc_id, const char *const *field_names,
                int field_count, ZARNQueryDocumentFieldValue *values) {
    char index_id[kIndexIdBytes] = {};
    if (FILEIDXGetIndexID(share, index_id, kIndexIdBytes) <= 0) return ZARN_ERR_INDEX_ID;

    Json::Value data(Json::objectValue);
    data["id"] = index_id;
    data["doc_id"] = doc_id;
    Json::Value request(Json::objectValue);
    request["command"] = "document_get_by_internal_id";
    request["data"] = data;
    if (!zarndaemon::io::PacketWrite(fd, json::ToString(request))) return ZARN_ERR_WRITE;

    std::string text;
    if (!zarndaemon::io::PacketRead(fd, text)) {
        ZARN_LOG(LOG_DEBUG, "Failed to read socket, errno(%d): %m", errno);
        return ZARN_ERR_READ;
    }
    Json::Value parsed;
    const Json::Value &reply = parsed;  // const: member reads must not add members
    if (!json::FromString(text, &parsed) || !reply.isObject()) {
        ZARN_LOG(LOG_ERR, "response format is wrong: %s", text.c_str());
        return ZARN_ERR_FORMAT;
    }
    const Json::Value &fields = reply["data"];
    if (!ReportsSuccess(reply) || !fields.isObject()) {
        ZARN_LOG(LOG_ERR, "response failed: %s", text.c_str());
        return ZARN_ERR_FORMAT;
    }
    for (int i = 0; i < field_count; ++i) FillRecord(fields, field_names[i], &values[i]);
    return ZARN_OK;
}

void ZeroRecords(ZARNQueryDocumentFieldValue *values, int field_count) {
    if (field_count > 0) std::memset(values, 0, sizeof *values * static_cast<std::size_t>(field_count));
}

int LookupDocument(ZARNQueryHandle *handle, const char *share, int doc_id,
                   const char *const *field_names, int field_count,
                   ZARNQueryDocumentFieldValue *values) {
    if (field_count > 0 && (values == nullptr || field_names == nullptr)) return ZARN_ERR_INVALID;
    ZeroRecords(values, field_count);
    if (handle == nullptr) return ZARN_ERR_NO_MEMORY;
    if (share == nullptr) return ZARN_ERR_INVALID;
    try {
        return FetchFields(handle->fd, share, doc_id, field_names, field_count, values);
    } catch (const std::exception &) {
        // With the arguments checked, what is left to throw is memory running
        // out: std::bad_alloc, or JsonCpp's error when its malloc fails.
    }
    // A failed call hands back no values, not some of them.
    ZeroRecords(values, field_count);
    return ZARN_ERR_NO_MEMORY;
}

}  // namespace
}  // namespace zarn

extern "C" int ZARNQueryDocumentFieldGet(const char *share, int doc_id,
                                         const char *const *field_names, int field_count,
                                         ZARNQueryDocumentFieldValue *values) {
    // The connection is made before anything else, so that the daemon sees
    // one for every call, refused ones included.
    ZARNQueryHandle *handle = nullptr;
    ZARNQueryConnectionInit(&handle);
    const int result = zarn::LookupDocument(handle, share, doc_id, field_names, field_count, values);
    ZARNQueryConnectionClose(handle);
    return result;
}
