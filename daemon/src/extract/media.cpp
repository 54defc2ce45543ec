#include "extract/media.h"

#include <cstring>
#include <strings.h>

#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

enum class Kind { kText, kTrack, kDate };

struct Tag {
    const char *name;
    const char *key;
    Kind kind;
};

// The index finds the words of titles, artists, albums, composers, genres
// and comments without the field's name (their layouts).
const Tag kTags[] = {
    {"title", field::kTitle, Kind::kText},
    {"artist", field::kAuthors, Kind::kText},
    {"album", field::kAlbum, Kind::kText},
    {"composer", field::kComposer, Kind::kText},
    {"genre", field::kMusicalGenre, Kind::kText},
    {"comment", field::kComment, Kind::kText},
    {"description", field::kDescription, Kind::kText},
    {"encoder", field::kCreator, Kind::kText},
    {"encodedby", field::kCreator, Kind::kText},
    {"tracknumber", field::kAudioTrackNumber, Kind::kTrack},
    {"track", field::kAudioTrackNumber, Kind::kTrack},
    {"date", field::kRecordingYear, Kind::kDate},
    {"year", field::kRecordingYear, Kind::kDate},
    {"creation_time", field::kContentCreationDate, Kind::kDate},
};

bool Digit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

bool LeadingNumber(const std::string &text, int64_t *number) {
    size_t at = text.find_first_not_of(" \t");
    if (at == std::string::npos || !Digit(text[at])) return false;
    int64_t value = 0;
    for (; at < text.size() && Digit(text[at]) && value < 1000000000; ++at) value = value * 10 + (text[at] - '0');
    *number = value;
    return true;
}

// The containers of video.cpp's demuxer list.
bool IsVideoKind(const std::string &kind) {
    static const char *const kKinds[] = {
        "video/mp4",       "video/quicktime", "video/3gpp",     "video/3gpp2", "video/x-matroska",
        "video/webm",      "video/x-msvideo", "video/x-ms-asf", "video/x-ms-wmv", "video/x-flv",
        "video/mpeg",      "video/mp2t",      "video/ogg",      "application/x-matroska"};
    for (const char *known : kKinds)
        if (kind == known) return true;
    return false;
}

bool LeadingYear(const std::string &text, int64_t *year) {
    const size_t at = text.find_first_not_of(" \t");
    if (at == std::string::npos || text.size() - at < 4) return false;
    for (size_t i = at; i < at + 4; ++i)
        if (!Digit(text[i])) return false;
    if (text.size() > at + 4 && Digit(text[at + 4])) return false;  // not a year: 5 digits
    const int64_t value = std::stoll(text.substr(at, 4));
    if (value < 1) return false;
    *year = value;
    return true;
}

void SetMediaTag(const std::string &name, const std::string &value, Sink *sink) {
    for (const Tag &tag : kTags) {
        if (strcasecmp(name.c_str(), tag.name) != 0) continue;
        int64_t number = 0;
        switch (tag.kind) {
        case Kind::kText:
            sink->Add(tag.key, value);
            break;
        case Kind::kTrack:
            if (LeadingNumber(value, &number) && number > 0) sink->SetInt(tag.key, number);
            break;
        case Kind::kDate:
            // A full date is also the content's creation date.
            if (ParseIsoDate(value, &number)) sink->SetInt(field::kContentCreationDate, number);
            if (LeadingYear(value, &number)) sink->SetInt(field::kRecordingYear, number);
            break;
        }
        return;
    }
}

}  // namespace extract
}  // namespace zarnd
