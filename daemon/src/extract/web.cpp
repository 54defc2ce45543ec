// HTML and XML pages: their text without markup, an HTML page's title and
// what its meta elements say.
#include "extract/markup.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

bool IsHtml(const Input &input) { return input.kind == "text/html" || input.kind == "application/xhtml+xml"; }

bool IsXml(const Input &input) {
    return input.kind == "text/xml" || input.kind == "application/xml" || input.kind == "image/svg+xml";
}

void ExtractHtml(const Input &input, Sink *sink) {
    HtmlMeta meta;
    const WalkEnd end = WalkHtml(PullFrom(input.data, input.size), sink, &meta);
    sink->Set(field::kTitle, meta.title);
    sink->Set(field::kKeywords, meta.keywords);
    sink->Set(field::kDescription, meta.description);
    sink->Set(field::kAuthors, meta.author);
    sink->Set(field::kCreator, meta.generator);
    // A page too large or too deep keeps what was read of it.
    if (end == WalkEnd::kTooDeep) throw ExtractError(WalkProblem(end, "the page"));
}

// Every text of the document, a line per element that holds text.
class AllText : public XmlEvents {
public:
    explicit AllText(Sink *sink) : sink_(sink) {}
    void Start(const std::string &, const std::function<std::string(const char *)> &) override {}
    void End(const std::string &) override { sink_->Break(); }
    void Text(const char *text, size_t size) override { sink_->Text(text, size); }
    bool Done() override { return sink_->Full(); }

private:
    Sink *sink_;
};

void ExtractXml(const Input &input, Sink *sink) {
    AllText events(sink);
    const WalkEnd end = WalkXml(PullFrom(input.data, input.size), &events);
    if (end == WalkEnd::kTooDeep || end == WalkEnd::kMalformed) throw ExtractError(WalkProblem(end, "the XML"));
}

const Extractor kHtml = {"html", IsHtml, ExtractHtml};
const Extractor kXml = {"xml", IsXml, ExtractXml};
const Registration kHtmlRegistered(kHtml);
const Registration kXmlRegistered(kXml);

}  // namespace

}  // namespace extract
}  // namespace zarnd
