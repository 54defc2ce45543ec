// gzip data for the tests of text extraction.
#ifndef ZARND_TEST_GZIP_TEXT_H
#define ZARND_TEST_GZIP_TEXT_H

#include <string>

#include <zlib.h>

inline std::string Gzip(const std::string &text) {
    std::string out(compressBound(static_cast<uLong>(text.size())) + 64, '\0');
    z_stream z{};
    deflateInit2(&z, 6, Z_DEFLATED, 16 + 15, 8, Z_DEFAULT_STRATEGY);  // 16: gzip framing
    z.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(text.data()));
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = reinterpret_cast<Bytef *>(&out[0]);
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

#endif  // ZARND_TEST_GZIP_TEXT_H
