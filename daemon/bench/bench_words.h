// Words that the benches put in generated files, one per file, which no
// real text holds: "zq" (or another prefix) and a number in letters.
#ifndef ZARND_BENCH_BENCH_WORDS_H
#define ZARND_BENCH_BENCH_WORDS_H

#include <string>

namespace zarnbench {

inline std::string Letters(unsigned n, const char *prefix = "zq") {
    std::string word = prefix;
    do {
        word += static_cast<char>('a' + n % 26);
        n /= 26;
    } while (n > 0);
    return word;
}

}  // namespace zarnbench

#endif  // ZARND_BENCH_BENCH_WORDS_H
