// What the photo, music and video extractors share: the tags that songs and
// films carry under much the same names in every format (TagLib's property
// names, libavformat's metadata keys), and the kind a file is.
#ifndef ZARND_EXTRACT_MEDIA_H
#define ZARND_EXTRACT_MEDIA_H

#include <cstdint>
#include <string>

#include "extract/extractor.h"

namespace zarnd {
namespace extract {

// One tag, `name` in any case ("TITLE", "title", "TRACKNUMBER", "track"),
// into its field; a repeated one (two artists) joins the first.  Tags of no
// field are left out.
void SetMediaTag(const std::string &name, const std::string &value, Sink *sink);

// A container that the video extractor reads, by its media type
// ("video/mp4"), as libmagic names it.
bool IsVideoKind(const std::string &kind);

// The year that a date tag starts with ("1957", "1957-09-15", "1957/09"),
// between 1 and 9999.
bool LeadingYear(const std::string &text, int64_t *year);

// The first number of "3", "3/12", " 03 ".
bool LeadingNumber(const std::string &text, int64_t *number);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_MEDIA_H
