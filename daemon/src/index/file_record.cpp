#include "file_record.h"

#include <algorithm>
#include <cstring>

#include "schema.h"
#include "text_content.h"
#include "utf8.h"

namespace zarnd {

namespace {

// Bumped whenever the records made from the same file change, so that the
// next run rebuilds every record.
constexpr char kRecordVersion[] = "r2";

void PutNumber(std::string *out, uint64_t value) {
    for (int shift = 0; shift < 64; shift += 8) out->push_back(static_cast<char>(value >> shift));
}

std::string Text(const std::string &bytes) { return RepairUtf8(bytes.data(), bytes.size()); }

// Names are the record's identity and what clients open: reversible text.
std::string Name(const std::string &bytes) { return EscapeName(bytes); }

// Birth time where the file system keeps one, else the earliest time known.
int64_t CreationTime(const struct statx &st) {
    if (st.stx_mask & STATX_BTIME) return st.stx_btime.tv_sec;
    return std::min(st.stx_mtime.tv_sec, st.stx_ctime.tv_sec);
}

}  // namespace

std::string EntrySignature(const Entry &entry) {
    std::string signature = kRecordVersion;
    PutNumber(&signature, entry.st.stx_size);
    PutNumber(&signature, static_cast<uint64_t>(entry.st.stx_mtime.tv_sec));
    PutNumber(&signature, entry.st.stx_mtime.tv_nsec);
    PutNumber(&signature, static_cast<uint64_t>(entry.st.stx_ctime.tv_sec));
    PutNumber(&signature, entry.st.stx_ctime.tv_nsec);
    PutNumber(&signature, entry.st.stx_ino);
    return signature + EncodeAccessChain(entry.access);
}

std::string SearchFileName(const std::string &name) {
    std::string words;
    bool blank = true;  // no leading blank, no double blanks
    for (char c : name) {
        const unsigned char u = static_cast<unsigned char>(c);
        const bool keep = u >= 0x80 || (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') ||
                          (u >= 'A' && u <= 'Z');
        if (keep) {
            words.push_back(c);
            blank = false;
        } else if (!blank) {
            words.push_back(' ');
            blank = true;
        }
    }
    if (!words.empty() && words.back() == ' ') words.pop_back();
    return words;
}

std::string Extension(const std::string &name) {
    const size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return std::string();
    return name.substr(dot + 1);
}

FileRecord MakeRecord(const Entry &entry, int content_fd, uint64_t *bytes_read) {
    const bool is_dir = S_ISDIR(entry.st.stx_mode);
    FileRecord record;
    record.path = Name(entry.path);
    record.access = EncodeAccessChain(entry.access);
    record.signature = EntrySignature(entry);
    Json::Value &f = record.fields;
    f[field::kPath] = record.path;
    f[field::kFSName] = Name(entry.name);
    f[field::kExtension] = is_dir ? std::string() : Name(Extension(entry.name));
    f[field::kIsDir] = is_dir ? "y" : "n";
    f[field::kFSSize] = Json::Int64(entry.st.stx_size);
    f[field::kFSCreationDate] = Json::Int64(CreationTime(entry.st));
    f[field::kFSContentChangeDate] = Json::Int64(entry.st.stx_mtime.tv_sec);
    f[field::kAttributeChangeDate] = Json::Int64(entry.st.stx_ctime.tv_sec);
    f[field::kOwnerUserID] = std::to_string(entry.st.stx_uid);
    f[field::kOwnerGroupID] = std::to_string(entry.st.stx_gid);
    f[field::kParent] = Name(entry.parent);
    f[field::kSearchFileName] = Text(SearchFileName(entry.name));
    std::string text;
    if (bytes_read != nullptr) *bytes_read = 0;
    if (content_fd >= 0 && ExtractText(content_fd, &text, kMaxTextBytes, bytes_read))
        f[field::kTextContent] = text;
    return record;
}

}  // namespace zarnd
