#include "documents.h"

#include <archive.h>
#include <archive_entry.h>
#include <cairo-pdf.h>
#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <cstdio>
#include <memory>

namespace zarnbench {

namespace {

std::string Escaped(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '&') out += "&amp;";
        else out += c;
    }
    return out;
}

std::string Element(const char *name, const std::string &text) {
    return text.empty() ? std::string() : std::string("<") + name + ">" + Escaped(text) + "</" + name + ">";
}

constexpr char kXmlHead[] = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n";

std::string OoxmlCore(const DocumentProperties &p) {
    return std::string(kXmlHead) +
           "<cp:coreProperties xmlns:cp=\"http://schemas.openxmlformats.org/package/2006/metadata/core-properties\" "
           "xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:dcterms=\"http://purl.org/dc/terms/\" "
           "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">" +
           Element("dc:title", p.title) + Element("dc:creator", p.author) + Element("dc:subject", p.subject) +
           Element("cp:keywords", p.keywords) +
           (p.created.empty() ? "" : "<dcterms:created xsi:type=\"dcterms:W3CDTF\">" + p.created + "</dcterms:created>") +
           (p.modified.empty() ? "" : "<dcterms:modified xsi:type=\"dcterms:W3CDTF\">" + p.modified + "</dcterms:modified>") +
           "</cp:coreProperties>";
}

std::string OoxmlApp(const DocumentProperties &p) {
    return std::string(kXmlHead) +
           "<Properties xmlns=\"http://schemas.openxmlformats.org/officeDocument/2006/extended-properties\">" +
           Element("Application", p.creator) + "</Properties>";
}

std::string ContentTypes(const std::string &main_part, const std::string &type) {
    return std::string(kXmlHead) +
           "<Types xmlns=\"http://schemas.openxmlformats.org/package/2006/content-types\">"
           "<Default Extension=\"rels\" ContentType=\"application/vnd.openxmlformats-package.relationships+xml\"/>"
           "<Default Extension=\"xml\" ContentType=\"application/xml\"/>"
           "<Override PartName=\"/" + main_part + "\" ContentType=\"" + type + "\"/></Types>";
}

std::string Rels(const std::string &main_part) {
    return std::string(kXmlHead) +
           "<Relationships xmlns=\"http://schemas.openxmlformats.org/package/2006/relationships\">"
           "<Relationship Id=\"rId1\" Type=\"http://schemas.openxmlformats.org/officeDocument/2006/relationships/officeDocument\" Target=\"" +
           main_part + "\"/></Relationships>";
}

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries Ooxml(const std::string &kind, const DocumentProperties &p, const std::string &body) {
    std::string part, type, xml;
    if (kind == "docx") {
        part = "word/document.xml";
        type = "application/vnd.openxmlformats-officedocument.wordprocessingml.document.main+xml";
        xml = std::string(kXmlHead) +
              "<w:document xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/main\"><w:body><w:p><w:r>" +
              Element("w:t", body) + "</w:r></w:p></w:body></w:document>";
    } else if (kind == "xlsx") {
        part = "xl/workbook.xml";
        type = "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet.main+xml";
        xml = std::string(kXmlHead) + "<workbook xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\"/>";
    } else {
        part = "ppt/presentation.xml";
        type = "application/vnd.openxmlformats-officedocument.presentationml.presentation.main+xml";
        xml = std::string(kXmlHead) + "<p:presentation xmlns:p=\"http://schemas.openxmlformats.org/presentationml/2006/main\"/>";
    }
    Entries entries = {{"[Content_Types].xml", ContentTypes(part, type)}, {"_rels/.rels", Rels(part)}, {part, xml}};
    if (kind == "xlsx")
        entries.push_back({"xl/sharedStrings.xml",
                           std::string(kXmlHead) + "<sst xmlns=\"http://schemas.openxmlformats.org/spreadsheetml/2006/main\"><si>" +
                               Element("t", body) + "</si></sst>"});
    if (kind == "pptx")
        entries.push_back({"ppt/slides/slide1.xml",
                           std::string(kXmlHead) + "<p:sld xmlns:p=\"http://schemas.openxmlformats.org/presentationml/2006/main\" "
                               "xmlns:a=\"http://schemas.openxmlformats.org/drawingml/2006/main\"><a:p><a:r>" +
                               Element("a:t", body) + "</a:r></a:p></p:sld>"});
    entries.push_back({"docProps/core.xml", OoxmlCore(p)});
    entries.push_back({"docProps/app.xml", OoxmlApp(p)});
    return entries;
}

Entries Odf(const std::string &kind, const DocumentProperties &p, const std::string &body) {
    const std::string type = std::string("application/vnd.oasis.opendocument.") +
                             (kind == "odt" ? "text" : kind == "ods" ? "spreadsheet" : "presentation");
    const std::string ns = "xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
                           "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\" "
                           "xmlns:meta=\"urn:oasis:names:tc:opendocument:xmlns:meta:1.0\" "
                           "xmlns:dc=\"http://purl.org/dc/elements/1.1/\"";
    return {{"mimetype", type},
            {"content.xml", std::string(kXmlHead) + "<office:document-content " + ns + "><office:body><office:text>" +
                                Element("text:p", body) + "</office:text></office:body></office:document-content>"},
            {"meta.xml", std::string(kXmlHead) + "<office:document-meta " + ns + "><office:meta>" +
                             Element("dc:title", p.title) + Element("meta:initial-creator", p.author) +
                             Element("dc:subject", p.subject) + Element("meta:keyword", p.keywords) +
                             Element("meta:generator", p.creator) + Element("meta:creation-date", p.created) +
                             Element("dc:date", p.modified) + "</office:meta></office:document-meta>"},
            {"META-INF/manifest.xml",
             std::string(kXmlHead) + "<manifest:manifest xmlns:manifest=\"urn:oasis:names:tc:opendocument:xmlns:manifest:1.0\">"
                                     "<manifest:file-entry manifest:full-path=\"/\" manifest:media-type=\"" + type +
                 "\"/></manifest:manifest>"}};
}

Entries Epub(const DocumentProperties &p, const std::string &body) {
    return {{"mimetype", "application/epub+zip"},
            {"META-INF/container.xml",
             std::string(kXmlHead) + "<container version=\"1.0\" xmlns=\"urn:oasis:names:tc:opendocument:xmlns:container\">"
                                     "<rootfiles><rootfile full-path=\"OEBPS/content.opf\" "
                                     "media-type=\"application/oebps-package+xml\"/></rootfiles></container>"},
            {"OEBPS/content.opf",
             std::string(kXmlHead) + "<package xmlns=\"http://www.idpf.org/2007/opf\" version=\"3.0\">"
                                     "<metadata xmlns:dc=\"http://purl.org/dc/elements/1.1/\">" +
                 Element("dc:title", p.title) + Element("dc:creator", p.author) + Element("dc:subject", p.keywords) +
                 Element("dc:description", p.subject) + Element("dc:date", p.created) +
                 (p.modified.empty() ? "" : "<meta property=\"dcterms:modified\">" + p.modified + "</meta>") +
                 "</metadata><manifest><item id=\"c1\" href=\"chapter1.xhtml\" media-type=\"application/xhtml+xml\"/>"
                 "</manifest><spine><itemref idref=\"c1\"/></spine></package>"},
            {"OEBPS/chapter1.xhtml", std::string(kXmlHead) + "<html xmlns=\"http://www.w3.org/1999/xhtml\"><head><title>" +
                                         Escaped(p.title) + "</title></head><body>" + Element("p", body) +
                                         "</body></html>"}};
}

std::string Html(const DocumentProperties &p, const std::string &body) {
    return "<!DOCTYPE html>\n<html><head><title>" + Escaped(p.title) + "</title>" +
           (p.keywords.empty() ? "" : "<meta name=\"keywords\" content=\"" + Escaped(p.keywords) + "\">") +
           (p.subject.empty() ? "" : "<meta name=\"description\" content=\"" + Escaped(p.subject) + "\">") +
           (p.author.empty() ? "" : "<meta name=\"author\" content=\"" + Escaped(p.author) + "\">") +
           "<style>p { color: red; }</style></head><body><script>var hidden = 1;</script><p>" + Escaped(body) +
           "</p></body></html>\n";
}

}  // namespace

bool WritePdf(const std::string &path, const DocumentProperties &p, const std::vector<std::string> &pages) {
    cairo_surface_t *surface = cairo_pdf_surface_create(path.c_str(), 595, 842);
    if (cairo_surface_status(surface) != CAIRO_STATUS_SUCCESS) return false;
    const std::pair<cairo_pdf_metadata_t, const std::string *> metadata[] = {
        {CAIRO_PDF_METADATA_TITLE, &p.title},       {CAIRO_PDF_METADATA_AUTHOR, &p.author},
        {CAIRO_PDF_METADATA_SUBJECT, &p.subject},   {CAIRO_PDF_METADATA_KEYWORDS, &p.keywords},
        {CAIRO_PDF_METADATA_CREATOR, &p.creator},   {CAIRO_PDF_METADATA_CREATE_DATE, &p.created},
        {CAIRO_PDF_METADATA_MOD_DATE, &p.modified}};
    for (const auto &item : metadata)
        if (!item.second->empty()) cairo_pdf_surface_set_metadata(surface, item.first, item.second->c_str());
    cairo_t *cr = cairo_create(surface);
    cairo_select_font_face(cr, "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, 12);
    for (const std::string &page : pages) {
        double y = 60;
        for (size_t at = 0; at < page.size(); y += 16) {
            const size_t end = std::min(page.size(), at + 80);
            cairo_move_to(cr, 40, y);
            cairo_show_text(cr, page.substr(at, end - at).c_str());
            at = end;
        }
        cairo_show_page(cr);
    }
    cairo_destroy(cr);
    cairo_surface_finish(surface);
    const bool ok = cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS;
    cairo_surface_destroy(surface);
    return ok;
}

void ReleaseFontCaches() {
    cairo_debug_reset_static_data();
    FcFini();
}

bool WriteZip(const std::string &path, const std::vector<std::pair<std::string, std::string>> &entries) {
    std::unique_ptr<archive, int (*)(archive *)> zip(archive_write_new(), archive_write_free);
    if (archive_write_set_format_zip(zip.get()) != ARCHIVE_OK || archive_write_open_filename(zip.get(), path.c_str()) != ARCHIVE_OK)
        return false;
    for (const auto &item : entries) {
        // OpenDocument and EPUB keep their "mimetype" first and stored, so
        // that a reader of the first bytes knows the kind.
        if (item.first == "mimetype")
            archive_write_zip_set_compression_store(zip.get());
        else
            archive_write_zip_set_compression_deflate(zip.get());
        archive_entry *entry = archive_entry_new();
        archive_entry_set_pathname(entry, item.first.c_str());
        archive_entry_set_size(entry, static_cast<la_int64_t>(item.second.size()));
        archive_entry_set_filetype(entry, AE_IFREG);
        archive_entry_set_perm(entry, 0644);
        const bool ok = archive_write_header(zip.get(), entry) == ARCHIVE_OK &&
                        archive_write_data(zip.get(), item.second.data(), item.second.size()) ==
                            static_cast<la_ssize_t>(item.second.size());
        archive_entry_free(entry);
        if (!ok) return false;
    }
    return archive_write_close(zip.get()) == ARCHIVE_OK;
}

bool WriteDocument(const std::string &path, const std::string &kind, const DocumentProperties &p,
                   const std::string &body) {
    if (kind == "pdf") return WritePdf(path, p, {body});
    if (kind == "docx" || kind == "xlsx" || kind == "pptx") return WriteZip(path, Ooxml(kind, p, body));
    if (kind == "odt" || kind == "ods" || kind == "odp") return WriteZip(path, Odf(kind, p, body));
    if (kind == "epub") return WriteZip(path, Epub(p, body));
    if (kind != "html") return false;
    FILE *out = std::fopen(path.c_str(), "w");
    if (out == nullptr) return false;
    const std::string page = Html(p, body);
    const bool ok = std::fwrite(page.data(), 1, page.size(), out) == page.size();
    return std::fclose(out) == 0 && ok;
}

}  // namespace zarnbench
