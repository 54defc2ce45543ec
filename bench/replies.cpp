#include "replies.h"

#include <cstdint>
#include <cstdio>

#include <json/value.h>
#include <json/writer.h>

namespace zarnbench {
namespace {

const char *const kWords[] = {
    "projects", "archive",  "2023",    "clients",  "reports", "quarterly", "photos",
    "holiday",  "scans",    "invoices", "drafts",  "final",   "meeting",   "notes",
    "design",   "assets",   "backup",  "shared",   "team",    "summary",   "budget",
    "review",   "contract", "exports", "raw",      "edited",  "video",     "music",
    "library",  "research", "papers",  "build",    "release", "customer",  "north",
    "south",    "minutes",  "planning", "travel",  "family",  "documents", "misc",
};
constexpr int kWordCount = sizeof kWords / sizeof kWords[0];
const char *const kExtensions[] = {"pdf", "docx", "xlsx", "jpg", "png", "txt", "mp4", "md"};

// A small deterministic generator: the same index gives the same hit.
struct Mix {
    uint64_t state;
    explicit Mix(uint64_t seed) : state(seed * 0x9E3779B97F4A7C15ull + 1) {}
    uint64_t Next() {
        uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    int Below(int n) { return static_cast<int>(Next() % static_cast<uint64_t>(n)); }
};

std::string Compact(const Json::Value &value) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    writer["emitUTF8"] = true;
    return Json::writeString(writer, value);
}

// Words with a few highlighted terms, exactly `length` bytes.
std::string HighlightText(Mix &mix, size_t length) {
    std::string text;
    while (text.size() < length) {
        if (mix.Below(6) == 0) {
            text += "<em>";
            text += kWords[mix.Below(kWordCount)];
            text += "</em> ";
        } else {
            text += kWords[mix.Below(kWordCount)];
            text += ' ';
        }
    }
    text.resize(length);
    return text;
}

}  // namespace

const char *HitSetName(HitSet set) {
    return set == HitSet::kPlain ? "plain" : "highlight";
}

bool HitSetFromName(const std::string &name, HitSet *set) {
    if (name == "plain") *set = HitSet::kPlain;
    else if (name == "highlight") *set = HitSet::kHighlight;
    else return false;
    return true;
}

std::string HitText(HitSet set, int index) {
    Mix mix(static_cast<uint64_t>(index));
    const std::string extension = kExtensions[mix.Below(8)];
    char file[64];
    std::snprintf(file, sizeof file, "%s-%s-%05d.%s", kWords[mix.Below(kWordCount)],
                  kWords[mix.Below(kWordCount)], index % 100000, extension.c_str());
    // Folders until the path reaches `wanted`; the last word (at most 10
    // bytes and a "/") keeps it within 120.
    const size_t wanted = 60 + static_cast<size_t>(mix.Below(50));
    std::string path = "/bench";
    while (path.size() + 1 + std::char_traits<char>::length(file) < wanted) {
        path += '/';
        path += kWords[mix.Below(kWordCount)];
    }
    path += '/';
    path += file;

    Json::Value hit(Json::objectValue);
    hit["ZARNMDPath"] = path;
    hit["ZARNMDFSName"] = file;
    hit["ZARNMDExtension"] = extension;
    hit["ZARNMDIsDir"] = "n";
    hit["additional"]["doc_id"] = 100000 + index;
    if (set == HitSet::kHighlight) hit["highlight"]["ZARNMDTextContent"] = HighlightText(mix, 350);
    return Compact(hit);
}

std::string SearchTag(int count, HitSet set) {
    return "zarnbench n=" + std::to_string(count) + " set=" + HitSetName(set);
}

const char *const kDocumentFields[kDocumentFieldCount] = {
    "ZARNMDTitle",     "ZARNMDFSSize",   "ZARNMDPath",           "ZARNMDFSName",
    "ZARNMDExtension", "ZARNMDIsDir",    "ZARNMDDurationSecond", "ZARNMDAuthors",
    "ZARNMDKeywords",  "ZARNMDDateAdded",
};

std::string DocumentReplyText() {
    Mix mix(4242);
    Json::Value data(Json::objectValue);
    data["ZARNMDTitle"] = "Quarterly report, third quarter";
    data["ZARNMDFSSize"] = 1843221;
    data["ZARNMDPath"] = "/bench/projects/2023/clients/reports/quarterly/summary-final-04242.pdf";
    data["ZARNMDFSName"] = "summary-final-04242.pdf";
    data["ZARNMDExtension"] = "pdf";
    data["ZARNMDIsDir"] = "n";
    data["ZARNMDDurationSecond"] = 0.0;
    data["ZARNMDAuthors"] = "A. Writer; B. Editor";
    data["ZARNMDKeywords"] = "report, quarterly, budget, review";
    data["ZARNMDDateAdded"] = 1696118400;
    // Fields the lookup does not ask for, as a whole document carries them.
    data["ZARNMDContentCreationDate"] = 1693526400;
    data["ZARNMDContentModificationDate"] = 1696032000;
    data["ZARNMDFSCreationDate"] = 1693526400;
    data["ZARNMDOwnerUserID"] = "1026";
    data["ZARNMDOwnerGroupID"] = "100";
    data["ZARNMDMediaTypes"] = "document";
    data["ZARNMDParent"] = "/bench/projects/2023/clients/reports/quarterly";
    data["ZARNMDTextContent"] = HighlightText(mix, 1024);
    Json::Value reply(Json::objectValue);
    reply["success"] = true;
    reply["data"] = data;
    return Compact(reply);
}

}  // namespace zarnbench
