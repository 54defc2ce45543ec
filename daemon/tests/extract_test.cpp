// Documents read by the extraction workers, through the real indexer,
// daemon and library: each kind found by a word of its body and carrying its
// fields, typed; field search, ranges and sorts on them; hostile files that
// cost their own content only; the worker's confinement seen from inside.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <fstream>

#include "daemon_client.h"
#include "documents.h"
#include "harness.h"
#include "json_text.h"
#include "zarncontentsearchutils.h"
#include "zarnsearch_run.h"

namespace {

using namespace zarntest;
using Names = std::vector<std::string>;
using zarnbench::DocumentProperties;

constexpr char kShare[] = "/var/docs";

Json::Value Search(const std::string &query, const std::string &sort = "") {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": ["fileindex_docs"], "size": 100}})", &request);
    request["data"]["query_string"]["query"] = query;
    if (!sort.empty()) request["data"]["sorter"][0]["field"] = sort;
    return request;
}

// Paths of the hits in their order, and their ids.
Names Paths(const Json::Value &request, std::vector<int> *ids = nullptr) {
    Names names;
    for (const Json::Value &hit : Hits(request)) {
        names.push_back(hit["ZARNMDPath"].asString());
        if (ids != nullptr) ids->push_back(hit["additional"]["doc_id"].asInt());
    }
    return names;
}

Names PathsInTime(const std::string &query, const Names &expected, int seconds = 2) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    Names found;
    while ((found = Paths(Search(query, "ZARNMDPath"))) != expected && std::chrono::steady_clock::now() < deadline) usleep(20000);
    return found;
}

// A field as the library delivers it: "type:value".
std::string Shown(const ZARNQueryDocumentFieldValue &v) {
    switch (v.type) {
    case DOCUMENT_FIELD_TYPE_STRING: return "s:" + std::string(v.value.string_value);
    case DOCUMENT_FIELD_TYPE_BOOL: return std::string("b:") + (v.value.bool_value ? "1" : "0");
    case DOCUMENT_FIELD_TYPE_INT: return "i:" + std::to_string(v.value.int_value);
    default: return "none";
    }
}

const DocumentProperties kProps = {"Budget review", "Ann Smith", "quarterly numbers", "finance; plans",
                                   "Zarn Writer", "2021-03-04T05:06:07Z", "2022-01-02T03:04:05Z"};
constexpr int64_t kCreated = 1614834367, kModified = 1641092645;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kPeakKb = 1024 * 1024;  // the sanitizers' shadow memory and quarantine
#else
constexpr long kPeakKb = 300 * 1024;
#endif

class Extraction : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir(kShare, 0755));
        SetShareTable({{"docs", kShare}});
        WriteFile(kFolderConfig, R"([{"path": "/docs"}])");
    }
    void TearDown() override {
        StopDaemon(&daemon_);
        zarnbench::ReleaseFontCaches();
    }
    static std::string Path(const std::string &name) { return std::string(kShare) + "/" + name; }
    static Result Index() { return Shell(ZARNELASTICD " index --extract-timeout 2 --extract-workers 2"); }
    static std::string Log() { return Shell("cat /var/daemon.log").out; }
    void Start() {
        daemon_ = StartDaemon(ZARNELASTICD " --foreground --extract-timeout 2 2>>/var/daemon.log");
        ASSERT_GT(daemon_, 0) << Log();
    }
    // The daemon's peak memory, from the kernel.
    long PeakKb() const {
        std::ifstream status("/proc/" + std::to_string(daemon_) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.compare(0, 6, "VmHWM:") == 0) return std::stol(line.substr(6));
        return -1;
    }
    pid_t daemon_ = -1;
};

TEST_F(Extraction, EveryKindFoundByABodyWordWithItsFields) {
    struct Row {
        const char *name, *kind, *word;
        Names fields;  // Title, Authors, Keywords, Description, Creator, created, modified, encrypted
    };
    const Names kOffice = {"s:Budget review", "s:Ann Smith", "s:finance; plans", "s:quarterly numbers", "s:Zarn Writer",
                           "i:" + std::to_string(kCreated), "i:" + std::to_string(kModified), "b:0"};
    Names pdf = kOffice;
    pdf[7] = "b:0";
    const Names kPage = {"s:Budget review", "s:Ann Smith", "s:finance; plans", "s:quarterly numbers", "none", "none", "none", "none"};
    const Names kEbook = {"s:Budget review", "s:Ann Smith", "s:finance; plans", "s:quarterly numbers", "none",
                          "i:" + std::to_string(kCreated), "i:" + std::to_string(kModified), "b:0"};
    const Row rows[] = {
        {"report.pdf", "pdf", "aardvark", pdf},
        {"letter.docx", "docx", "bison", kOffice},
        {"sheet.xlsx", "xlsx", "cheetah", kOffice},
        {"slides.pptx", "pptx", "dingo", kOffice},
        {"essay.odt", "odt", "emu", kOffice},
        {"table.ods", "ods", "ferret", kOffice},
        {"talk.odp", "odp", "gazelle", kOffice},
        {"novel.epub", "epub", "heron", kEbook},
        {"page.html", "html", "ibis", kPage},
        {"scan.dat", "pdf", "jackal", pdf},     // an extension that lies
        {"memo", "docx", "koala", kOffice},     // none at all
    };
    for (const Row &row : rows)
        ASSERT_TRUE(zarnbench::WriteDocument(Path(row.name), row.kind, kProps, std::string("the ") + row.word + " runs far"));
    ASSERT_EQ(0, Shell(std::string("qpdf --encrypt user owner 256 -- ") + Path("report.pdf") + " " + Path("locked.pdf")).status);
    const Result run = Index();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("0 contents not read")) << run.out;
    Start();
    const char *keys[] = {"ZARNMDTitle", "ZARNMDAuthors", "ZARNMDKeywords", "ZARNMDDescription", "ZARNMDCreator",
                          "ZARNMDContentCreationDate", "ZARNMDContentModificationDate", "ZARNMDIsEncrypted"};
    for (const Row &row : rows) {
        std::vector<int> ids;
        ASSERT_EQ(Names({std::string("/docs/") + row.name}), Paths(Search(row.word), &ids)) << row.name;
        ZARNQueryDocumentFieldValue values[8];
        ASSERT_EQ(0, ZARNQueryDocumentFieldGet("docs", ids[0], keys, 8, values)) << row.name;
        Names shown;
        for (const auto &v : values) shown.push_back(Shown(v));
        EXPECT_EQ(row.fields, shown) << row.name;
    }
    // Field search, words of a phrase, ranges and sorts on the new fields.
    const Names all = {"/docs/essay.odt", "/docs/letter.docx", "/docs/memo", "/docs/novel.epub", "/docs/page.html",
                       "/docs/report.pdf", "/docs/scan.dat", "/docs/sheet.xlsx", "/docs/slides.pptx",
                       "/docs/table.ods", "/docs/talk.odp"};
    const std::pair<std::string, Names> cases[] = {
        {"ZARNMDAuthors:smith ZARNMDExtension:pdf", {"/docs/report.pdf"}},
        {"ZARNMDTitle:budget ZARNMDFSName:page", {"/docs/page.html"}},
        {"\"cheetah runs far\"", {"/docs/sheet.xlsx"}},
        {"\"runs cheetah\"", {}},
        {"ZARNMDIsEncrypted:y", {"/docs/locked.pdf"}},
        {"ZARNMDContentCreationDate:1614834367..1614834367 ZARNMDExtension:odt", {"/docs/essay.odt"}},
        {"ZARNMDContentCreationDate:0..1614834366", {}},
        {"hidden", {}},  // a page's script is not its text
    };
    for (const auto &c : cases) EXPECT_EQ(c.second, Paths(Search(c.first))) << c.first;
    Names sorted = Paths(Search("smith -ZARNMDExtension:html", "ZARNMDContentModificationDate"));
    EXPECT_EQ(10u, sorted.size());
    // Live indexing reads a saved document too.
    ASSERT_TRUE(zarnbench::WriteDocument("/var/new.pdf", "pdf", {}, "the lemming arrives"));
    ASSERT_EQ(0, Shell(std::string("mv /var/new.pdf ") + Path("new.pdf")).status);
    EXPECT_EQ(Names({"/docs/new.pdf"}), PathsInTime("lemming", {"/docs/new.pdf"})) << Log();
    // Unchanged documents are not read again.
    StopDaemon(&daemon_);
    const std::string again = Index().out;
    EXPECT_EQ(0u, again.find("docs: 0 added, 0 updated, 0 removed, 13 unchanged")) << again;
}

// Each hostile file loses its own content, logged once with its name; the
// rest is found; memory stays bounded in the indexer and the daemon.
TEST_F(Extraction, HostileFilesCostTheirOwnContentOnly) {
    // A page that takes long to read: every one of 3,000 pages draws one
    // large shared content stream.
    std::string slow = "%PDF-1.4\n1 0 obj<</Type/Catalog/Pages 2 0 R>>endobj\n4 0 obj<</Length 1400000>>stream\n";
    for (int i = 0; i < 100000; ++i) slow += "0 0 m 1 1 l S ";
    slow += "\nendstream endobj\n2 0 obj<</Type/Pages/Count 3000/Kids[";
    for (int i = 0; i < 3000; ++i) slow += std::to_string(10 + i) + " 0 R ";
    slow += "]>>endobj\n";
    for (int i = 0; i < 3000; ++i)
        slow += std::to_string(10 + i) + " 0 obj<</Type/Page/Parent 2 0 R/MediaBox[0 0 9 9]/Contents 4 0 R>>endobj\n";
    slow += "trailer<</Root 1 0 R>>\n%%EOF\n";
    std::string laughs = "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY l0 \"ha\">";
    for (int i = 1; i < 10; ++i)
        laughs += "<!ENTITY l" + std::to_string(i) + " \"" + [&] { std::string s; for (int k = 0; k < 10; ++k) s += "&l" + std::to_string(i - 1) + ";"; return s; }() + "\">";
    laughs += "]><l>&l9; otter</l>";
    WriteFile(Path("slow.pdf"), slow);
    WriteFile(Path("laughs.xml"), laughs);
    WriteFile(Path("empty.docx"), "");
    WriteFile(Path("photo.jpg"), std::string("\xff\xd8\xff\xe1\x7f\xff" "Exif\0\0MM\0\x2a\xff\xff\xff\xff", 20) + std::string(4000, '\x55'));
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<div>";
    WriteFile(Path("deep.html"), deep);
    WriteFile(Path("fine.txt"), "plain yak text\n");
    ASSERT_TRUE(zarnbench::WriteZip(Path("bomb.docx"), {{"[Content_Types].xml", "<Types/>"},
                                                      {"word/document.xml", "<w:document>" + std::string(24u << 20, ' ')}}));
    ASSERT_TRUE(zarnbench::WriteDocument(Path("good.pdf"), "pdf", kProps, "the walrus stays"));
    std::ifstream in(Path("good.pdf"));
    const std::string whole((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    WriteFile(Path("cut.pdf"), whole.substr(0, whole.size() / 3));
    WriteFile(Path("liar.docx"), whole);  // a PDF by its bytes
    // The photo's EXIF is corrupt: the image extractor refuses it.
    const Names failing = {"/docs/bomb.docx", "/docs/cut.pdf", "/docs/deep.html", "/docs/laughs.xml",
                           "/docs/photo.jpg", "/docs/slow.pdf"};
    const Result run = Index();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find(std::to_string(failing.size()) + " contents not read")) << run.out << run.err;
    for (const std::string &path : failing)
        EXPECT_NE(std::string::npos, run.err.find("content of " + path + " not read: ")) << path << run.err;
    rusage usage;
    getrusage(RUSAGE_CHILDREN, &usage);
    EXPECT_LT(usage.ru_maxrss, kPeakKb) << "KB, the indexer or a worker";
    Start();
    const std::pair<const char *, Names> found[] = {
        {"walrus", {"/docs/good.pdf", "/docs/liar.docx"}}, {"yak", {"/docs/fine.txt"}}, {"otter", {}},
        {"ZARNMDExtension:pdf", {"/docs/cut.pdf", "/docs/good.pdf", "/docs/slow.pdf"}}, {"ha", {}},
    };
    for (const auto &c : found) EXPECT_EQ(c.second, Paths(Search(c.first, "ZARNMDPath"))) << c.first;
    // The same files saved while the daemon runs: its log names each failure.
    ASSERT_EQ(0, Shell("mkdir /var/again && cp -a /var/docs/. /var/again/ && mv /var/again /var/docs/again").status);
    EXPECT_EQ(Names({"/docs/again/fine.txt", "/docs/fine.txt"}), PathsInTime("yak", {"/docs/again/fine.txt", "/docs/fine.txt"}, 20));
    for (const std::string &path : failing) {
        const std::string line = "content of /docs/again" + path.substr(5) + " not read: ";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (Log().find(line) == std::string::npos && std::chrono::steady_clock::now() < deadline) usleep(50000);
        const std::string log = Log();
        EXPECT_NE(std::string::npos, log.find(line)) << log;
        EXPECT_EQ(log.find(line), log.rfind(line)) << "logged twice: " << path;
    }
    EXPECT_LT(PeakKb(), 200 * 1024) << "KB, the daemon";
}

// Each worker's view of its sandbox.  As root with the unprivileged ids
// mapped it runs as nobody; where they are not (a user namespace of one
// id), as a root without capabilities.  Either way: no path opens, no
// socket is made, nothing may be written to files.
TEST(ExtractionSandbox, TheWorkerIsConfined) {
    const bool mapped = !Shell("awk '$3 > 65534' /proc/self/uid_map").out.empty();
    const std::string who = mapped ? "uid=65534 gid=65534 groups=0 caps=0 " : "uid=0 gid=0 groups=0 caps=0 ";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const std::string memory = "as=none";  // the sanitizers need terabytes of address space
#else
    const std::string memory = "as=1073741824";
#endif
    for (const char *worker : {ZARNELASTICD_EXTRACT, ZARNELASTICD_EXTRACT "-video"}) {
        const Result probe = Shell(std::string(worker) + " --probe | cat");
        ASSERT_EQ(0, probe.status) << worker << probe.err;
        EXPECT_EQ(who + "open=Permission denied socket=Operation not permitted fsize=0 " + memory + " cpu=600\n",
                  probe.out)
            << worker;
    }
}

}  // namespace
