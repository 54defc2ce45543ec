#include "json_text.h"

#include <errno.h>

#include <cstdio>
#include <memory>
#include <new>

#include <json/reader.h>
#include <json/writer.h>

namespace zarn {
namespace json {

namespace {

// Built once and never destroyed, so that a parse during process exit still
// finds them.  newCharReader and newStreamWriter are const: safe to share.
// Each is kept only once fully set: when memory runs out part way, nothing
// leaks and the next call builds it again.
const Json::CharReaderBuilder &Reader() {
    static const Json::CharReaderBuilder *builder = [] {
        auto b = std::make_unique<Json::CharReaderBuilder>();
        (*b)["collectComments"] = false;
        (*b)["allowComments"] = false;
        (*b)["failIfExtra"] = true;
        return b.release();
    }();
    return *builder;
}

const Json::StreamWriterBuilder &Writer() {
    static const Json::StreamWriterBuilder *builder = [] {
        auto b = std::make_unique<Json::StreamWriterBuilder>();
        (*b)["indentation"] = "";
        (*b)["emitUTF8"] = true;
        return b.release();
    }();
    return *builder;
}

}  // namespace

bool FromString(const std::string &text, Json::Value *value) {
    std::unique_ptr<Json::CharReader> reader(Reader().newCharReader());
    // JsonCpp throws the same RuntimeError for nesting beyond its depth limit
    // (invalid text) and for a string whose malloc failed (no memory); only
    // the failed malloc leaves ENOMEM behind.
    errno = 0;
    try {
        if (reader->parse(text.data(), text.data() + text.size(), value, nullptr)) return true;
    } catch (const Json::RuntimeError &) {
        if (errno == ENOMEM) throw std::bad_alloc();
    }
    *value = Json::Value();
    return false;
}

std::string ToString(const Json::Value &value) {
    return Json::writeString(Writer(), value);
}

bool FromFile(const char *path, Json::Value *value) {
    *value = Json::Value();
    std::unique_ptr<FILE, int (*)(FILE *)> file(std::fopen(path, "rb"), std::fclose);
    if (!file) return false;
    std::string text;
    char chunk[65536];
    size_t got;
    while ((got = std::fread(chunk, 1, sizeof chunk, file.get())) > 0) {
        if (static_cast<long>(text.size() + got) > kMaxFileBytes) return false;
        text.append(chunk, got);
    }
    if (std::ferror(file.get())) return false;
    return FromString(text, value);
}

}  // namespace json
}  // namespace zarn
