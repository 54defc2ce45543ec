// The extractors a worker runs, one file each (pdf.cpp, office.cpp, ...).
// A file registers its extractor with a static Registration; the worker
// picks, for each file, the first that accepts the file's kind.  Adding a
// kind is adding a file to the worker's sources.
#ifndef ZARND_EXTRACT_EXTRACTOR_H
#define ZARND_EXTRACT_EXTRACTOR_H

#include <cstddef>
#include <stdexcept>
#include <string>

#include "extract/wire.h"

namespace zarnd {
namespace extract {

// What an extractor reads: the file's bytes, mapped, and its kind.
struct Input {
    const char *data;
    size_t size;
    std::string kind;       // media type from libmagic, "application/pdf"
    std::string extension;  // the name's, lower case, without the dot
};

// A damaged or hostile file: the message goes to the daemon's log.
class ExtractError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Collects an extractor's text and fields within the caps.
class Sink {
public:
    // Appends text; false once the text cap is reached (the extractor stops).
    bool Text(const char *data, size_t size);
    bool Text(const std::string &text) { return Text(text.data(), text.size()); }
    // Ends a paragraph: the next text starts on a line of its own.
    void Break();
    bool Full() const;
    // A field's value; blanks around it dropped, cut at kMaxFieldBytes,
    // nothing for an empty one.  Add joins a repeated value ("; ").
    void Set(const char *key, const std::string &value);
    void Add(const char *key, const std::string &value);
    void SetInt(const char *key, int64_t value);
    void SetDouble(const char *key, double value);  // a finite one only
    void SetBool(const char *key, bool value);
    // The reply, its text made valid UTF-8 and cut to the cap.
    Reply Take();

private:
    Field *Find(const char *key);

    std::string text_;
    Reply reply_;
};

struct Extractor {
    const char *name;
    bool (*accepts)(const Input &input);
    // Throws ExtractError (or std::bad_alloc at the memory limit).
    void (*extract)(const Input &input, Sink *sink);
};

class Registration {
public:
    explicit Registration(const Extractor &extractor);
};

// The first registered extractor that accepts `input`; null when none.
const Extractor *FindExtractor(const Input &input);

// An ISO 8601 date or date-time ("2024-03-05", "2024-03-05T10:20:30Z",
// "...+01:00") in Unix seconds; a time without a zone is read as UTC.
bool ParseIsoDate(const std::string &text, int64_t *seconds);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_EXTRACTOR_H
