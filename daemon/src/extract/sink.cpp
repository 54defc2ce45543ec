// The collecting side of every extractor, and the registry.
#include <time.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "extract/extractor.h"
#include "text_content.h"
#include "utf8.h"

namespace zarnd {
namespace extract {

namespace {

std::vector<const Extractor *> &Registry() {
    static std::vector<const Extractor *> registry;
    return registry;
}

std::string Trimmed(const std::string &text) {
    const size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) return std::string();
    return text.substr(begin, text.find_last_not_of(" \t\r\n") - begin + 1);
}

// A few bytes beyond a cap let the final cut fall between characters.
std::string Capped(const std::string &text, size_t cap) {
    std::string repaired = RepairUtf8(text.data(), std::min(text.size(), cap + 4));
    repaired.resize(Utf8CutLength(repaired, cap));
    return repaired;
}

}  // namespace

Registration::Registration(const Extractor &extractor) { Registry().push_back(&extractor); }

const Extractor *FindExtractor(const Input &input) {
    for (const Extractor *extractor : Registry())
        if (extractor->accepts(input)) return extractor;
    return nullptr;
}

bool Sink::Text(const char *data, size_t size) {
    const size_t room = kMaxTextBytes + 4 - std::min(text_.size(), kMaxTextBytes + 4);
    text_.append(data, std::min(size, room));
    return !Full();
}

void Sink::Break() {
    if (!text_.empty() && text_.back() != '\n') Text("\n", 1);
}

bool Sink::Full() const { return text_.size() >= kMaxTextBytes + 4; }

Field *Sink::Find(const char *key) {
    for (Field &field : reply_.fields)
        if (field.key == key) return &field;
    const ExtractedField *known = FindExtractedField(key);
    if (known == nullptr || reply_.fields.size() >= kMaxFields) return nullptr;
    reply_.fields.push_back(Field());
    reply_.fields.back().key = key;
    reply_.fields.back().type = known->type;
    return &reply_.fields.back();
}

void Sink::Set(const char *key, const std::string &value) {
    const std::string text = Capped(Trimmed(value), kMaxFieldBytes);
    if (text.empty()) return;
    if (Field *field = Find(key)) field->text = text;
}

void Sink::Add(const char *key, const std::string &value) {
    const std::string text = Trimmed(value);
    if (text.empty()) return;
    Field *field = Find(key);
    if (field == nullptr) return;
    field->text = Capped(field->text.empty() ? text : field->text + "; " + text, kMaxFieldBytes);
}

void Sink::SetInt(const char *key, int64_t value) {
    if (Field *field = Find(key)) field->number = value;
}

void Sink::SetDouble(const char *key, double value) {
    if (!std::isfinite(value)) return;  // JSON cannot carry it
    if (Field *field = Find(key)) field->real = value;
}

void Sink::SetBool(const char *key, bool value) {
    if (Field *field = Find(key)) field->number = value ? 1 : 0;
}

Reply Sink::Take() {
    reply_.text = Capped(text_, kMaxTextBytes);
    text_.clear();
    // A string field that stayed empty is no field.
    std::vector<Field> kept;
    for (Field &field : reply_.fields)
        if (field.type != FieldType::kString || !field.text.empty()) kept.push_back(std::move(field));
    reply_.fields.swap(kept);
    return std::move(reply_);
}

bool ParseIsoDate(const std::string &text, int64_t *seconds) {
    struct tm tm = {};
    int used = 0, hour = 0, minute = 0, second = 0;
    const char *s = text.c_str();
    while (*s == ' ' || *s == '\t' || *s == '\n' || *s == '\r') ++s;
    if (std::sscanf(s, "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &used) != 3 || used != 10) return false;
    s += used;
    if (*s == 'T' || *s == ' ') {
        used = 0;
        if (std::sscanf(s + 1, "%2d:%2d%n", &hour, &minute, &used) != 2 || used != 5) return false;
        s += 1 + used;
        if (*s == ':' && std::sscanf(s + 1, "%2d%n", &second, &used) == 1) s += 1 + used;
        if (*s == '.') for (++s; *s >= '0' && *s <= '9'; ++s) {}
    }
    int64_t offset = 0;
    if (*s == '+' || *s == '-') {
        int oh = 0, om = 0;
        if (std::sscanf(s + 1, "%2d:%2d", &oh, &om) != 2 && std::sscanf(s + 1, "%2d%2d", &oh, &om) != 2) return false;
        offset = (*s == '-' ? -1 : 1) * (oh * 3600 + om * 60);
    }
    if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || hour > 23 || minute > 59 ||
        second > 60)
        return false;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    tm.tm_hour = hour;
    tm.tm_min = minute;
    tm.tm_sec = second;
    *seconds = static_cast<int64_t>(timegm(&tm)) - offset;
    return true;
}

}  // namespace extract
}  // namespace zarnd
