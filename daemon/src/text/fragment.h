// Highlight fragments: HTML-escaped text in which matched terms are wrapped
// in <em>...</em>, cut to the length that the client asked for.
#ifndef ZARND_FRAGMENT_H
#define ZARND_FRAGMENT_H

#include <cstddef>
#include <string>

namespace zarnd {

constexpr char kHighlightStart[] = "<em>";
constexpr char kHighlightEnd[] = "</em>";

// Cuts `fragment` to at most frag_length - 1 bytes: like every length limit
// of this system the count includes a terminating NUL, so the result fits a
// frag_length-byte buffer whole.  Shows the first highlight with context on
// both sides, cut at word boundaries, with "…" where text was left out.
// When even the highlight and those marks do not fit, shows as much of the
// highlight as fits.  Never splits a UTF-8 character, an escape such as
// "&amp;" or a highlight tag, and closes a highlight that the cut leaves
// open.  A frag_length below 2 gives "".
std::string CutFragment(const std::string &fragment, size_t frag_length);

}  // namespace zarnd

#endif  // ZARND_FRAGMENT_H
