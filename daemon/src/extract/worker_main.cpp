// zarnelasticd-extract: the extraction worker.  The daemon and the indexer
// start it with their end of a socket as descriptor 3; it confines itself
// (sandbox.h) and then answers one request per file it is handed, until the
// socket closes.
//
//   zarnelasticd-extract [--uid UID --gid GID] [--probe]
//
// --probe: confine, print what the sandbox allows (ProbeSandbox), exit.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include <magic.h>
#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include "extract/channel.h"
#include "extract/markup.h"
#include "extract/run.h"
#include "extract/sandbox.h"
#include "extract/signature.h"

#if defined(__SANITIZE_ADDRESS__)
// The leak check at exit stops the process's threads through ptrace, which
// the sandbox forbids: it would fail every worker's exit.
extern "C" int __lsan_is_turned_off() { return 1; }
#endif

namespace {

using namespace zarnd::extract;

constexpr int kSocketFd = 3;
// Larger files are not read: their names and metadata are still indexed.
constexpr size_t kMaxDocumentBytes = 256u << 20;
// libmagic looks at the start of a file.
constexpr size_t kSniffBytes = 8 * 1024;

void Quiet(const std::string &, void *) {}

// A one-page PDF, read once before the sandbox closes so that poppler sets
// up its global state (and reads its configuration) while it still may.
constexpr char kWarmUpPdf[] =
    "%PDF-1.1\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n2 0 obj<</Type/Pages/Kids[3 0 R]/Count 1>>endobj\n"
    "3 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 10 10]/Contents 4 0 R"
    "/Resources<</Font<</F1 5 0 R>>>>>>endobj\n4 0 obj<</Length 24>>stream\nBT /F1 9 Tf (w) Tj ET\n\nendstream endobj\n"
    "5 0 obj<</Type/Font/Subtype/Type1/BaseFont/Helvetica>>endobj\ntrailer<</Root 1 0 R>>\n%%EOF\n";

// poppler's global state lives while a document does: the warm-up
// document stays open for the worker's life, so that the state is not made
// anew (and its files looked for) inside the sandbox.
std::unique_ptr<poppler::document> WarmUp() {
    poppler::set_debug_error_function(Quiet, nullptr);
    std::unique_ptr<poppler::document> doc(
        poppler::document::load_from_raw_data(kWarmUpPdf, static_cast<int>(sizeof kWarmUpPdf - 1)));
    if (doc) {
        std::unique_ptr<poppler::page> page(doc->create_page(0));
        if (page) page->text();
    }
    InitMarkup();
    return doc;
}

std::string Lower(std::string text) {
    for (char &c : text)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return text;
}

uint64_t CpuMs() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<uint64_t>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000 +
           static_cast<uint64_t>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1000;
}

// libmagic's answer, unless it names no more than "text", "zip" or "some
// bytes": then the name says which kind to try (a page without <html>, an
// e-book whose first entry libmagic does not follow).  A file that is not
// what its name says then fails to parse, and its failure is logged.
std::string KindOf(const char *magic_kind, const std::string &extension) {
    const std::string kind = magic_kind == nullptr ? "application/octet-stream" : magic_kind;
    static const char *const kByName[][2] = {
        {"html", "text/html"},       {"htm", "text/html"},        {"xhtml", "text/html"},
        {"xml", "text/xml"},         {"pdf", "application/pdf"},  {"docx", "application/zip"},
        {"xlsx", "application/zip"}, {"pptx", "application/zip"}, {"odt", "application/zip"},
        {"ods", "application/zip"},  {"odp", "application/zip"},  {"epub", "application/zip"},
    };
    if (kind != "text/plain" && kind != "application/octet-stream" && kind != "application/zip") return kind;
    for (const auto &entry : kByName) {
        const bool text_kind = std::strncmp(entry[1], "text/", 5) == 0;
        // Text stays text unless the name says markup; bytes are never markup.
        if (extension == entry[0] && text_kind == (kind == "text/plain")) return entry[1];
    }
    return kind;
}

Reply Failed(const std::string &reason) {
    Reply reply;
    reply.status = Status::kFailed;
    reply.reason = reason;
    return reply;
}

Reply ExtractFile(int fd, const Request &request, magic_t magic) {
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return Failed("not a regular file");
    if (st.st_size == 0) return Reply();
    const size_t size = static_cast<size_t>(st.st_size);
    if (size > kMaxDocumentBytes)
        return Failed("larger than " + std::to_string(kMaxDocumentBytes >> 20) + " MiB: not read");
    void *map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (map == MAP_FAILED) return Failed(std::string("cannot map the file: ") + std::strerror(errno));
    Input input{static_cast<const char *>(map), size, std::string(), Lower(request.extension)};
    input.kind = AgreedKind(input.extension, input.data, size);
    if (input.kind.empty()) input.kind = KindOf(magic_buffer(magic, map, std::min(size, kSniffBytes)), input.extension);
    Reply reply = RunExtractor(input);
    munmap(map, size);
    return reply;
}

int Serve(magic_t magic) {
    for (;;) {
        std::string payload;
        int fd = -1;
        const Received got = ReceiveFrame(kSocketFd, &payload, &fd);
        if (got == Received::kClosed) return 0;
        if (got != Received::kFrame) return 1;
        Request request;
        Reply reply = fd < 0                              ? Failed("no file came with the request")
                      : !DecodeRequest(payload, &request) ? Failed("malformed request")
                                                          : ExtractFile(fd, request, magic);
        if (fd >= 0) close(fd);
        reply.cpu_ms = CpuMs();
        if (!SendFrame(kSocketFd, EncodeReply(reply))) return 1;
    }
}

}  // namespace

int main(int argc, char **argv) {
    // Nothing the caller held stays open here but the socket and the
    // standard streams.
    close_range(kSocketFd + 1, ~0u, 0);
    uid_t uid = 65534;
    gid_t gid = 65534;
    bool probe = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--uid") == 0 && i + 1 < argc)
            uid = static_cast<uid_t>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--gid") == 0 && i + 1 < argc)
            gid = static_cast<gid_t>(std::strtoul(argv[++i], nullptr, 10));
        else if (std::strcmp(argv[i], "--probe") == 0)
            probe = true;
        else {
            std::fprintf(stderr, "usage: zarnelasticd-extract [--uid UID --gid GID] [--probe]\n");
            return 2;
        }
    }
    // Times are read as UTC, and the zone is never looked up again: the
    // sandbox would refuse to open its file.
    setenv("TZ", "UTC", 1);
    tzset();
    magic_t magic = magic_open(MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS | MAGIC_NO_CHECK_ELF);
    if (magic == nullptr || magic_load(magic, nullptr) != 0) {
        std::fprintf(stderr, "zarnelasticd-extract: cannot load the magic database\n");
        return 1;
    }
    const std::unique_ptr<poppler::document> warm = WarmUp();
    const int quiet = open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::string problem;
    if (quiet < 0 || !EnterSandbox(uid, gid, &problem)) {
        std::fprintf(stderr, "zarnelasticd-extract: cannot confine itself: %s\n", problem.c_str());
        return 1;
    }
    if (probe) {
        std::printf("%s\n", ProbeSandbox().c_str());
        return 0;
    }
    // Confined, it may not write files: a library's message to a standard
    // error that is a log file would end it.
    dup2(quiet, STDERR_FILENO);
    close(quiet);
    return Serve(magic);
}
