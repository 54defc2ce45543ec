#include "json_text.h"

#include <errno.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

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

// One spare reader, kept between parses: building a reader costs about as
// much as parsing a search hit, and a search parses one packet per hit.  A
// parse takes the spare (or builds one when another thread holds it) and
// puts it back, even after a throw: a reader resets all its state at the
// start of every parse.
std::atomic<Json::CharReader *> spare_reader{nullptr};

// The spare goes when the library is unloaded; a parse after that builds
// another, as the first one did.
__attribute__((destructor)) void DropSpareReader() { delete spare_reader.exchange(nullptr); }

std::unique_ptr<Json::CharReader> TakeReader() {
    std::unique_ptr<Json::CharReader> reader(spare_reader.exchange(nullptr));
    if (!reader) reader.reset(Reader().newCharReader());
    return reader;
}

void PutBack(std::unique_ptr<Json::CharReader> reader) {
    delete spare_reader.exchange(reader.release());
}

}  // namespace

bool FromString(const std::string &text, Json::Value *value) {
    // Building a reader throws only when memory runs out.
    std::unique_ptr<Json::CharReader> reader = TakeReader();
    bool parsed = false;
    bool out_of_memory = false;
    // JsonCpp throws the same RuntimeError for nesting beyond its depth limit
    // (invalid text) and for a string whose malloc failed (no memory); only
    // the failed malloc leaves ENOMEM behind.
    errno = 0;
    try {
        parsed = reader->parse(text.data(), text.data() + text.size(), value, nullptr);
    } catch (const std::bad_alloc &) {
        out_of_memory = true;
    } catch (const Json::RuntimeError &) {
        out_of_memory = errno == ENOMEM;
    } catch (const std::exception &) {
        // Any other complaint of the parser is about the text.
    }
    PutBack(std::move(reader));
    if (parsed) return true;
    *value = Json::Value();
    if (out_of_memory) throw std::bad_alloc();
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
