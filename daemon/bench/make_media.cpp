// zarnelasticd_media DIR N KIND: writes N tagged media files of KIND (song,
// video or photo) into DIR, cycling through the formats of the kind
// (media_files.h): one file per format made by ffmpeg, then copies, each
// song and photo tagged with a title or description of its own that holds
// "zq" and the file's number in letters, which the bench searches for.
// Videos are one clip per format copied with another title.
// Prints "PATH WORD" per file.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench_words.h"
#include "media_files.h"


using zarnbench::Letters;

int main(int argc, char **argv) {
    const std::string kind = argc == 4 ? argv[3] : "";
    if (kind != "song" && kind != "video" && kind != "photo") {
        std::fprintf(stderr, "usage: zarnelasticd_media DIR N song|video|photo\n");
        return 2;
    }
    const std::string dir = argv[1];
    const unsigned count = static_cast<unsigned>(std::strtoul(argv[2], nullptr, 10));
    mkdir(dir.c_str(), 0755);
    const std::string base = dir + "/.base";
    mkdir(base.c_str(), 0755);
    const std::vector<std::string> &formats = kind == "song"    ? zarnbench::kSongKinds
                                              : kind == "video" ? zarnbench::kVideoKinds
                                                                : zarnbench::kPhotoKinds;
    std::string error;
    if (!zarnbench::MakeBaseFiles(base, {}, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        return 1;
    }
    for (unsigned i = 0; i < count; ++i) {
        const unsigned format = i % formats.size();
        const std::string path = dir + "/" + kind + "-" + std::to_string(i) + "." + formats[format];
        const std::string word = Letters(i);
        bool tagged = true;
        if (kind == "video")
            tagged = zarnbench::RetitleVideo(base + "/base." + formats[format], path, "Clip " + word);
        else if (!zarnbench::CopyFile(base + "/base." + formats[format], path))
            return 1;
        if (kind == "song")
            tagged = zarnbench::TagSong(path, {"Song " + word, "Artist " + Letters(i % 50, "zr"), "Album " + Letters(i / 12, "zs"),
                                               "Composer " + Letters(i % 7, "zt"), "Jazz", "", int(i % 12) + 1, 1950 + int(i % 70)});
        else if (kind == "photo")
            tagged = zarnbench::TagPhoto(path, {"Kestrel", "K-" + std::to_string(i % 9), "a view of " + word,
                                                "Photographer " + Letters(i % 30, "zr"), "Darkroom", "Shot " + word,
                                                {"holiday", "sea"}, 100 << (i % 5), 300, int(i % 6), 28, 250,
                                                "2020:07:01 10:00:00", ""});
        if (!tagged) {
            std::fprintf(stderr, "cannot tag %s\n", path.c_str());
            return 1;
        }
        std::printf("%s %s\n", path.c_str(), word.c_str());
    }
    std::system(("rm -rf " + base).c_str());
    return 0;
}
