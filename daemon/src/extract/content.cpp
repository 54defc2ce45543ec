#include "extract/content.h"

#include <algorithm>
#include <cstring>

#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

bool MarkupName(const std::string &extension) {
    static const char *const kMarkup[] = {"html", "htm", "xhtml", "xml", "svg"};
    for (const char *markup : kMarkup)
        if (extension.size() == std::strlen(markup) &&
            std::equal(extension.begin(), extension.end(), markup,
                       [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; }))
            return true;
    return false;
}

// Markup, or a PDF written without binary bytes: text to the indexer's
// eyes, a document to a worker's.
bool DocumentText(const std::string &text) {
    if (text.compare(0, 5, "%PDF-") == 0) return true;
    size_t at = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;  // a byte order mark
    at = text.find_first_not_of(" \t\r\n", at);
    return at != std::string::npos && text[at] == '<';
}

}  // namespace

bool WantsWorker(const FileRecord &record, uint64_t size) {
    if (size == 0) return false;
    const Json::Value &text = record.fields[field::kTextContent];
    if (!text.isString()) return true;
    return MarkupName(record.fields[field::kExtension].asString()) || DocumentText(text.asString());
}

void DropContent(FileRecord *record) { record->fields.removeMember(field::kTextContent); }

Request RequestFor(const FileRecord &record, uint64_t size) {
    Request request;
    request.size = size;
    request.extension = record.fields[field::kExtension].asString();
    if (request.extension.size() > kMaxExtensionBytes) request.extension.clear();
    return request;
}

void MergeReply(const Reply &reply, FileRecord *record) {
    if (reply.status != Status::kDone) return;
    Json::Value &fields = record->fields;
    if (reply.text.empty())
        fields.removeMember(field::kTextContent);
    else
        fields[field::kTextContent] = reply.text;
    for (const Field &field : reply.fields) {
        switch (field.type) {
        case FieldType::kString:
            fields[field.key] = field.text;
            break;
        case FieldType::kInt:
            fields[field.key] = Json::Int64(field.number);
            break;
        case FieldType::kBool:
            fields[field.key] = field.number != 0 ? "y" : "n";
            break;
        case FieldType::kDouble:
            fields[field.key] = field.real;
            break;
        }
    }
}

}  // namespace extract
}  // namespace zarnd
