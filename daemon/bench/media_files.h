// Photos, songs and videos for the tests and the bench: one of each kind
// made by ffmpeg, then copies tagged by the libraries that read them (TagLib
// for songs, exiv2 for photos).  Everything is made locally, offline.
#ifndef ZARND_BENCH_MEDIA_FILES_H
#define ZARND_BENCH_MEDIA_FILES_H

#include <string>
#include <vector>

namespace zarnbench {

// The extensions of the kinds made: songs, videos, photos.
extern const std::vector<std::string> kSongKinds;   // mp3 flac ogg opus m4a wav
extern const std::vector<std::string> kVideoKinds;  // mp4 mkv webm avi mov
extern const std::vector<std::string> kPhotoKinds;  // jpg png tif webp

struct SongTags {
    std::string title, artist, album, composer, genre, comment;
    int track = 0, year = 0;
};

struct PhotoTags {
    std::string make, model, description, artist, software, title;
    std::vector<std::string> keywords;
    int iso = 0, dpi = 0, rating = -2;   // -2: none
    int fnumber_tenths = 0;              // 28: f/2.8
    int exposure_denominator = 0;        // 250: 1/250 s
    std::string taken;                   // EXIF's "2021:03:04 05:06:07"
    std::string taken_offset;            // "+02:00", or none
};

// `dir`/base.EXT for every kind, one second long (a still for photos);
// the video of kVideoKinds[i] carries the title video_titles[i] (or none).
// False, with *error, on failure.
bool MakeBaseFiles(const std::string &dir, const std::vector<std::string> &video_titles, std::string *error);

// Writes the tags into an existing song or photo.
bool TagSong(const std::string &path, const SongTags &tags);
bool TagPhoto(const std::string &path, const PhotoTags &tags);

bool CopyFile(const std::string &from, const std::string &to);
// A copy of a video with another title, its streams copied as they are.
bool RetitleVideo(const std::string &from, const std::string &to, const std::string &title);

}  // namespace zarnbench

#endif  // ZARND_BENCH_MEDIA_FILES_H
