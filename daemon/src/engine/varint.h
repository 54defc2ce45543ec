// Unsigned integers in 7-bit groups, low group first, for compact values
// stored in the index.
#ifndef ZARND_VARINT_H
#define ZARND_VARINT_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace zarnd {

inline void PutVarint(std::string *out, uint64_t value) {
    for (; value >= 0x80; value >>= 7) out->push_back(static_cast<char>(0x80 | (value & 0x7f)));
    out->push_back(static_cast<char>(value));
}

// Reads one varint at in[*at]; false, *at unspecified, when it is cut or
// longer than 64 bits.
inline bool GetVarint(const std::string &in, size_t *at, uint64_t *value) {
    *value = 0;
    for (unsigned shift = 0; *at < in.size() && shift < 64; shift += 7) {
        const unsigned char byte = static_cast<unsigned char>(in[(*at)++]);
        *value |= uint64_t{byte & 0x7fu} << shift;
        if ((byte & 0x80) == 0) return true;
    }
    return false;
}

}  // namespace zarnd

#endif  // ZARND_VARINT_H
