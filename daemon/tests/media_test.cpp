// Photos, songs and videos through the real indexer, extraction workers,
// daemon and library: each kind found by a word of its tags and carrying
// its fields, typed; field search, ranges and sorts on them; a retagged
// song found again by live indexing; hostile media files that cost their
// own content only.  The fixtures are made here (media_files.h).
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>

#include <magic.h>

#include "daemon_client.h"
#include "extract/signature.h"
#include "harness.h"
#include "media_files.h"
#include "zarncontentsearchutils.h"
#include "zarnsearch_run.h"

namespace {

using namespace zarntest;
using Names = std::vector<std::string>;

constexpr char kShare[] = "/var/media";

Names Paths(const std::string &query, const Names &sort = {"ZARNMDPath"}, std::vector<int> *ids = nullptr) {
    Json::Value request;
    zarn::json::FromString(R"({"command": "search", "data": {"indice": ["fileindex_media"], "size": 100}})", &request);
    request["data"]["query_string"]["query"] = query;
    for (const std::string &key : sort) {  // "FIELD" or "FIELD:desc"
        Json::Value &entry = request["data"]["sorter"].append(Json::Value());
        entry["field"] = key.substr(0, key.find(':'));
        if (key.find(':') != std::string::npos) entry["direction"] = "desc";
    }
    Names names;
    for (const Json::Value &hit : Hits(request)) {
        names.push_back(hit["ZARNMDPath"].asString().substr(7));  // without "/media/"
        if (ids != nullptr) ids->push_back(hit["additional"]["doc_id"].asInt());
    }
    return names;
}

// A field as the library delivers it: "type:value", doubles to the second.
std::string Shown(const ZARNQueryDocumentFieldValue &v) {
    char real[32];
    std::snprintf(real, sizeof real, "d:%.0f", v.value.double_value);
    switch (v.type) {
    case DOCUMENT_FIELD_TYPE_STRING: return "s:" + std::string(v.value.string_value);
    case DOCUMENT_FIELD_TYPE_INT: return "i:" + std::to_string(v.value.int_value);
    case DOCUMENT_FIELD_TYPE_DOUBLE: return real;
    default: return "none";
    }
}

class Media : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir(kShare, 0755));
        ASSERT_EQ(0, mkdir("/var/base", 0755));
        SetShareTable({{"media", kShare}});
        WriteFile(kFolderConfig, R"([{"path": "/media"}])");
        std::string error;
        ASSERT_TRUE(zarnbench::MakeBaseFiles("/var/base", {"granite", "heather", "indigo", "juniper", "kelp"}, &error))
            << error;
    }
    void TearDown() override { StopDaemon(&daemon_); }
    static std::string Path(const std::string &name) { return std::string(kShare) + "/" + name; }
    static std::string Base(const std::string &kind) { return "/var/base/base." + kind; }
    static Result Index() { return Shell(ZARNELASTICD " index --extract-timeout 5 --extract-workers 2"); }
    void Start() {
        daemon_ = StartDaemon(ZARNELASTICD " --foreground 2>>/var/daemon.log");
        ASSERT_GT(daemon_, 0) << Shell("cat /var/daemon.log").out;
    }
    pid_t daemon_ = -1;
};

TEST_F(Media, EveryKindFoundByAWordOfItsTagsWithItsFieldsTyped) {
    // Songs of one album, their tracks in another order than their names.
    const char *const kSongWords[] = {"aurora", "basalt", "cinder", "delta", "ember", "fjord"};
    const int kTracks[] = {4, 2, 6, 1, 5, 3};
    for (size_t i = 0; i < zarnbench::kSongKinds.size(); ++i) {
        const std::string name = Path("song." + zarnbench::kSongKinds[i]);
        ASSERT_TRUE(zarnbench::CopyFile(Base(zarnbench::kSongKinds[i]), name));
        ASSERT_TRUE(zarnbench::TagSong(name, {std::string("Song of ") + kSongWords[i], "Mira Okafor", "Blue Train",
                                              "Ines Varga", "Hard bop", "first take", kTracks[i], 1957 + int(i)}));
    }
    for (const std::string &kind : zarnbench::kVideoKinds) ASSERT_TRUE(zarnbench::CopyFile(Base(kind), Path("clip." + kind)));
    const char *const kPhotoWords[] = {"lantern", "meadow", "nectar", "orchid"};
    for (size_t i = 0; i < zarnbench::kPhotoKinds.size(); ++i) {
        const std::string name = Path("photo." + zarnbench::kPhotoKinds[i]);
        ASSERT_TRUE(zarnbench::CopyFile(Base(zarnbench::kPhotoKinds[i]), name));
        ASSERT_TRUE(zarnbench::TagPhoto(name, {"Kestrel", "K-7", std::string("boats by the ") + kPhotoWords[i],
                                               "Lea Brandt", "Darkroom 3", "Morning", {"harbour", "boats"}, 400, 300,
                                               4, 28, 250, "2021:03:04 05:06:07", ""}));
    }
    const Result run = Index();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find(" 0 contents not read")) << run.out << run.err;
    Start();
    const char *keys[] = {"ZARNMDMediaTypes", "ZARNMDCodecs", "ZARNMDTitle", "ZARNMDAuthors", "ZARNMDAlbum",
                          "ZARNMDAudioTrackNumber", "ZARNMDRecordingYear", "ZARNMDDurationSecond", "ZARNMDAudioSampleRate",
                          "ZARNMDAcquisitionMake", "ZARNMDISOSpeed", "ZARNMDAperture", "ZARNMDExposureTimeString",
                          "ZARNMDResolutionWidthDPI", "ZARNMDStarRating", "ZARNMDContentCreationDate"};
    constexpr int kKeys = sizeof keys / sizeof keys[0];
    const Names kNoPhoto(7, "none");
    auto song = [&](const char *codec, int i, int rate) {
        Names fields = {"s:Sound", std::string("s:") + codec, std::string("s:Song of ") + kSongWords[i], "s:Mira Okafor",
                        "s:Blue Train", "i:" + std::to_string(kTracks[i]), "i:" + std::to_string(1957 + i), "d:1",
                        "i:" + std::to_string(rate)};
        fields.insert(fields.end(), kNoPhoto.begin(), kNoPhoto.end());
        return fields;
    };
    auto video = [&](const char *codecs, const char *title, int rate) {
        Names fields = {"s:Video; Sound", std::string("s:") + codecs, std::string("s:") + title, "none", "none", "none",
                        "none", "d:1", "i:" + std::to_string(rate)};
        fields.insert(fields.end(), kNoPhoto.begin(), kNoPhoto.end());
        return fields;
    };
    auto photo = [&](const char *codec, int dpi) {
        return Names{"s:Image", std::string("s:") + codec, "s:Morning", "s:Lea Brandt", "none", "none", "none", "none",
                     "none", "s:Kestrel", "i:400", "s:f/2.8", "s:1/250", "i:" + std::to_string(dpi), "s:4",
                     "i:1614834367"};  // 05:06:07 read as UTC: no zone was written
    };
    const struct {
        const char *name, *word;
        Names fields;
    } rows[] = {
        {"song.mp3", "aurora", song("mp3", 0, 44100)},
        {"song.flac", "basalt", song("flac", 1, 44100)},
        {"song.ogg", "cinder", song("vorbis", 2, 44100)},
        {"song.opus", "delta", song("opus", 3, 48000)},
        {"song.m4a", "ember", song("aac", 4, 44100)},
        {"song.wav", "fjord", song("pcm", 5, 44100)},
        {"clip.mp4", "granite", video("mpeg4; aac", "granite", 44100)},
        {"clip.mkv", "heather", video("mpeg4; vorbis", "heather", 44100)},
        {"clip.webm", "indigo", video("vp8; opus", "indigo", 48000)},
        {"clip.avi", "juniper", video("mpeg4; mp3", "juniper", 44100)},
        {"clip.mov", "kelp", video("mpeg4; aac", "kelp", 44100)},
        {"photo.jpg", "lantern", photo("jpeg", 300)},
        {"photo.png", "meadow", photo("png", 300)},
        {"photo.tif", "nectar", photo("tiff", 72)},  // exiv2 keeps a TIFF's own resolution
        {"photo.webp", "orchid", photo("webp", 300)},
    };
    for (const auto &row : rows) {
        std::vector<int> ids;
        ASSERT_EQ(Names({row.name}), Paths(row.word, {"ZARNMDPath"}, &ids)) << row.word;
        ZARNQueryDocumentFieldValue values[kKeys];
        ASSERT_EQ(0, ZARNQueryDocumentFieldGet("media", ids[0], keys, kKeys, values)) << row.name;
        Names shown;
        for (const auto &v : values) shown.push_back(Shown(v));
        EXPECT_EQ(row.fields, shown) << row.name;
    }
    const Names kSongs = {"song.flac", "song.m4a", "song.mp3", "song.ogg", "song.opus", "song.wav"};
    const Names kPhotos = {"photo.jpg", "photo.png", "photo.tif", "photo.webp"};
    const std::pair<std::string, Names> cases[] = {
        {"ZARNMDAcquisitionMake:kestrel", kPhotos},
        {"ZARNMDAlbum:\"blue train\"", kSongs},
        {"okafor", kSongs},                  // an artist by a bare word
        {"\"hard bop\" ZARNMDExtension:ogg", {"song.ogg"}},
        {"ZARNMDAperture:f/2.8 ZARNMDExposureTimeString:1/250 ZARNMDExtension:png", {"photo.png"}},
        {"ZARNMDMediaTypes:video", {"clip.avi", "clip.mkv", "clip.mov", "clip.mp4", "clip.webm"}},
        {"ZARNMDCodecs:vorbis", {"clip.mkv", "song.ogg"}},
        {"ZARNMDDurationSecond:0.5..1.5 ZARNMDMediaTypes:sound -ZARNMDMediaTypes:video", kSongs},
        {"ZARNMDDurationSecond:1.5..", {}},
        {"ZARNMDISOSpeed:100..400", kPhotos},
        {"ZARNMDISOSpeed:401..", {}},
        {"ZARNMDAudioSampleRate:48000..48000", {"clip.webm", "song.opus"}},
        {"ZARNMDAudioTrackNumber:2..3", {"song.flac", "song.wav"}},
        {"ZARNMDRecordingYear:1957..1958", {"song.flac", "song.mp3"}},
        {"ZARNMDContentCreationDate:1614834367..1614834367", kPhotos},
        {"ZARNMDResolutionWidthDPI:300..300", {"photo.jpg", "photo.png", "photo.webp"}},
    };
    for (const auto &c : cases) EXPECT_EQ(c.second, Paths(c.first)) << c.first;
    // An album in track order; the newest recordings first.
    EXPECT_EQ(Names({"song.opus", "song.flac", "song.wav", "song.mp3", "song.m4a", "song.ogg"}),
              Paths("ZARNMDAlbum:\"blue train\"", {"ZARNMDAlbum", "ZARNMDAudioTrackNumber"}));
    EXPECT_EQ(Names({"song.opus", "song.ogg", "song.flac"}),
              Paths("ZARNMDRecordingYear:1958..1960", {"ZARNMDRecordingYear:desc"}));
    // A song retagged while the daemon runs is found by its new title.
    ASSERT_TRUE(zarnbench::TagSong(Path("song.mp3"), {"Quasar", "Mira Okafor", "Blue Train", "", "", "", 4, 1957}));
    const auto saved = std::chrono::steady_clock::now();
    while (Paths("quasar").empty() && std::chrono::steady_clock::now() - saved < std::chrono::seconds(2)) usleep(20000);
    EXPECT_EQ(Names({"song.mp3"}), Paths("quasar"));
    EXPECT_EQ(Names(), Paths("aurora"));
}

// Each hostile media file loses its own content, logged with its name;
// what can be read of the others is.
TEST_F(Media, HostileFilesCostTheirOwnContentOnly) {
    const std::string mp3 = Shell("cat " + Base("mp3")).out, mp4 = Shell("cat " + Base("mp4")).out,
                      mkv = Shell("cat " + Base("mkv")).out, jpg = Shell("cat " + Base("jpg")).out;
    // An ID3v2.4 tag whose one frame claims nearly 256 MiB, then the sound.
    WriteFile(Path("huge_frame.mp3"), std::string("ID3\x04\x00\x00\x00\x00\x02\x00", 10) + "TIT2" +
                                          std::string("\x7f\x7f\x7f\x7f\x00\x00\x03", 7) + std::string(245, 'x') +
                                          mp3.substr(mp3.find("\xff\xfb")));
    // EXIF whose first directory lies far beyond its segment.
    WriteFile(Path("bad_exif.jpg"),
              std::string("\xff\xd8\xff\xe1\x00\x1c" "Exif\0\0MM\0\x2a\x7f\xff\xff\xf0", 20) + std::string(12, 'U') +
                  jpg.substr(2));
    WriteFile(Path("truncated.mp4"), mp4.substr(0, mp4.size() / 3));
    WriteFile(Path("cut.mkv"), mkv.substr(0, 300));
    WriteFile(Path("words.mp3"), "a walrus in a song\n");  // text under a media name
    WriteFile(Path("clip.bin"), mp4);  // a video that its name does not tell
    const Names failing = {"bad_exif.jpg", "cut.mkv", "truncated.mp4"};
    const Result run = Index();
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find(" 3 contents not read")) << run.out << run.err;
    for (const std::string &name : failing)
        EXPECT_NE(std::string::npos, run.err.find("content of /media/" + name + " not read: ")) << name << run.err;
    Start();
    EXPECT_EQ(Names({"words.mp3"}), Paths("walrus"));
    EXPECT_EQ(Names({"huge_frame.mp3"}), Paths("ZARNMDCodecs:mp3 ZARNMDDurationSecond:0.5..1.5"));
    EXPECT_EQ(Names({"clip.bin"}), Paths("ZARNMDMediaTypes:video granite"));
}

// Without the video worker program, videos lose their content, and only
// they: the worker that gave a video away reads the next song.
TEST_F(Media, WithoutTheVideoWorkerOnlyVideosLoseTheirContent) {
    const std::string daemon = ZARNELASTICD;
    const std::string worker = daemon.substr(0, daemon.rfind('/') + 1) + "zarnelasticd-extract";
    ASSERT_EQ(0, Shell("mkdir -p /var/bin && cp " + daemon + " " + worker + " /var/bin/").status);
    for (const char *name : {"a.mp4", "c.mp4"}) ASSERT_TRUE(zarnbench::CopyFile(Base("mp4"), Path(name)));
    ASSERT_TRUE(zarnbench::CopyFile(Base("mp3"), Path("b.mp3")));
    const Result run = Shell("/var/bin/zarnelasticd index --extract-timeout 5 --extract-workers 1");
    ASSERT_EQ(0, run.status) << run.err;
    EXPECT_NE(std::string::npos, run.out.find(" 2 contents not read")) << run.out << run.err;
    const std::string why = " not read: cannot start /var/bin/zarnelasticd-extract-video: ";
    for (const char *name : {"a.mp4", "c.mp4"})
        EXPECT_NE(std::string::npos, run.err.find(std::string("content of /media/") + name + why)) << run.err;
    Start();
    EXPECT_EQ(Names({"b.mp3"}), Paths("ZARNMDMediaTypes:sound"));
}

// Where a file's name and first bytes agree, the worker names its kind
// without libmagic: as libmagic names it, and never for bytes that belong
// to another kind than the name says.
TEST_F(Media, KindsNamedWithoutLibmagicAreLibmagicsOwn) {
    const magic_t magic = magic_open(MAGIC_MIME_TYPE | MAGIC_NO_CHECK_COMPRESS | MAGIC_NO_CHECK_ELF);
    ASSERT_TRUE(magic != nullptr && magic_load(magic, nullptr) == 0);
    size_t named = 0;
    for (const auto *kinds : {&zarnbench::kSongKinds, &zarnbench::kVideoKinds, &zarnbench::kPhotoKinds}) {
        for (const std::string &kind : *kinds) {
            const std::string bytes = Shell("cat " + Base(kind)).out;
            const std::string agreed = zarnd::extract::AgreedKind(kind, bytes.data(), bytes.size());
            if (!agreed.empty()) {
                EXPECT_EQ(magic_buffer(magic, bytes.data(), bytes.size()), agreed) << kind;
            }
            named += !agreed.empty();
            EXPECT_EQ("", zarnd::extract::AgreedKind(kind == "mp3" ? "flac" : "mp3", bytes.data(), bytes.size())) << kind;
        }
    }
    EXPECT_EQ(12u, named);  // all but Matroska, WebM and TIFF, which libmagic tells apart further in
    magic_close(magic);
}

}  // namespace
