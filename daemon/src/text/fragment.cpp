#include "fragment.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

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

const char kOmit[] = "\xE2\x80\xA6";  // what stands where text was cut
const size_t kOmitBytes = std::strlen(kOmit);

// The fragment's pieces, a highlight with its word as one piece, so that no
// cut falls inside one.
std::vector<std::pair<size_t, size_t>> Pieces(const std::string &text) {
    std::vector<std::pair<size_t, size_t>> pieces;  // begin, end
    for (size_t at = 0; at < text.size();) {
        size_t end = at + PieceLength(text, at);
        if (end - at == kStartBytes && text.compare(at, kStartBytes, kHighlightStart) == 0) {
            const size_t close = text.find(kHighlightEnd, end);
            end = close == std::string::npos ? text.size() : close + kEndBytes;
        }
        pieces.emplace_back(at, end);
        at = end;
    }
    return pieces;
}

bool Blank(const std::string &text, const std::pair<size_t, size_t> &piece) {
    return piece.second - piece.first == 1 && std::strchr(" \t\r\n", text[piece.first]) != nullptr;
}

// The first highlight with context on both sides, cut at word boundaries,
// "…" where text was left out; "" when the highlight alone does not fit in
// `budget` bytes.
std::string AroundFirstHighlight(const std::string &text, size_t budget) {
    const auto pieces = Pieces(text);
    size_t hit = 0;
    while (hit < pieces.size() && text.compare(pieces[hit].first, kStartBytes, kHighlightStart) != 0) ++hit;
    const bool highlighted = hit < pieces.size();
    if (!highlighted) hit = 0;  // the start of the text
    const auto size = [&](size_t first, size_t last) { return pieces[last].second - pieces[first].first; };
    const auto marks = [&](size_t first, size_t last) {
        return (first > 0 ? kOmitBytes : 0) + (last + 1 < pieces.size() ? kOmitBytes : 0);
    };
    if (size(hit, hit) > budget || (!highlighted && size(hit, hit) + marks(hit, hit) > budget)) return std::string();
    if (size(hit, hit) + marks(hit, hit) > budget) {  // the highlight, and one mark if it fits
        std::string out = text.substr(pieces[hit].first, size(hit, hit));
        if (hit > 0 && out.size() + kOmitBytes <= budget) return kOmit + out;
        if (hit + 1 < pieces.size() && out.size() + kOmitBytes <= budget) out += kOmit;
        return out;
    }
    // Grow a piece at a time on the side that has less, while it fits.
    size_t first = hit, last = hit;
    for (bool grew = true; grew;) {
        grew = false;
        const bool left_first = size(first, hit) <= size(hit, last);
        for (int side = 0; side < 2 && !grew; ++side) {
            if ((side == 0) == left_first && first > 0 && size(first - 1, last) + marks(first - 1, last) <= budget) {
                --first;
                grew = true;
            } else if ((side == 0) != left_first && last + 1 < pieces.size() &&
                       size(first, last + 1) + marks(first, last + 1) <= budget) {
                ++last;
                grew = true;
            }
        }
    }
    // Cuts fall between blank-separated words ("example.org" stays whole),
    // and no blank stands next to a mark.
    while (first < hit && first > 0 && !Blank(text, pieces[first - 1])) ++first;
    while (last > hit && last + 1 < pieces.size() && !Blank(text, pieces[last + 1])) --last;
    while (first < hit && first > 0 && Blank(text, pieces[first])) ++first;
    while (last > hit && last + 1 < pieces.size() && Blank(text, pieces[last])) --last;
    std::string out = text.substr(pieces[first].first, size(first, last));
    if (first > 0 && out.compare(0, kOmitBytes, kOmit) != 0) out = kOmit + out;
    if (last + 1 < pieces.size() && (out.size() < kOmitBytes || out.compare(out.size() - kOmitBytes, kOmitBytes, kOmit) != 0))
        out += kOmit;
    return out;
}

// Where the cut fragment starts when even a highlight alone does not fit:
// late enough for as much of it as can be shown.
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
    std::string out = AroundFirstHighlight(fragment, budget);
    if (!out.empty()) return out;
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
