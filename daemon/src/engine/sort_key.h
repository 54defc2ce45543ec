// Sort keys as byte strings: the engine sorts hits by comparing keys byte by
// byte, so every ordering a search asks for is encoded into the key itself.
#ifndef ZARND_SORT_KEY_H
#define ZARND_SORT_KEY_H

#include <string>

namespace zarnd {

// A key under which texts sort "naturally": runs of digits compare by their
// numeric value ("file2" before "file10", "a01" beside "a1"), letters compare
// without regard to ASCII case.  Other bytes compare as they are.
std::string NaturalKey(const std::string &text);

// Appends one component of a composite key.  Keys built from the same
// sequence of components then compare component by component, each in its
// own direction, whatever bytes the components hold.
void AppendKeyComponent(std::string *key, const std::string &component, bool descending);

}  // namespace zarnd

#endif  // ZARND_SORT_KEY_H
