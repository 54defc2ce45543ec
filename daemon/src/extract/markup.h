// Walks over XML and HTML for the extractors: libxml2's streaming reader
// and its HTML parser, fed from a pull function, under caps on size and
// depth.  No entity is expanded and nothing is loaded from a path or the
// network, whatever the text declares.
#ifndef ZARND_EXTRACT_MARKUP_H
#define ZARND_EXTRACT_MARKUP_H

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>

#include "extract/extractor.h"

namespace zarnd {
namespace extract {

// Bytes of one XML or HTML text read at most, and elements nested at most.
constexpr size_t kMaxMarkupBytes = 16u << 20;
constexpr int kMaxMarkupDepth = 128;  // below libxml2's own limit, which stops silently

// Fills `buffer` with up to `size` bytes; 0 at the end, -1 on an error.
using Pull = std::function<ssize_t(char *buffer, size_t size)>;

// A Pull over bytes in memory.
Pull PullFrom(const char *data, size_t size);

class XmlEvents {
public:
    virtual ~XmlEvents() = default;
    // `attribute` gives an attribute of the element by its qualified name,
    // "" when it has none; valid during the call only.
    virtual void Start(const std::string &local_name, const std::function<std::string(const char *)> &attribute) = 0;
    virtual void End(const std::string &local_name) = 0;
    virtual void Text(const char *text, size_t size) = 0;
    // True to stop the walk early (the text cap is reached).
    virtual bool Done() { return false; }
};

enum class WalkEnd { kEnd, kStopped, kTooBig, kTooDeep, kMalformed };

// Walks the XML text that `pull` gives.  kTooBig past kMaxMarkupBytes,
// kTooDeep past kMaxMarkupDepth, kMalformed where the parser gives up;
// the events before stay delivered.
WalkEnd WalkXml(const Pull &pull, XmlEvents *events);

// What an HTML page says about itself.
struct HtmlMeta {
    std::string title, keywords, description, author, generator;
};

// The text of an HTML (or XHTML) page into `sink`, without markup, script
// or style, one line per block; what its head says into *meta.
WalkEnd WalkHtml(const Pull &pull, Sink *sink, HtmlMeta *meta);

// Makes libxml2 quiet and unable to load anything by name: called once,
// before the sandbox closes.
void InitMarkup();

// "" for kEnd and kStopped, else why the walk ended, for the log.
std::string WalkProblem(WalkEnd end, const std::string &what);

}  // namespace extract
}  // namespace zarnd

#endif  // ZARND_EXTRACT_MARKUP_H
