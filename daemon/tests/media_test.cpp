// Photos, songs and videos through the extractors of the extraction worker,
// in this process: each kind's fields, typed, and hostile files that end in
// a defined outcome.  The fixtures are made here (media_files.h).
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <map>

#include <gtest/gtest.h>
#include <magic.h>

#include "extract/run.h"
#include "media_files.h"

namespace zarnd {
namespace extract {
namespace {

using Fields = std::map<std::string, std::string>;
constexpr char kDir[] = "/var/media";

// The file as the worker reads it: mapped, its kind from libmagic.
Reply Extract(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size == 0) return Reply();
    void *map = mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    close(fd);
    magic_t magic = magic_open(MAGIC_MIME_TYPE);
    magic_load(magic, nullptr);
    Input input{static_cast<const char *>(map), static_cast<size_t>(st.st_size),
                magic_buffer(magic, map, static_cast<size_t>(st.st_size)), path.substr(path.rfind('.') + 1)};
    magic_close(magic);
    Reply reply = RunExtractor(input);
    munmap(map, static_cast<size_t>(st.st_size));
    return reply;
}

// Each field as "value", numbers as text: doubles to the millisecond.
Fields Shown(const Reply &reply) {
    Fields shown;
    for (const Field &field : reply.fields) {
        char real[32];
        std::snprintf(real, sizeof real, "%.3f", field.real);
        shown[field.key] = field.type == FieldType::kString ? field.text
                           : field.type == FieldType::kDouble ? std::string(real)
                                                              : std::to_string(field.number);
    }
    return shown;
}

// `expected` must be in `actual` as it is; a key given "" must be absent.
void ExpectFields(const Fields &expected, const Fields &actual, const std::string &what) {
    for (const auto &field : expected) {
        const auto found = actual.find(field.first);
        if (field.second.empty())
            EXPECT_TRUE(found == actual.end()) << what << " " << field.first;
        else
            EXPECT_EQ(field.second, found == actual.end() ? "(none)" : found->second) << what << " " << field.first;
    }
}

class Media : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, mkdir(kDir, 0755));
        std::string error;
        ASSERT_TRUE(zarnbench::MakeBaseFiles(kDir, "Harbour at dawn", &error)) << error;
    }
    static std::string Base(const std::string &kind) { return std::string(kDir) + "/base." + kind; }
};

TEST_F(Media, EveryKindGivesItsFieldsTyped) {
    const zarnbench::SongTags song = {"Moment's Notice", "Mira Okafor; Tomas Lind", "Blue Train", "Ines Varga",
                                      "Hard bop", "first take", 3, 1957};
    const Fields kSong = {{"ZARNMDTitle", "Moment's Notice"}, {"ZARNMDAlbum", "Blue Train"},
                          {"ZARNMDComposer", "Ines Varga"},   {"ZARNMDMusicalGenre", "Hard bop"},
                          {"ZARNMDComment", "first take"},    {"ZARNMDAudioTrackNumber", "3"},
                          {"ZARNMDRecordingYear", "1957"},    {"ZARNMDMediaTypes", "Sound"},
                          {"ZARNMDAudioChannelCount", "2"}};
    const std::map<std::string, Fields> kSongs = {
        {"mp3", {{"ZARNMDCodecs", "mp3"}, {"ZARNMDAudioSampleRate", "44100"}}},
        {"flac", {{"ZARNMDCodecs", "flac"}, {"ZARNMDAudioSampleRate", "44100"}}},
        {"ogg", {{"ZARNMDCodecs", "vorbis"}, {"ZARNMDAudioSampleRate", "44100"}}},
        {"opus", {{"ZARNMDCodecs", "opus"}, {"ZARNMDAudioSampleRate", "48000"}}},
        {"m4a", {{"ZARNMDCodecs", "aac"}, {"ZARNMDAudioSampleRate", "44100"}}},
        {"wav", {{"ZARNMDCodecs", "pcm"}, {"ZARNMDAudioSampleRate", "44100"}, {"ZARNMDAudioBitRate", "1411000"}}},
    };
    for (const auto &kind : kSongs) {
        ASSERT_TRUE(zarnbench::TagSong(Base(kind.first), song)) << kind.first;
        const Reply reply = Extract(Base(kind.first));
        ASSERT_EQ(Status::kDone, reply.status) << kind.first << ": " << reply.reason;
        const Fields fields = Shown(reply);
        ExpectFields(kSong, fields, kind.first);
        ExpectFields(kind.second, fields, kind.first);
        // Both artists, whichever way the format keeps two.
        EXPECT_NE(std::string::npos, fields.at("ZARNMDAuthors").find("Tomas Lind")) << kind.first;
        const double seconds = std::stod(fields.at("ZARNMDDurationSecond"));
        EXPECT_TRUE(seconds > 0.9 && seconds < 1.1) << kind.first << " " << seconds;
        EXPECT_GT(std::stol(fields.at("ZARNMDAudioBitRate")), 10000) << kind.first;
    }
    const std::map<std::string, std::string> kVideos = {
        {"mp4", "mpeg4; aac"}, {"mkv", "mpeg4; vorbis"}, {"webm", "vp8; opus"}, {"avi", "mpeg4; mp3"}, {"mov", "mpeg4; aac"}};
    for (const auto &kind : kVideos) {
        const Reply reply = Extract(Base(kind.first));
        ASSERT_EQ(Status::kDone, reply.status) << kind.first << ": " << reply.reason;
        const Fields fields = Shown(reply);
        ExpectFields({{"ZARNMDCodecs", kind.second}, {"ZARNMDMediaTypes", "Video; Sound"},
                      {"ZARNMDTitle", "Harbour at dawn"}, {"ZARNMDAudioChannelCount", "2"}},
                     fields, kind.first);
        const double seconds = std::stod(fields.at("ZARNMDDurationSecond"));
        EXPECT_TRUE(seconds > 0.9 && seconds < 1.2) << kind.first << " " << seconds;
        EXPECT_GT(std::stol(fields.at("ZARNMDTotalBitRate")), 0) << kind.first;
    }
    zarnbench::PhotoTags photo;
    photo.make = "Kestrel";
    photo.model = "K-7 Mark II";
    photo.description = "fishing boats in the harbour";
    photo.artist = "Lea Brandt";
    photo.software = "Darkroom 3";
    photo.title = "Morning boats";
    photo.keywords = {"harbour", "boats"};
    photo.iso = 400, photo.dpi = 300, photo.rating = 4, photo.fnumber_tenths = 28, photo.exposure_denominator = 250;
    photo.taken = "2021:03:04 05:06:07";
    const Fields kPhoto = {
        {"ZARNMDAcquisitionMake", "Kestrel"}, {"ZARNMDAcquisitionModel", "K-7 Mark II"}, {"ZARNMDISOSpeed", "400"},
        {"ZARNMDAperture", "f/2.8"}, {"ZARNMDExposureTimeString", "1/250"}, {"ZARNMDResolutionWidthDPI", "300"},
        {"ZARNMDResolutionHeightDPI", "300"}, {"ZARNMDStarRating", "4"}, {"ZARNMDKeywords", "harbour; boats"},
        {"ZARNMDDescription", "fishing boats in the harbour"}, {"ZARNMDAuthors", "Lea Brandt"},
        {"ZARNMDCreator", "Darkroom 3"}, {"ZARNMDTitle", "Morning boats"}, {"ZARNMDMediaTypes", "Image"},
        {"ZARNMDContentCreationDate", "1614834367"}};  // read as UTC: no zone was written
    for (const std::string &kind : zarnbench::kPhotoKinds) {
        ASSERT_TRUE(zarnbench::TagPhoto(Base(kind), photo)) << kind;
        const Reply reply = Extract(Base(kind));
        ASSERT_EQ(Status::kDone, reply.status) << kind << ": " << reply.reason;
        Fields expected = kPhoto;
        // exiv2 keeps a TIFF's own resolution, ffmpeg's 72 dpi.
        if (kind == "tif") expected["ZARNMDResolutionWidthDPI"] = expected["ZARNMDResolutionHeightDPI"] = "72";
        ExpectFields(expected, Shown(reply), kind);
    }
    // With the camera's zone, the same clock time is two hours earlier in UTC.
    photo.taken_offset = "+02:00";
    ASSERT_TRUE(zarnbench::TagPhoto(Base("jpg"), photo));
    ExpectFields({{"ZARNMDContentCreationDate", "1614827167"}, {"ZARNMDCodecs", "jpeg"}}, Shown(Extract(Base("jpg"))),
                 "zoned jpg");
}

void Write(const std::string &path, const std::string &bytes) {
    FILE *file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, file);
    ASSERT_EQ(bytes.size(), std::fwrite(bytes.data(), 1, bytes.size(), file));
    std::fclose(file);
}

std::string Read(const std::string &path) {
    std::string bytes;
    FILE *file = std::fopen(path.c_str(), "rb");
    char buffer[65536];
    for (size_t n; file != nullptr && (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) bytes.append(buffer, n);
    if (file != nullptr) std::fclose(file);
    return bytes;
}

// Every hostile file ends in a reply: what can be read is, the rest is a
// failure with its reason; nothing crashes, hangs or escapes.
TEST_F(Media, HostileFilesEndInADefinedOutcome) {
    const std::string mp3 = Read(Base("mp3")), mp4 = Read(Base("mp4")), mkv = Read(Base("mkv"));
    // An ID3v2.4 tag whose one frame claims nearly 256 MiB, then the sound.
    const std::string huge_frame = std::string("ID3\x04\x00\x00\x00\x00\x02\x00", 10) + "TIT2" +
                                   std::string("\x7f\x7f\x7f\x7f\x00\x00\x03", 7) + std::string(245, 'x') +
                                   mp3.substr(mp3.find("\xff\xfb"));
    // EXIF whose first directory lies far beyond the segment.
    const std::string bad_exif = std::string("\xff\xd8\xff\xe1\x00\x1c" "Exif\0\0MM\0\x2a\x7f\xff\xff\xf0", 20) +
                                 std::string(12, '\x55') + Read(Base("jpg")).substr(2);
    const struct {
        const char *name;
        std::string bytes;
        Status status;
        Fields fields;
    } rows[] = {
        {"huge_frame.mp3", huge_frame, Status::kDone, {{"ZARNMDCodecs", "mp3"}, {"ZARNMDTitle", ""}}},
        {"bad_exif.jpg", bad_exif, Status::kFailed, {}},
        {"truncated.mp4", mp4.substr(0, mp4.size() / 3), Status::kFailed, {}},
        {"text.mp3", "just some words about a song\n", Status::kUnsupported, {}},
        {"cut.mkv", mkv.substr(0, 300), Status::kFailed, {}},
        {"zeros.mkv", std::string("\x1a\x45\xdf\xa3", 4) + std::string(100000, '\0'), Status::kUnsupported, {}},
    };
    for (const auto &row : rows) {
        const std::string path = std::string(kDir) + "/" + row.name;
        Write(path, row.bytes);
        const Reply reply = Extract(path);
        EXPECT_EQ(row.status, reply.status) << row.name << ": " << reply.reason;
        EXPECT_EQ(row.status == Status::kFailed, !reply.reason.empty()) << row.name;
        ExpectFields(row.fields, Shown(reply), row.name);
    }
}

}  // namespace
}  // namespace extract
}  // namespace zarnd
