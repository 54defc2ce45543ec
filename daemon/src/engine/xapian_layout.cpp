#include "xapian_layout.h"

#include <cstdio>

#include "schema.h"
#include "sort_key.h"

namespace zarnd {
namespace xap {

namespace {

constexpr Xapian::valueno kNoSlot = Xapian::BAD_VALUENO;

// The file name's words (from both name fields) share one prefix: a search
// by name should not depend on which of the two spellings it hits.
const FieldLayout kLayouts[] = {
    {field::kPath, 10, 30, TermKind::kFreeText, "XP", false},
    {field::kFSName, 11, 31, TermKind::kFreeText, "XN", false},
    {field::kExtension, 12, 32, TermKind::kFreeText, "XE", false},
    {field::kIsDir, 13, 33, TermKind::kExact, "XD", false},
    {field::kFSSize, 14, kNoSlot, TermKind::kNone, "", true},
    {field::kFSCreationDate, 15, kNoSlot, TermKind::kNone, "", true},
    {field::kFSContentChangeDate, 16, kNoSlot, TermKind::kNone, "", true},
    {field::kAttributeChangeDate, 17, kNoSlot, TermKind::kNone, "", true},
    {field::kOwnerUserID, 18, 38, TermKind::kExact, "XU", false},
    {field::kOwnerGroupID, 19, 39, TermKind::kExact, "XG", false},
    {field::kParent, 20, 40, TermKind::kExact, "XF", false},
    {field::kSearchFileName, 21, 41, TermKind::kFreeText, "XN", false},
    {field::kTextContent, kNoSlot, kNoSlot, TermKind::kFreeText, "", false},
    // Read from inside documents; their words are found by bare words too.
    {field::kTitle, 22, 42, TermKind::kFreeText, "XT", false, true},
    {field::kAuthors, 23, 43, TermKind::kFreeText, "XA", false, true},
    {field::kKeywords, 29, kNoSlot, TermKind::kFreeText, "XK", false, true},
    {field::kDescription, 81, kNoSlot, TermKind::kFreeText, "XS", false, true},
    {field::kCreator, 24, 44, TermKind::kFreeText, "XC", false},
    {field::kIdentifier, 25, 45, TermKind::kFreeText, "XI", false},
    {field::kContentCreationDate, 26, kNoSlot, TermKind::kNone, "", true},
    {field::kContentModificationDate, 27, kNoSlot, TermKind::kNone, "", true},
    {field::kIsEncrypted, 28, 48, TermKind::kExact, "XY", false},
    // Read from photos, music and video.  What people look for music by is
    // found by bare words too; "f/2.8", "1/250" and ratings as one term.
    {field::kAcquisitionMake, 50, 70, TermKind::kFreeText, "XMA", false},
    {field::kAcquisitionModel, 51, 71, TermKind::kFreeText, "XMM", false},
    {field::kAperture, 52, 72, TermKind::kExact, "XMR", false},
    {field::kExposureTimeString, 53, 73, TermKind::kExact, "XMX", false},
    {field::kStarRating, 54, 74, TermKind::kExact, "XMS", false},
    {field::kAlbum, 55, 75, TermKind::kFreeText, "XMB", false, true},
    {field::kComposer, 56, 76, TermKind::kFreeText, "XMC", false, true},
    {field::kMusicalGenre, 57, 77, TermKind::kFreeText, "XMG", false, true},
    {field::kComment, kNoSlot, kNoSlot, TermKind::kFreeText, "XMO", false, true},
    {field::kMediaTypes, 58, 78, TermKind::kFreeText, "XMT", false},
    {field::kCodecs, 59, 79, TermKind::kFreeText, "XMK", false},
    {field::kISOSpeed, 60, kNoSlot, TermKind::kNone, "", true},
    {field::kResolutionWidthDPI, 61, kNoSlot, TermKind::kNone, "", true},
    {field::kResolutionHeightDPI, 62, kNoSlot, TermKind::kNone, "", true},
    {field::kAudioTrackNumber, 63, kNoSlot, TermKind::kNone, "", true},
    {field::kRecordingYear, 64, kNoSlot, TermKind::kNone, "", true},
    {field::kDurationSecond, 65, kNoSlot, TermKind::kNone, "", true},
    {field::kAudioBitRate, 66, kNoSlot, TermKind::kNone, "", true},
    {field::kVideoBitRate, 67, kNoSlot, TermKind::kNone, "", true},
    {field::kTotalBitRate, 68, kNoSlot, TermKind::kNone, "", true},
    {field::kAudioSampleRate, 69, kNoSlot, TermKind::kNone, "", true},
    {field::kAudioChannelCount, 80, kNoSlot, TermKind::kNone, "", true},
};
// A document's data tags each field by its index below 64 (xapian_document.cpp).
static_assert(sizeof kLayouts / sizeof kLayouts[0] <= 64, "too many fields for the data's tags");

// Xapian refuses terms above 245 bytes.
constexpr size_t kMaxTermBytes = 240;

}  // namespace

uint64_t Fnv1a(const std::string &text) {
    uint64_t hash = 14695981039346656037ull;
    for (unsigned char c : text) hash = (hash ^ c) * 1099511628211ull;
    return hash;
}

const FieldLayout *FieldLayouts(size_t *count) {
    *count = sizeof kLayouts / sizeof kLayouts[0];
    return kLayouts;
}

const FieldLayout *FindLayout(const std::string &field) {
    for (const FieldLayout &layout : kLayouts)
        if (field == layout.field) return &layout;
    return nullptr;
}

std::string BoundedTerm(const std::string &prefix, const std::string &value) {
    if (prefix.size() + value.size() <= kMaxTermBytes) return prefix + value;
    char hash[24];
    std::snprintf(hash, sizeof hash, "#%016llx", static_cast<unsigned long long>(Fnv1a(value)));
    return prefix + value.substr(0, kMaxTermBytes - prefix.size() - 17) + hash;
}

std::string BoundedTermStart(const std::string &prefix, const std::string &start) {
    return prefix + start.substr(0, kMaxTermBytes - prefix.size() - 17);
}

std::string NaturalSortValue(const std::string &text) {
    std::string key;
    AppendKeyComponent(&key, NaturalKey(text), false);
    return key + text;  // the last component needs no end mark
}

std::string RestrictionTerm(const Restriction &restriction) {
    return kRestrictionPrefix + std::to_string(restriction.classes) + std::to_string(restriction.uid) + ":" +
           std::to_string(restriction.gid);
}

bool ParseRestrictionTerm(const std::string &term, Restriction *restriction) {
    unsigned classes = 0;
    unsigned long uid = 0, gid = 0;
    int used = 0;
    const size_t prefix = sizeof kRestrictionPrefix - 1;
    if (term.compare(0, prefix, kRestrictionPrefix) != 0 ||
        std::sscanf(term.c_str() + prefix, "%1u%lu:%lu%n", &classes, &uid, &gid, &used) != 3 ||
        prefix + static_cast<size_t>(used) != term.size() || classes > 7 || uid > UINT32_MAX || gid > UINT32_MAX)
        return false;
    *restriction = {static_cast<uint32_t>(uid), static_cast<uint32_t>(gid), classes};
    return true;
}

std::string TextChunkKey(Xapian::docid doc_id, unsigned chunk) {
    std::string key = kTextChunkPrefix;
    for (int shift = 24; shift >= 0; shift -= 8) key.push_back(static_cast<char>(doc_id >> shift));
    key.push_back(static_cast<char>(chunk >> 8));
    key.push_back(static_cast<char>(chunk));
    return key;
}

}  // namespace xap
}  // namespace zarnd
