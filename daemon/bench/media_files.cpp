#include "media_files.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

#include <exiv2/exiv2.hpp>
#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

namespace zarnbench {

const std::vector<std::string> kSongKinds = {"mp3", "flac", "ogg", "opus", "m4a", "wav"};
const std::vector<std::string> kVideoKinds = {"mp4", "mkv", "webm", "avi", "mov"};
const std::vector<std::string> kPhotoKinds = {"jpg", "png", "tif", "webp"};

namespace {

const char *SongCodec(const std::string &kind) {
    if (kind == "mp3") return "-c:a libmp3lame -b:a 128k";
    if (kind == "flac") return "-c:a flac";
    if (kind == "ogg") return "-c:a libvorbis";
    if (kind == "opus") return "-c:a libopus -b:a 64k";
    if (kind == "m4a") return "-c:a aac -b:a 128k";
    return "-c:a pcm_s16le";
}

const char *VideoCodec(const std::string &kind) {
    if (kind == "webm") return "-c:v libvpx -deadline realtime -b:v 200k -c:a libopus";
    if (kind == "avi") return "-c:v mpeg4 -c:a libmp3lame";
    if (kind == "mkv") return "-c:v mpeg4 -c:a libvorbis";
    return "-c:v mpeg4 -c:a aac";
}

bool Run(const std::string &command, std::string *error) {
    if (std::system((command + " </dev/null >/dev/null 2>&1").c_str()) == 0) return true;
    *error = "failed: " + command;
    return false;
}

}  // namespace

bool MakeBaseFiles(const std::string &dir, const std::vector<std::string> &video_titles, std::string *error) {
    const std::string ffmpeg = "ffmpeg -nostdin -loglevel error -y ";
    const std::string sound = "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=1 -ac 2 ";
    for (const std::string &kind : kSongKinds)
        if (!Run(ffmpeg + sound + SongCodec(kind) + " " + dir + "/base." + kind, error)) return false;
    for (size_t i = 0; i < kVideoKinds.size(); ++i) {
        const std::string title = i < video_titles.size() ? " -metadata title='" + video_titles[i] + "'" : "";
        if (!Run(ffmpeg + "-f lavfi -i testsrc=size=160x120:rate=10:duration=1 " + sound + VideoCodec(kVideoKinds[i]) +
                     title + " " + dir + "/base." + kVideoKinds[i],
                 error))
            return false;
    }
    for (const std::string &kind : kPhotoKinds)
        if (!Run(ffmpeg + "-f lavfi -i testsrc=size=320x240 -frames:v 1 " + dir + "/base." + kind, error)) return false;
    return true;
}

bool TagSong(const std::string &path, const SongTags &tags) {
    TagLib::FileRef file(path.c_str());
    if (file.isNull()) return false;
    TagLib::PropertyMap map;
    const std::pair<const char *, std::string> kText[] = {
        {"TITLE", tags.title},     {"ARTIST", tags.artist}, {"ALBUM", tags.album},
        {"COMPOSER", tags.composer}, {"GENRE", tags.genre},  {"COMMENT", tags.comment}};
    for (const auto &text : kText)
        if (!text.second.empty()) map.insert(text.first, TagLib::String(text.second, TagLib::String::UTF8));
    if (tags.track > 0) map.insert("TRACKNUMBER", TagLib::String::number(tags.track));
    if (tags.year > 0) map.insert("DATE", TagLib::String::number(tags.year));
    file.file()->setProperties(map);
    return file.save();
}

bool TagPhoto(const std::string &path, const PhotoTags &tags) {
    try {
        const std::unique_ptr<Exiv2::Image> image(Exiv2::ImageFactory::open(path).release());
        image->readMetadata();
        Exiv2::ExifData &exif = image->exifData();
        Exiv2::XmpData &xmp = image->xmpData();
        if (!tags.make.empty()) exif["Exif.Image.Make"] = tags.make;
        if (!tags.model.empty()) exif["Exif.Image.Model"] = tags.model;
        if (!tags.description.empty()) exif["Exif.Image.ImageDescription"] = tags.description;
        if (!tags.artist.empty()) exif["Exif.Image.Artist"] = tags.artist;
        if (!tags.software.empty()) exif["Exif.Image.Software"] = tags.software;
        if (tags.iso > 0) exif["Exif.Photo.ISOSpeedRatings"] = static_cast<uint16_t>(tags.iso);
        if (tags.fnumber_tenths > 0) exif["Exif.Photo.FNumber"] = Exiv2::URational(tags.fnumber_tenths, 10);
        if (tags.exposure_denominator > 0) exif["Exif.Photo.ExposureTime"] = Exiv2::URational(1, tags.exposure_denominator);
        if (tags.dpi > 0) {
            exif["Exif.Image.XResolution"] = Exiv2::URational(tags.dpi, 1);
            exif["Exif.Image.YResolution"] = Exiv2::URational(tags.dpi, 1);
            exif["Exif.Image.ResolutionUnit"] = static_cast<uint16_t>(2);
        }
        if (!tags.taken.empty()) exif["Exif.Photo.DateTimeOriginal"] = tags.taken;
        if (!tags.taken_offset.empty()) exif["Exif.Photo.OffsetTimeOriginal"] = tags.taken_offset;
        if (tags.rating > -2) xmp["Xmp.xmp.Rating"] = std::to_string(tags.rating);
        if (!tags.title.empty()) xmp["Xmp.dc.title"] = "lang=x-default " + tags.title;
        if (!tags.keywords.empty()) {
            Exiv2::XmpArrayValue bag(Exiv2::xmpBag);
            for (const std::string &word : tags.keywords) bag.read(word);
            xmp.add(Exiv2::XmpKey("Xmp.dc.subject"), &bag);
            // IPTC too where the kind holds it: older tools read only that.
            if (image->supportsMetadata(Exiv2::mdIptc))
                for (const std::string &word : tags.keywords) {
                    Exiv2::Iptcdatum keyword(Exiv2::IptcKey("Iptc.Application2.Keywords"));
                    keyword.setValue(word);
                    image->iptcData().add(keyword);
                }
        }
        image->writeMetadata();
        return true;
    } catch (const Exiv2::AnyError &) {
        return false;
    }
}

bool RetitleVideo(const std::string &from, const std::string &to, const std::string &title) {
    std::string error;
    return Run("ffmpeg -nostdin -loglevel error -y -i " + from + " -map 0 -c copy -metadata title='" + title + "' " + to,
               &error);
}

bool CopyFile(const std::string &from, const std::string &to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    return in.good() && out.good();
}

}  // namespace zarnbench
