// The text content of a document, kept apart from its fields: cut into
// chunks at word boundaries, each compressed on its own, so that a highlight
// reads and inflates only the chunks around its match, and hits that do not
// ask for text read none of it.
#ifndef ZARND_STORED_TEXT_H
#define ZARND_STORED_TEXT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zarnd {

constexpr size_t kTextChunkBytes = 2048;

// The text content handed out as a field, of a hit or of a document lookup:
// its first bytes, cut between characters.  Clients keep a few hundred bytes
// of it at most; the whole text is for searching and highlighting.
constexpr size_t kReturnedTextBytes = 2048;

// Whether a byte may belong to a word (what the engine indexes as one term
// is never split at such a byte); non-ASCII bytes count as word bytes.
bool IsWordByte(char c);

// Cuts `text` (valid UTF-8) into chunks of at most kTextChunkBytes: after the
// last blank that fits, else after the last ASCII character that is no part
// of a word, else between characters.  No word the engine would see spans
// two chunks.
std::vector<std::string> SplitText(const std::string &text);

// A chunk as stored: deflated, or as it is when that is not smaller.  One
// packer serves one thread; it keeps its compressor between chunks.
class ChunkPacker {
public:
    ChunkPacker();
    ~ChunkPacker();
    ChunkPacker(const ChunkPacker &) = delete;
    ChunkPacker &operator=(const ChunkPacker &) = delete;
    std::string Pack(const std::string &chunk);

private:
    struct State;
    std::unique_ptr<State> state_;
};

// The chunk, or its first `limit` bytes; false for bytes that Pack did not
// make.
bool UnpackChunk(const std::string &packed, std::string *chunk, size_t limit = SIZE_MAX);

// Where each chunk starts in the document's term positions: chunk k holds
// the positions above starts[k] up to starts[k + 1].
std::string EncodeChunkStarts(const std::vector<uint32_t> &starts);
bool DecodeChunkStarts(const std::string &encoded, std::vector<uint32_t> *starts);

}  // namespace zarnd

#endif  // ZARND_STORED_TEXT_H
