#include "text_content.h"

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <zlib.h>

#include "utf8.h"

namespace zarnd {

namespace {

// Reads up to `limit` bytes from fd's current position, a first block and
// then the rest: a NUL in the first block ends the read there, as no text
// holds one (LooksLikeText).  The buffer grows with what the file holds,
// not with the limit: most files are far smaller.
bool ReadPlain(int fd, size_t limit, std::string *out) {
    constexpr size_t kFirstBlock = 4096;
    struct stat st;
    const size_t expected = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0
                                ? static_cast<size_t>(std::min<uint64_t>(limit, static_cast<uint64_t>(st.st_size)))
                                : limit;
    size_t got = 0, goal = std::min(limit, kFirstBlock);
    for (;;) {
        out->resize(goal);
        while (got < goal) {
            const ssize_t n = read(fd, &(*out)[got], goal - got);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return false;
            if (n == 0) break;
            got += static_cast<size_t>(n);
        }
        if (got < goal || goal == limit || (goal == kFirstBlock && std::memchr(out->data(), 0, got) != nullptr)) break;
        goal = std::min(limit, std::max(expected, 2 * goal));  // a file that grew meanwhile: on to the limit
    }
    out->resize(got);
    return true;
}

// Inflates up to `limit` bytes of a gzip stream (concatenated members too).
bool ReadGzip(int fd, size_t limit, std::string *out) {
    const int own = dup(fd);  // gzclose closes the descriptor it was given
    if (own < 0) return false;
    gzFile gz = gzdopen(own, "rb");
    if (gz == nullptr) {
        close(own);
        return false;
    }
    out->resize(limit);
    size_t got = 0;
    bool ok = true;
    while (got < limit) {
        const unsigned chunk = static_cast<unsigned>(std::min<size_t>(limit - got, 1u << 20));
        const int n = gzread(gz, &(*out)[got], chunk);
        if (n < 0) {
            ok = false;
            break;
        }
        if (n == 0) break;
        got += static_cast<size_t>(n);
    }
    // A truncated stream still yields what was inflated before the damage.
    gzclose(gz);
    out->resize(got);
    return ok || got > 0;
}

bool IsGzip(int fd) {
    unsigned char magic[2];
    const bool gzip = pread(fd, magic, 2, 0) == 2 && magic[0] == 0x1f && magic[1] == 0x8b;
    return gzip;
}

}  // namespace

bool LooksLikeText(const std::string &data) {
    size_t controls = 0;
    for (unsigned char c : data) {
        if (c == 0) return false;
        if ((c < 0x20 && c != '\t' && c != '\n' && c != '\r' && c != '\f' && c != '\v' &&
             c != 0x1b) ||
            c == 0x7f)
            ++controls;
    }
    return controls * 32 <= data.size();
}

bool ExtractText(int fd, std::string *text, size_t limit, uint64_t *bytes_read) {
    text->clear();
    if (bytes_read != nullptr) *bytes_read = 0;
    std::string raw;
    // A few bytes beyond the limit let the cut below fall between characters.
    const size_t want = limit + 4;
    if (lseek(fd, 0, SEEK_SET) != 0) return false;
    const bool ok = IsGzip(fd) ? ReadGzip(fd, want, &raw) : ReadPlain(fd, want, &raw);
    // Both readers move the descriptor's offset (gzip through its duplicate,
    // which shares it) by exactly what they took from the file.
    const off_t end = lseek(fd, 0, SEEK_CUR);
    if (bytes_read != nullptr && end > 0) *bytes_read = static_cast<uint64_t>(end);
    if (!ok || raw.empty() || !LooksLikeText(raw)) return false;
    std::string repaired = RepairUtf8(raw.data(), raw.size());
    repaired.resize(Utf8CutLength(repaired, limit));
    text->swap(repaired);
    return true;
}

}  // namespace zarnd
