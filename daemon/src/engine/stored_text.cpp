#include "stored_text.h"

#include <zlib.h>

#include "utf8.h"
#include "varint.h"

namespace zarnd {

namespace {

constexpr char kRaw = 'r';
constexpr char kDeflated = 'z';

bool IsBlank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

// The length of the next chunk of text[at...].
size_t ChunkLength(const std::string &text, size_t at) {
    const size_t left = text.size() - at;
    if (left <= kTextChunkBytes) return left;
    size_t cut = kTextChunkBytes;
    while (cut > 0 && !IsBlank(text[at + cut - 1])) --cut;
    if (cut == 0) {
        cut = kTextChunkBytes;
        while (cut > 0 && IsWordByte(text[at + cut - 1])) --cut;
    }
    if (cut == 0) cut = Utf8CutLength(text.substr(at, kTextChunkBytes + 4), kTextChunkBytes);
    return cut == 0 ? kTextChunkBytes : cut;
}

}  // namespace

bool IsWordByte(char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return u >= 0x80 || (u >= '0' && u <= '9') || (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || c == '_' ||
           c == '\'' || c == '&' || c == '+' || c == '#';
}

std::vector<std::string> SplitText(const std::string &text) {
    std::vector<std::string> chunks;
    for (size_t at = 0; at < text.size();) {
        const size_t length = ChunkLength(text, at);
        chunks.push_back(text.substr(at, length));
        at += length;
    }
    return chunks;
}

struct ChunkPacker::State {
    z_stream stream{};
    bool ready = false;
};

ChunkPacker::ChunkPacker() : state_(new State) {
    // Raw deflate at its fastest, with a window and match table sized for
    // one chunk: each reset then clears a few KiB, not the default 64 KiB.
    state_->ready = deflateInit2(&state_->stream, Z_BEST_SPEED, Z_DEFLATED, -11, 5, Z_DEFAULT_STRATEGY) == Z_OK;
}

ChunkPacker::~ChunkPacker() {
    if (state_->ready) deflateEnd(&state_->stream);
}

std::string ChunkPacker::Pack(const std::string &chunk) {
    std::string packed(1, kRaw);
    if (state_->ready && deflateReset(&state_->stream) == Z_OK) {
        z_stream &z = state_->stream;
        std::string out(1 + deflateBound(&z, chunk.size()), kDeflated);
        z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(chunk.data()));
        z.avail_in = static_cast<uInt>(chunk.size());
        z.next_out = reinterpret_cast<Bytef *>(&out[1]);
        z.avail_out = static_cast<uInt>(out.size() - 1);
        if (deflate(&z, Z_FINISH) == Z_STREAM_END && z.total_out < chunk.size()) {
            out.resize(1 + z.total_out);
            return out;
        }
    }
    return packed + chunk;
}

bool UnpackChunk(const std::string &packed, std::string *chunk, size_t limit) {
    chunk->clear();
    if (packed.empty()) return false;
    if (packed[0] == kRaw) {
        chunk->assign(packed, 1, limit);
        return true;
    }
    if (packed[0] != kDeflated) return false;
    z_stream z{};
    if (inflateInit2(&z, -15) != Z_OK) return false;
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(packed.data() + 1));
    z.avail_in = static_cast<uInt>(packed.size() - 1);
    // A chunk is never larger than kTextChunkBytes; more is damage.
    const bool whole = limit > kTextChunkBytes;
    chunk->resize(whole ? kTextChunkBytes + 1 : limit);
    z.next_out = reinterpret_cast<Bytef *>(&(*chunk)[0]);
    z.avail_out = static_cast<uInt>(chunk->size());
    const int status = inflate(&z, Z_FINISH);
    chunk->resize(z.total_out);
    inflateEnd(&z);
    return whole ? status == Z_STREAM_END && chunk->size() <= kTextChunkBytes
                 : status == Z_STREAM_END || (status == Z_BUF_ERROR && chunk->size() == limit);
}

std::string EncodeChunkStarts(const std::vector<uint32_t> &starts) {
    std::string out;
    for (uint32_t start : starts) PutVarint(&out, start);
    return out;
}

bool DecodeChunkStarts(const std::string &encoded, std::vector<uint32_t> *starts) {
    starts->clear();
    for (size_t at = 0; at < encoded.size();) {
        uint64_t start = 0;
        if (!GetVarint(encoded, &at, &start) || start > UINT32_MAX) return false;
        starts->push_back(static_cast<uint32_t>(start));
    }
    return true;
}

}  // namespace zarnd
