// A synthetic share for the daemon bench, and the text count of any tree.
//
//   zarnelasticd_corpus --files N [--seed S] [--source DIR] DEST
//   zarnelasticd_corpus --count DIR
//
// The first form writes N entries (files and folders) below DEST, a new or
// empty folder: folders nest up to ten levels, tens of entries in each; names
// carry numbers, dates and mixed case; owners, groups and modes vary; contents
// are passages cut from the text under SOURCE (default /usr/share/doc, plain
// and gzip files), written as plain or gzip text, plus binary files and empty
// ones.  Most files are small and a few are large.  The same seed and source
// give the same tree.  Owners need the right to chown: where it is refused,
// every file keeps the caller's ids and only modes vary (the summary says so).
//
// The second form prints, for an existing tree, the entries the indexer walks
// and the text they hold, counted as the indexer sees text (see CountText).
#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include <zlib.h>

#include "text_content.h"

namespace {

[[noreturn]] void Die(const std::string &what) {
    std::fprintf(stderr, "zarnelasticd_corpus: %s\n", what.c_str());
    std::exit(1);
}

[[noreturn]] void DieErrno(const std::string &what) { Die(what + ": " + std::strerror(errno)); }

// splitmix64: fast, and the same sequence on every platform for a seed.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t Next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint64_t Below(uint64_t n) { return n == 0 ? 0 : Next() % n; }
    double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }
    // Spread evenly over the orders of magnitude between lo and hi.
    uint64_t LogUniform(uint64_t lo, uint64_t hi) {
        return static_cast<uint64_t>(static_cast<double>(lo) * std::exp(Unit() * std::log(double(hi) / double(lo))));
    }
    // An index into `weights`, each chosen in proportion to its weight.
    template <size_t N>
    size_t Pick(const unsigned (&weights)[N]) {
        unsigned sum = 0;
        for (unsigned w : weights) sum += w;
        unsigned at = static_cast<unsigned>(Below(sum));
        for (size_t i = 0; i < N; ++i) {
            if (at < weights[i]) return i;
            at -= weights[i];
        }
        return N - 1;
    }

private:
    uint64_t state_;
};

// ---- Reading trees: the text source, and the count.

// Calls `visit(dirfd, name, st, depth)` for every entry below the folder
// open at `dirfd`, in name order, skipping "@eaDir" (the platform's own
// data, where the index lives) and entries on other file systems, following
// no symbolic link: the entries the indexer walks.
void Walk(int dirfd, dev_t dev, int depth,
          const std::function<void(int, const char *, const struct stat &, int)> &visit) {
    const int own = dup(dirfd);
    DIR *dir = own < 0 ? nullptr : fdopendir(own);
    if (dir == nullptr) {
        if (own >= 0) close(own);
        return;
    }
    std::vector<std::string> names;
    while (const dirent *e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name != "." && name != ".." && name != "@eaDir") names.push_back(name);
    }
    closedir(dir);
    std::sort(names.begin(), names.end());
    for (const std::string &name : names) {
        struct stat st;
        if (fstatat(dirfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || st.st_dev != dev) continue;
        visit(dirfd, name.c_str(), st, depth + 1);
        if (!S_ISDIR(st.st_mode)) continue;
        const int sub = openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub < 0) continue;
        Walk(sub, dev, depth + 1, visit);
        close(sub);
    }
}

void WalkTree(const std::string &root, const std::function<void(int, const char *, const struct stat &, int)> &visit) {
    const int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) DieErrno(root);
    Walk(fd, st.st_dev, 0, visit);
    close(fd);
}

// The first `limit` bytes of the content of the file open at `fd` (gzip
// inflated) into *head, and the length of the whole content into *full when
// it is not null (for gzip, that means inflating all of it).
void ReadContent(int fd, size_t limit, std::string *head, uint64_t *full) {
    head->clear();
    unsigned char magic[2];
    const bool gzip = pread(fd, magic, 2, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b;
    if (!gzip) {
        struct stat st;
        if (fstat(fd, &st) != 0) return;
        head->resize(std::min<uint64_t>(limit, st.st_size));
        ssize_t got = 0;
        while (static_cast<size_t>(got) < head->size()) {
            const ssize_t n = pread(fd, &(*head)[got], head->size() - got, got);
            if (n <= 0) break;
            got += n;
        }
        head->resize(got);
        if (full != nullptr) *full = st.st_size;
        return;
    }
    // The duplicate shares the offset, which an earlier read moved.
    const int own = lseek(fd, 0, SEEK_SET) == 0 ? dup(fd) : -1;
    gzFile gz = own < 0 ? nullptr : gzdopen(own, "rb");
    if (gz == nullptr) {
        if (own >= 0) close(own);
        return;
    }
    static char buffer[1 << 16];
    uint64_t total = 0;
    for (;;) {
        if (full == nullptr && head->size() >= limit) break;
        const int n = gzread(gz, buffer, sizeof buffer);
        if (n <= 0) break;  // a damaged stream still yields what came before
        if (head->size() < limit) head->append(buffer, std::min<size_t>(n, limit - head->size()));
        total += static_cast<uint64_t>(n);
    }
    gzclose(gz);
    if (full != nullptr) *full = total;
}

// Text is what the indexer takes as text: a regular file whose content (gzip
// inflated) passes its test for text on the part it reads.  The whole text
// counts every byte of such files; the indexed text only what the indexer
// keeps of each (its first kMaxTextBytes), as read, before any UTF-8 repair.
int CountText(const std::string &root) {
    uint64_t entries = 0, folders = 0, text_files = 0, text_bytes = 0, indexed_bytes = 0, file_bytes = 0;
    std::string head;
    WalkTree(root, [&](int dirfd, const char *name, const struct stat &st, int) {
        ++entries;
        if (S_ISDIR(st.st_mode)) ++folders;
        if (!S_ISREG(st.st_mode)) return;
        file_bytes += st.st_size;
        const int fd = openat(dirfd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) return;
        uint64_t full = 0;
        ReadContent(fd, zarnd::kMaxTextBytes, &head, nullptr);
        if (!head.empty() && zarnd::LooksLikeText(head)) {
            ReadContent(fd, 0, &head, &full);
            ++text_files;
            text_bytes += full;
            indexed_bytes += std::min<uint64_t>(full, zarnd::kMaxTextBytes);
        }
        close(fd);
    });
    std::printf("entries=%llu folders=%llu file_bytes=%llu text_files=%llu text_bytes=%llu indexed_text_bytes=%llu\n",
                (unsigned long long)entries, (unsigned long long)folders, (unsigned long long)file_bytes,
                (unsigned long long)text_files, (unsigned long long)text_bytes, (unsigned long long)indexed_bytes);
    return 0;
}

// Text to cut passages from: each text file of the source up to kPerFile,
// one after the other, in name order so that a seed always gives the same tree.
constexpr size_t kPerFile = 128 * 1024;
constexpr size_t kPoolCap = 64u << 20;

std::string LoadTextPool(const std::string &source) {
    std::string pool, head;
    WalkTree(source, [&](int dirfd, const char *name, const struct stat &st, int) {
        if (!S_ISREG(st.st_mode) || pool.size() >= kPoolCap) return;
        const int fd = openat(dirfd, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) return;
        ReadContent(fd, kPerFile, &head, nullptr);
        close(fd);
        if (head.empty() || !zarnd::LooksLikeText(head)) return;
        pool += head;
        if (pool.back() != '\n') pool += '\n';
    });
    if (pool.size() < 4096) Die("too little text under " + source);
    return pool;
}

// ---- Writing the tree.

constexpr int kMaxDepth = 10;  // folders below the top
const uint32_t kUids[] = {0, 1000, 1001, 1002, 1003};
const uint32_t kGids[] = {0, 100, 1000, 1001, 1002};
const mode_t kFileModes[] = {0644, 0664, 0640, 0600, 0444, 0755};
const unsigned kFileModeWeights[] = {60, 10, 14, 10, 3, 3};
const mode_t kDirModes[] = {0755, 0775, 0750, 0700, 0711};
const unsigned kDirModeWeights[] = {62, 10, 16, 9, 3};

enum Kind { kText, kGzip, kBinary, kEmpty };
const unsigned kKindWeights[] = {62, 4, 31, 3};

// Sizes: tiers of orders of magnitude, most files in the first.  The means
// (about 3 KB of text, 6 KB of binary) keep a million entries within a few GB.
struct Tier {
    unsigned weight;  // per 10,000
    uint64_t lo, hi;
};
const Tier kTextSizes[] = {{8500, 24, 2048}, {1355, 2048, 16384}, {140, 16384, 262144}, {5, 262144, 4u << 20}};
const Tier kBinarySizes[] = {{9200, 64, 4096}, {750, 4096, 65536}, {45, 65536, 1u << 20}, {5, 1u << 20, 8u << 20}};

// Name templates: {Y} {m} {d} {H} {M} {S} from the file's date, {n} a
// number, {q} a quarter, {n2}..{n5} a number zero-padded to that width.
const char *const kTextNames[] = {
    "report-{Y}-{m}.txt", "notes.txt", "Notes {n}.txt", "README", "README.md", "ReadMe.txt", "file{n}.log",
    "server-{n}.log", "app.log.{n}", "Meeting notes {Y}-{m}-{d}.txt", "chapter{n2}.md", "Chapter {n}.txt",
    "data_{n4}.csv", "draft v{n}.txt", "todo.TXT", "CHANGES", "index.html", "page{n}.html", "script_{n}.py",
    "config.ini", "Minutes {Y}.md", "letter{n3}.txt", "INSTALL", "Summary Q{q}.TXT"};
const char *const kGzipNames[] = {"changelog.{n}.gz", "syslog.{n}.gz", "access-{Y}{m}{d}.log.gz",
                                  "notes-{Y}.txt.gz", "changelog.Debian.gz", "Report {Y}-{m}.txt.gz"};
const char *const kBinaryNames[] = {
    "IMG_{n4}.jpg", "IMG_{n4}.JPG", "DSC{n5}.JPG", "Screenshot {Y}-{m}-{d} at {H}.{M}.{S}.png", "scan_{n3}.pdf",
    "Invoice-{Y}-{n3}.pdf", "backup-{Y}{m}{d}.zip", "track{n2}.mp3", "Report {Y}.docx", "photo{n}.jpeg",
    "R\xC3\xA9sum\xC3\xA9 {Y}.pdf", "video_{n3}.MP4", "archive{n}.tar", "data{n}.bin", ".DS_Store"};
const char *const kEmptyNames[] = {".keep", "empty.txt", "placeholder-{n}.txt", "lock", "__init__.py"};
const char *const kFolderNames[] = {
    "Projects", "Archive", "Photos", "Documents", "Reports", "Backup", "src", "docs", "logs", "Music",
    "Invoices", "Shared", "Old", "Scans", "Drafts", "Team", "Build", "data", "Assets", "{Y}", "{Y}-{m}",
    "Q{q} {Y}", "Client {n}", "project-{n}", "Album {n2}", "v{n}.{n}", "Week {n}", "batch_{n4}", "Holiday {Y}",
    "Meeting Notes", "misc", "TEMP"};

template <size_t N>
const char *PickName(Random &random, const char *const (&names)[N]) {
    return names[random.Below(N)];
}

// Dates between 2015 and 2024.
constexpr time_t kEpochStart = 1420070400, kEpochSpan = 315532800;

struct Owner {
    uint32_t uid, gid;
};

struct Totals {
    uint64_t folders = 0, files[4] = {}, bytes = 0;
    int deepest = 0;
};

class Generator {
public:
    Generator(uint64_t seed, std::string pool) : random_(seed), pool_(std::move(pool)) {
        // Binary content: random bytes, cut at random places like the text.
        noise_.resize(8u << 20);
        for (size_t i = 0; i + 8 <= noise_.size(); i += 8) {
            const uint64_t v = random_.Next();
            std::memcpy(&noise_[i], &v, 8);
        }
    }

    // Fills the folder open at `dirfd` (at `depth`, 0 the top) with `budget`
    // entries: some files here, the rest in sub-folders, shared unevenly.
    void Fill(int dirfd, int depth, uint64_t budget, Owner owner) {
        totals_.deepest = std::max(totals_.deepest, depth);
        const uint64_t here = depth >= kMaxDepth ? budget
                                                 : std::min(budget, depth == 0 ? random_.LogUniform(2, 12)
                                                                               : random_.LogUniform(3, 70));
        const uint64_t rest = budget - here;
        // Tens of entries per folder: a few sub-folders, more where much is left.
        const uint64_t folders = rest == 0 ? 0 : std::min({rest, random_.LogUniform(2, 15), 1 + rest / 25});
        std::unordered_set<std::string> taken;
        for (uint64_t i = 0; i < here; ++i) WriteFile(dirfd, &taken, owner);
        std::vector<double> weights(folders);
        double sum = 0;
        for (double &w : weights) sum += (w = std::exp(random_.Unit() * std::log(20.0)));
        // Each sub-folder is one entry, and takes a share of what is left.
        const uint64_t inside = rest - folders;
        double before = 0;
        for (uint64_t i = 0; i < folders; ++i) {
            const uint64_t from = static_cast<uint64_t>(inside * (before / sum));
            before += weights[i];
            const uint64_t to = i + 1 == folders ? inside : static_cast<uint64_t>(inside * (before / sum));
            MakeFolder(dirfd, depth + 1, to - from, &taken, owner);
        }
    }

    bool owners_varied() const { return chown_works_; }
    const std::string &chown_refusal() const { return chown_refusal_; }
    const Totals &totals() const { return totals_; }

private:
    Owner Inherit(Owner owner, unsigned percent_same) {
        if (random_.Below(100) < percent_same) return owner;
        return {kUids[random_.Below(5)], kGids[random_.Below(5)]};
    }

    void SetOwner(int fd, Owner owner) {
        if (!chown_works_) return;
        if (fchown(fd, owner.uid, owner.gid) == 0) return;
        if (errno != EPERM && errno != EINVAL) DieErrno("fchown");
        chown_works_ = false;  // ids outside the namespace or no right: modes only
        chown_refusal_ = std::strerror(errno);
    }

    std::string Expand(const char *pattern, time_t when) {
        struct tm tm;
        gmtime_r(&when, &tm);
        std::string out;
        char number[32];
        for (const char *p = pattern; *p != '\0'; ++p) {
            if (*p != '{') {
                out += *p;
                continue;
            }
            const char *end = std::strchr(p, '}');
            const std::string key(p + 1, end);
            p = end;
            int value = 0, width = 0;
            if (key == "Y") value = tm.tm_year + 1900, width = 4;
            else if (key == "m") value = tm.tm_mon + 1, width = 2;
            else if (key == "d") value = tm.tm_mday, width = 2;
            else if (key == "H") value = tm.tm_hour, width = 2;
            else if (key == "M") value = tm.tm_min, width = 2;
            else if (key == "S") value = tm.tm_sec, width = 2;
            else if (key == "n") value = static_cast<int>(random_.LogUniform(1, 1000));
            else if (key == "q") value = 1 + static_cast<int>(random_.Below(4));
            else {
                width = key[1] - '0';
                value = 1 + static_cast<int>(random_.Below(static_cast<uint64_t>(std::pow(10, width)) - 1));
            }
            std::snprintf(number, sizeof number, "%0*d", width, value);
            out += number;
        }
        return out;
    }

    // A name not yet taken in the folder: a few fresh draws, then a counter.
    template <size_t N>
    std::string UniqueName(const char *const (&names)[N], time_t when, std::unordered_set<std::string> *taken) {
        std::string name;
        for (int attempt = 0; attempt < 4; ++attempt) {
            name = Expand(PickName(random_, names), when);
            if (taken->insert(name).second) return name;
        }
        const size_t dot = name.find('.', 1);
        for (unsigned k = 2;; ++k) {
            const std::string numbered = dot == std::string::npos
                                             ? name + " (" + std::to_string(k) + ")"
                                             : name.substr(0, dot) + " (" + std::to_string(k) + ")" + name.substr(dot);
            if (taken->insert(numbered).second) return numbered;
        }
    }

    uint64_t Size(const Tier *tiers, size_t count) {
        unsigned at = static_cast<unsigned>(random_.Below(10000));
        for (size_t i = 0; i < count; ++i) {
            if (at < tiers[i].weight || i + 1 == count) return random_.LogUniform(tiers[i].lo, tiers[i].hi);
            at -= tiers[i].weight;
        }
        return 0;
    }

    // `size` bytes of `from` starting at `at`, wrapping around its end.
    static void WriteAll(int fd, const std::string &from, size_t at, uint64_t size) {
        while (size > 0) {
            const size_t chunk = std::min<uint64_t>(size, from.size() - at);
            const ssize_t n = write(fd, from.data() + at, chunk);
            if (n <= 0) DieErrno("write");
            size -= static_cast<uint64_t>(n);
            at = (at + static_cast<size_t>(n)) % from.size();
        }
    }

    // A passage starts at the beginning of a line.
    size_t PassageStart() {
        size_t at = random_.Below(pool_.size());
        const size_t newline = pool_.find('\n', at);
        if (newline != std::string::npos && newline - at < 512) at = (newline + 1) % pool_.size();
        return at;
    }

    void WriteGzip(int fd, size_t at, uint64_t size) {
        std::string text;
        while (text.size() < size) {
            const size_t chunk = std::min<uint64_t>(size - text.size(), pool_.size() - at);
            text.append(pool_, at, chunk);
            at = 0;
        }
        z_stream z = {};
        if (deflateInit2(&z, 1, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY) != Z_OK) Die("deflateInit2");
        std::string out(deflateBound(&z, text.size()), '\0');
        z.next_in = reinterpret_cast<Bytef *>(&text[0]);
        z.avail_in = static_cast<uInt>(text.size());
        z.next_out = reinterpret_cast<Bytef *>(&out[0]);
        z.avail_out = static_cast<uInt>(out.size());
        if (deflate(&z, Z_FINISH) != Z_STREAM_END) Die("deflate");
        out.resize(z.total_out);
        deflateEnd(&z);
        WriteAll(fd, out, 0, out.size());
    }

    void WriteBinary(int fd, const std::string &name, uint64_t size) {
        // The start of the usual format, NUL bytes included: binary at a glance.
#define ZARN_BYTES(literal) std::string(literal, sizeof(literal) - 1)
        static const std::string kHeads[] = {ZARN_BYTES("\xFF\xD8\xFF\xE0\x00\x10JFIF\x00"),
                                             ZARN_BYTES("\x89PNG\r\n\x1A\n\x00\x00\x00\x0DIHDR"),
                                             ZARN_BYTES("%PDF-1.7\n%\xE2\xE3\xCF\xD3\n1 0 obj\n\x00"),
                                             ZARN_BYTES("PK\x03\x04\x14\x00\x08\x00"),
                                             ZARN_BYTES("ID3\x04\x00\x00\x00\x00\x00"),
                                             ZARN_BYTES("\x00\x00\x00\x18" "ftypmp42")};
#undef ZARN_BYTES
        const char *dot = std::strrchr(name.c_str(), '.');
        const std::string ext = dot == nullptr ? "" : dot + 1;
        size_t kind = 3;
        if (strcasecmp(ext.c_str(), "jpg") == 0 || strcasecmp(ext.c_str(), "jpeg") == 0) kind = 0;
        else if (ext == "png") kind = 1;
        else if (ext == "pdf") kind = 2;
        else if (ext == "mp3") kind = 4;
        else if (strcasecmp(ext.c_str(), "mp4") == 0) kind = 5;
        const std::string &head = kHeads[kind];
        const uint64_t first = std::min<uint64_t>(size, head.size());
        WriteAll(fd, head, 0, first);
        WriteAll(fd, noise_, random_.Below(noise_.size()), size - first);
    }

    void WriteFile(int dirfd, std::unordered_set<std::string> *taken, Owner folder_owner) {
        const Kind kind = static_cast<Kind>(random_.Pick(kKindWeights));
        const time_t when = kEpochStart + static_cast<time_t>(random_.Below(kEpochSpan));
        std::string name;
        uint64_t size = 0;
        switch (kind) {
        case kText: name = UniqueName(kTextNames, when, taken), size = Size(kTextSizes, 4); break;
        case kGzip: name = UniqueName(kGzipNames, when, taken), size = Size(kTextSizes, 4); break;
        case kBinary: name = UniqueName(kBinaryNames, when, taken), size = Size(kBinarySizes, 4); break;
        case kEmpty: name = UniqueName(kEmptyNames, when, taken); break;
        }
        const mode_t mode = kFileModes[random_.Pick(kFileModeWeights)];
        const int fd = openat(dirfd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0) DieErrno(name);
        SetOwner(fd, Inherit(folder_owner, 90));
        if (kind == kText) WriteAll(fd, pool_, PassageStart(), size);
        if (kind == kGzip) WriteGzip(fd, PassageStart(), size);
        if (kind == kBinary) WriteBinary(fd, name, size);
        const struct timespec times[2] = {{when, 0}, {when, 0}};
        if (futimens(fd, times) != 0) DieErrno("futimens");
        struct stat st;
        if (fstat(fd, &st) != 0) DieErrno("fstat");
        close(fd);
        ++totals_.files[kind];
        totals_.bytes += static_cast<uint64_t>(st.st_size);
    }

    void MakeFolder(int dirfd, int depth, uint64_t budget, std::unordered_set<std::string> *taken, Owner parent) {
        const time_t when = kEpochStart + static_cast<time_t>(random_.Below(kEpochSpan));
        const std::string name = UniqueName(kFolderNames, when, taken);
        // Owner-only while it fills, so that the final mode cannot lock out its writer.
        if (mkdirat(dirfd, name.c_str(), 0700) != 0) DieErrno(name);
        const int fd = openat(dirfd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) DieErrno(name);
        ++totals_.folders;
        // A folder at the top is someone's; below, mostly its parent's.
        const Owner owner = Inherit(parent, depth == 1 ? 0 : 85);
        Fill(fd, depth, budget, owner);
        SetOwner(fd, owner);
        if (fchmod(fd, kDirModes[random_.Pick(kDirModeWeights)]) != 0) DieErrno("fchmod");
        const struct timespec times[2] = {{when, 0}, {when, 0}};
        if (futimens(fd, times) != 0) DieErrno("futimens");
        close(fd);
    }

    Random random_;
    std::string pool_;
    std::string noise_;
    bool chown_works_ = true;
    std::string chown_refusal_;
    Totals totals_;
};

int Generate(uint64_t files, uint64_t seed, const std::string &source, const std::string &dest) {
    const auto start = std::chrono::steady_clock::now();
    umask(0);
    if (mkdir(dest.c_str(), 0755) != 0 && errno != EEXIST) DieErrno(dest);
    const int fd = open(dest.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) DieErrno(dest);
    WalkTree(dest, [&](int, const char *name, const struct stat &, int) { Die(dest + " is not empty: " + name); });
    Generator generator(seed, LoadTextPool(source));
    generator.Fill(fd, 0, files, Owner{0, 0});
    close(fd);
    const Totals &t = generator.totals();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("corpus: %llu entries (%llu folders, %llu text files, %llu gzip text, %llu binary, %llu empty), "
                "%.1f MB, folders up to %d deep, seed %llu, %.1f s\n",
                (unsigned long long)files, (unsigned long long)t.folders, (unsigned long long)t.files[kText],
                (unsigned long long)t.files[kGzip], (unsigned long long)t.files[kBinary],
                (unsigned long long)t.files[kEmpty], t.bytes / 1e6, t.deepest, (unsigned long long)seed, seconds);
    if (generator.owners_varied())
        std::printf("corpus: owners from uids 0 1000 1001 1002 1003 and gids 0 100 1000 1001 1002\n");
    else
        std::printf("corpus: chown refused (%s): every entry has the caller's ids, only modes vary\n",
                    generator.chown_refusal().c_str());
    return 0;
}

bool ParseNumber(const char *text, uint64_t *value) {
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || text[0] == '-') return false;
    *value = v;
    return true;
}

int Usage(const char *program) {
    std::fprintf(stderr,
                 "usage: %s --files N [--seed S] [--source DIR] DEST\n"
                 "       %s --count DIR\n",
                 program, program);
    return 2;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc == 3 && std::strcmp(argv[1], "--count") == 0) return CountText(argv[2]);
    uint64_t files = 0, seed = 1;
    std::string source = "/usr/share/doc", dest;
    bool have_files = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--files" && has_value && ParseNumber(argv[i + 1], &files)) have_files = true, ++i;
        else if (arg == "--seed" && has_value && ParseNumber(argv[i + 1], &seed)) ++i;
        else if (arg == "--source" && has_value) source = argv[++i];
        else if (dest.empty() && arg[0] != '-') dest = arg;
        else return Usage(argv[0]);
    }
    if (!have_files || files == 0 || dest.empty()) return Usage(argv[0]);
    return Generate(files, seed, source, dest);
}
