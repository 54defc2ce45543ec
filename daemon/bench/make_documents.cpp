// zarnelasticd_documents --one PATH KIND TITLE AUTHOR BODY: one document.
// zarnelasticd_documents DIR N [KIND,...]: writes N documents into DIR,
// cycling through the kinds (default: pdf docx xlsx pptx odt ods odp epub
// html), each made by its own library (documents.h).  Each body holds
// about 300 words of the text of /usr/share/common-licenses (seeded, so the
// same every time) and a word of its own, "zq" and the document's number
// in letters, which the bench searches for.  Prints "PATH WORD" per
// document.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "bench_words.h"
#include "documents.h"

namespace {

std::vector<std::string> Vocabulary() {
    std::vector<std::string> words;
    for (const char *name : {"/usr/share/common-licenses/GPL-3", "/usr/share/common-licenses/Apache-2.0"}) {
        std::ifstream in(name);
        for (std::string word; in >> word;) {
            std::string clean;
            for (char c : word)
                if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) clean += c;
            if (clean.size() > 2) words.push_back(clean);
        }
    }
    if (words.empty()) words = {"report", "budget", "meeting", "minutes", "license", "software", "review"};
    return words;
}


}  // namespace

using zarnbench::Letters;

int main(int argc, char **argv) {
    if (argc == 7 && std::string(argv[1]) == "--one") {
        const zarnbench::DocumentProperties properties = {argv[4], argv[5], "", "", "zarnelasticd_documents",
                                                          "2026-11-24T09:00:00Z", ""};
        return zarnbench::WriteDocument(argv[2], argv[3], properties, argv[6]) ? 0 : 1;
    }
    if (argc < 3) {
        std::fprintf(stderr, "usage: zarnelasticd_documents DIR N [KIND,...]\n"
                             "       zarnelasticd_documents --one PATH KIND TITLE AUTHOR BODY\n");
        return 2;
    }
    const std::string dir = argv[1];
    const unsigned count = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    std::vector<std::string> kinds = {"pdf", "docx", "xlsx", "pptx", "odt", "ods", "odp", "epub", "html"};
    if (argc > 3) {
        kinds.clear();
        std::stringstream list(argv[3]);
        for (std::string kind; std::getline(list, kind, ',');) kinds.push_back(kind);
    }
    mkdir(dir.c_str(), 0755);
    const std::vector<std::string> vocabulary = Vocabulary();
    std::mt19937 random(1);
    for (unsigned i = 0; i < count; ++i) {
        const std::string &kind = kinds[i % kinds.size()];
        const std::string word = Letters(i);
        std::string body;
        for (int w = 0; w < 300; ++w) body += vocabulary[random() % vocabulary.size()] + (w == 150 ? " " + word + " " : " ");
        zarnbench::DocumentProperties properties = {"Report " + std::to_string(i), "Author " + std::to_string(i % 50),
                                                    "", "", "make_documents", "2020-01-01T00:00:00Z", ""};
        const std::string path = dir + "/" + kind + "-" + std::to_string(i) + "." + kind;
        if (!zarnbench::WriteDocument(path, kind, properties, body)) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        std::printf("%s %s\n", path.c_str(), word.c_str());
    }
    return 0;
}
