#include "extract/markup.h"

#include <cstring>
#include <memory>

#include <libxml/HTMLparser.h>
#include <libxml/parser.h>
#include <libxml/xmlreader.h>

namespace zarnd {
namespace extract {

namespace {

constexpr size_t kChunk = 64 * 1024;

// The reader's input: the pull function, counted against the cap.
struct Source {
    const Pull *pull;
    size_t read = 0;
    bool too_big = false;
};

int ReadSource(void *context, char *buffer, int size) {
    Source *source = static_cast<Source *>(context);
    if (source->read >= kMaxMarkupBytes) {
        source->too_big = true;
        return -1;
    }
    const size_t want = std::min(static_cast<size_t>(size), kMaxMarkupBytes - source->read);
    const ssize_t got = (*source->pull)(buffer, want);
    if (got > 0) source->read += static_cast<size_t>(got);
    return static_cast<int>(got);
}

int CloseSource(void *) { return 0; }

std::string Text(const xmlChar *text) { return text == nullptr ? std::string() : reinterpret_cast<const char *>(text); }

void Silent(void *, const char *, ...) {}
void SilentStructured(void *, xmlErrorPtr) {}

xmlParserInputPtr NoLoading(const char *, const char *, xmlParserCtxtPtr) { return nullptr; }

// HTML elements after which the text goes on on a new line.
bool IsBlock(const std::string &name) {
    static const char *const kBlocks[] = {"p",  "div", "br", "li", "tr", "td", "th", "h1", "h2", "h3", "h4", "h5",
                                          "h6", "pre", "blockquote", "section", "article", "table", "ul", "ol", "dd", "dt"};
    for (const char *block : kBlocks)
        if (name == block) return true;
    return false;
}

// The SAX side of WalkHtml.
struct HtmlState {
    Sink *sink;
    HtmlMeta *meta;
    htmlParserCtxtPtr context = nullptr;
    int depth = 0;
    int hidden = 0;  // inside script, style, head's other elements
    bool in_title = false;
    WalkEnd end = WalkEnd::kEnd;
};

std::string Lower(std::string text) {
    for (char &c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

void HtmlStart(void *context, const xmlChar *name_text, const xmlChar **attributes) {
    HtmlState *state = static_cast<HtmlState *>(context);
    const std::string name = Lower(Text(name_text));
    if (++state->depth > kMaxMarkupDepth) {
        state->end = WalkEnd::kTooDeep;
        xmlStopParser(state->context);
        return;
    }
    if (name == "script" || name == "style" || name == "noscript" || name == "template") ++state->hidden;
    if (name == "title") state->in_title = true;
    if (name == "meta" && attributes != nullptr) {
        std::string meta_name, content;
        for (const xmlChar **a = attributes; a[0] != nullptr; a += 2) {
            const std::string key = Lower(Text(a[0]));
            if (key == "name" || key == "property") meta_name = Lower(Text(a[1]));
            if (key == "content") content = Text(a[1]);
        }
        if (meta_name == "keywords") state->meta->keywords = content;
        if (meta_name == "description" || meta_name == "og:description") state->meta->description = content;
        if (meta_name == "author") state->meta->author = content;
        if (meta_name == "generator") state->meta->generator = content;
    }
    if (IsBlock(name)) state->sink->Break();
}

void HtmlEnd(void *context, const xmlChar *name_text) {
    HtmlState *state = static_cast<HtmlState *>(context);
    const std::string name = Lower(Text(name_text));
    if (state->depth > 0) --state->depth;
    if ((name == "script" || name == "style" || name == "noscript" || name == "template") && state->hidden > 0)
        --state->hidden;
    if (name == "title") state->in_title = false;
    if (IsBlock(name)) state->sink->Break();
}

void HtmlCharacters(void *context, const xmlChar *text, int size) {
    HtmlState *state = static_cast<HtmlState *>(context);
    if (state->in_title) {
        if (state->meta->title.size() < kMaxFieldBytes)
            state->meta->title.append(reinterpret_cast<const char *>(text), static_cast<size_t>(size));
        return;
    }
    if (state->hidden > 0) return;
    if (!state->sink->Text(reinterpret_cast<const char *>(text), static_cast<size_t>(size))) {
        state->end = WalkEnd::kStopped;
        xmlStopParser(state->context);
    }
}

}  // namespace

Pull PullFrom(const char *data, size_t size) {
    auto at = std::make_shared<size_t>(0);
    return [data, size, at](char *buffer, size_t want) -> ssize_t {
        const size_t n = std::min(want, size - *at);
        std::memcpy(buffer, data + *at, n);
        *at += n;
        return static_cast<ssize_t>(n);
    };
}

void InitMarkup() {
    xmlInitParser();
    xmlSetGenericErrorFunc(nullptr, Silent);
    xmlSetStructuredErrorFunc(nullptr, SilentStructured);
    xmlSetExternalEntityLoader(NoLoading);
}

WalkEnd WalkXml(const Pull &pull, XmlEvents *events) {
    Source source{&pull};
    // No NOENT (entities stay references), no DTDLOAD, no network.
    const int options = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NOCDATA;
    std::unique_ptr<xmlTextReader, void (*)(xmlTextReaderPtr)> reader(
        xmlReaderForIO(ReadSource, CloseSource, &source, nullptr, nullptr, options), xmlFreeTextReader);
    if (!reader) return WalkEnd::kMalformed;
    xmlTextReaderPtr r = reader.get();
    const std::function<std::string(const char *)> attribute = [r](const char *name) {
        xmlChar *value = xmlTextReaderGetAttribute(r, reinterpret_cast<const xmlChar *>(name));
        std::string text = Text(value);
        xmlFree(value);
        return text;
    };
    int status;
    while ((status = xmlTextReaderRead(r)) == 1) {
        if (xmlTextReaderDepth(r) > kMaxMarkupDepth) return WalkEnd::kTooDeep;
        switch (xmlTextReaderNodeType(r)) {
        case XML_READER_TYPE_ELEMENT: {
            const std::string name = Text(xmlTextReaderConstLocalName(r));
            events->Start(name, attribute);
            if (xmlTextReaderIsEmptyElement(r)) events->End(name);
            break;
        }
        case XML_READER_TYPE_END_ELEMENT:
            events->End(Text(xmlTextReaderConstLocalName(r)));
            break;
        case XML_READER_TYPE_TEXT:
        case XML_READER_TYPE_CDATA:
        case XML_READER_TYPE_SIGNIFICANT_WHITESPACE: {
            const xmlChar *value = xmlTextReaderConstValue(r);
            if (value != nullptr) events->Text(reinterpret_cast<const char *>(value), std::strlen(reinterpret_cast<const char *>(value)));
            break;
        }
        default:  // entity references stay unexpanded; comments, declarations
            break;
        }
        if (events->Done()) return WalkEnd::kStopped;
    }
    if (source.too_big) return WalkEnd::kTooBig;
    return status == 0 ? WalkEnd::kEnd : WalkEnd::kMalformed;
}

WalkEnd WalkHtml(const Pull &pull, Sink *sink, HtmlMeta *meta) {
    htmlSAXHandler sax;
    std::memset(&sax, 0, sizeof sax);
    sax.startElement = HtmlStart;
    sax.endElement = HtmlEnd;
    sax.characters = HtmlCharacters;
    sax.cdataBlock = HtmlCharacters;
    HtmlState state{sink, meta};
    std::unique_ptr<htmlParserCtxt, void (*)(htmlParserCtxtPtr)> context(
        htmlCreatePushParserCtxt(&sax, &state, nullptr, 0, nullptr, XML_CHAR_ENCODING_NONE), htmlFreeParserCtxt);
    if (!context) return WalkEnd::kMalformed;
    state.context = context.get();
    htmlCtxtUseOptions(context.get(), HTML_PARSE_NONET | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING);
    std::unique_ptr<char[]> buffer(new char[kChunk]);
    size_t total = 0;
    for (;;) {
        const ssize_t got = pull(buffer.get(), kChunk);
        if (got < 0) return WalkEnd::kMalformed;
        total += static_cast<size_t>(got);
        htmlParseChunk(context.get(), buffer.get(), static_cast<int>(got), got == 0);
        if (state.end != WalkEnd::kEnd) return state.end;
        if (got == 0) return WalkEnd::kEnd;
        if (total >= kMaxMarkupBytes) return WalkEnd::kTooBig;
    }
}

std::string WalkProblem(WalkEnd end, const std::string &what) {
    switch (end) {
    case WalkEnd::kEnd:
    case WalkEnd::kStopped:
        return std::string();
    case WalkEnd::kTooBig:
        return what + " is larger than " + std::to_string(kMaxMarkupBytes >> 20) + " MiB";
    case WalkEnd::kTooDeep:
        return what + " nests elements deeper than " + std::to_string(kMaxMarkupDepth);
    case WalkEnd::kMalformed:
        return what + " is not well-formed";
    }
    return std::string();
}

}  // namespace extract
}  // namespace zarnd
