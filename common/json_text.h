// JSON text helpers over JsonCpp's reader and writer: one JSON text in, one
// value out, and back.  They throw only std::bad_alloc (or JsonCpp's error
// for a string it could not allocate), when memory runs out: that is not a
// malformed text, and callers report it as such.
#ifndef ZARN_JSON_TEXT_H
#define ZARN_JSON_TEXT_H

#include <string>

#include <json/value.h>

namespace zarn {
namespace json {

// Parses exactly one JSON text (white space may surround it) into *value.
// False when the text is not valid JSON; *value is then null.
bool FromString(const std::string &text, Json::Value *value);

// One compact JSON text, UTF-8 kept as it is.
std::string ToString(const Json::Value &value);

// Reads the whole file and parses it.  False when the file cannot be read,
// is larger than kMaxFileBytes, or is not valid JSON; *value is then null.
bool FromFile(const char *path, Json::Value *value);

constexpr long kMaxFileBytes = 64L * 1024 * 1024;

}  // namespace json
}  // namespace zarn

#endif  // ZARN_JSON_TEXT_H
