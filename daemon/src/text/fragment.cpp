#include "fragment.h"

#include <algorithm>
#include <cstring>

#include "utf8.h"

namespace zarnd {

namespace {

const size_t kStartBytes = std::strlen(kHighlightStart);
const size_t kEndBytes = std::strlen(kHighlightEnd);

// Length of the indivisible piece at `at`: a tag, an escape, or a character.
size_t PieceLength(const std::string &text, size_t at) {
    if (text.compare(at, kStartBytes, kHighlightStart) == 0) return kStartBytes;
    if (text.compare(at, kEndBytes, kHighlightEnd) == 0) return kEndBytes;
    if (text[at] == '&') {
        const size_t semicolon = text.find(';', at);
        if (semicolon != std::string::npos && semicolon - at <= 10) return semicolon - at + 1;
    }
    const size_t length = Utf8SequenceLength(text.data() + at, text.size() - at);
    return length == 0 ? 1 : length;
}

// Where the cut fragment starts: at the beginning, unless that would leave
// out the first highlight; then late enough for the highlight to fit.
size_t FirstPieceToKeep(const std::string &text, size_t budget) {
    const size_t first = text.find(kHighlightStart);
    if (first == std::string::npos) return 0;
    const size_t close = text.find(kHighlightEnd, first);
    const size_t end = close == std::string::npos ? text.size() : close + kEndBytes;
    if (end <= budget) return 0;
    const size_t wanted = end - budget;
    size_t at = 0;
    while (at < wanted && at < first) at += PieceLength(text, at);
    return std::min(at, first);
}

}  // namespace

std::string CutFragment(const std::string &fragment, size_t frag_length) {
    if (frag_length < 2) return std::string();
    const size_t budget = frag_length - 1;
    if (fragment.size() <= budget) return fragment;
    std::string out;
    bool open = false;
    for (size_t at = FirstPieceToKeep(fragment, budget); at < fragment.size();) {
        const size_t length = PieceLength(fragment, at);
        const bool starts = length == kStartBytes && fragment.compare(at, length, kHighlightStart) == 0;
        const bool ends = length == kEndBytes && fragment.compare(at, length, kHighlightEnd) == 0;
        // Room for the piece and for closing whatever is open after it.
        const bool open_after = starts || (open && !ends);
        if (out.size() + length + (open_after ? kEndBytes : 0) > budget) break;
        out.append(fragment, at, length);
        open = open_after;
        at += length;
    }
    if (open && out.size() >= kStartBytes &&
        out.compare(out.size() - kStartBytes, kStartBytes, kHighlightStart) == 0) {
        out.resize(out.size() - kStartBytes);  // no empty highlight at the end
        open = false;
    }
    if (open) out += kHighlightEnd;
    return out;
}

}  // namespace zarnd
