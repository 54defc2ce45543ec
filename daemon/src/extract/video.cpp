// Video (MP4, MOV, Matroska, WebM, AVI, ...): duration, bit rates, codecs,
// the sound's rate and channels, and the container's tags, through
// libavformat reading the mapped bytes.  Headers and a few packets are
// read; no frame is decoded but what libavformat needs to learn a stream's
// parameters, on one thread.
extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <algorithm>
#include <cstring>
#include <set>

#include "extract/extractor.h"
#include "extract/media.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

// Containers read here; a file that another demuxer would claim (a
// playlist naming other files, an image sequence) is refused.
constexpr char kFormats[] = "mov,mp4,m4a,3gp,3g2,mj2,matroska,webm,avi,asf,flv,mpeg,mpegts,ogg";
constexpr int kBufferBytes = 64 * 1024;
// What libavformat reads to learn the streams: 5 MB and 5 s by default.
constexpr int64_t kProbeBytes = 2 * 1024 * 1024;

struct Setup {
    Setup() { av_log_set_level(AV_LOG_QUIET); }
};
const Setup kSetup;

struct Cursor {
    const Input *input;
    int64_t at;
};

int Read(void *opaque, uint8_t *buffer, int size) {
    Cursor *cursor = static_cast<Cursor *>(opaque);
    const int64_t left = static_cast<int64_t>(cursor->input->size) - cursor->at;
    if (left <= 0) return AVERROR_EOF;
    const int n = static_cast<int>(std::min<int64_t>(size, left));
    std::memcpy(buffer, cursor->input->data + cursor->at, static_cast<size_t>(n));
    cursor->at += n;
    return n;
}

int64_t Seek(void *opaque, int64_t offset, int whence) {
    Cursor *cursor = static_cast<Cursor *>(opaque);
    const int64_t size = static_cast<int64_t>(cursor->input->size);
    int64_t to = offset;
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE: return size;
    case SEEK_SET: break;
    case SEEK_CUR: to = cursor->at + offset; break;
    case SEEK_END: to = size + offset; break;
    default: return AVERROR(EINVAL);
    }
    if (to < 0 || to > size) return AVERROR(EINVAL);
    return cursor->at = to;
}

// A demuxer that asks for another file (a reference, a segment) gets none.
int NoOtherFile(AVFormatContext *, AVIOContext **, const char *, int, AVDictionary **) { return AVERROR(EPERM); }

// Frees what libavformat allocated on every path out.
struct Demuxer {
    AVIOContext *io = nullptr;
    AVFormatContext *format = nullptr;
    ~Demuxer() {
        if (format != nullptr) avformat_close_input(&format);
        if (io != nullptr) {
            av_freep(&io->buffer);
            avio_context_free(&io);
        }
    }
};

bool Accepts(const Input &input) { return IsVideoKind(input.kind); }

std::string Error(const char *what, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return std::string(what) + ": " + text;
}

void Streams(const AVFormatContext *format, Sink *sink) {
    std::set<std::string> seen;
    int64_t video_rate = 0, audio_rate = 0;
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVCodecParameters *codec = format->streams[i]->codecpar;
        // A cover picture is no video.
        if (format->streams[i]->disposition & AV_DISPOSITION_ATTACHED_PIC) continue;
        const char *type = codec->codec_type == AVMEDIA_TYPE_VIDEO      ? "Video"
                           : codec->codec_type == AVMEDIA_TYPE_AUDIO    ? "Sound"
                           : codec->codec_type == AVMEDIA_TYPE_SUBTITLE ? "Subtitles"
                                                                        : nullptr;
        if (type == nullptr) continue;
        if (seen.insert(type).second) sink->Add(field::kMediaTypes, type);
        const std::string name = avcodec_get_name(codec->codec_id);
        if (seen.insert("codec " + name).second) sink->Add(field::kCodecs, name);
        if (codec->codec_type == AVMEDIA_TYPE_VIDEO) {
            video_rate += std::max<int64_t>(codec->bit_rate, 0);
        } else if (codec->codec_type == AVMEDIA_TYPE_AUDIO) {
            audio_rate += std::max<int64_t>(codec->bit_rate, 0);
            // The first sound stream's: the one a player plays.
            if (!seen.insert("sound").second) continue;
            if (codec->sample_rate > 0) sink->SetInt(field::kAudioSampleRate, codec->sample_rate);
            if (codec->ch_layout.nb_channels > 0) sink->SetInt(field::kAudioChannelCount, codec->ch_layout.nb_channels);
        }
    }
    if (video_rate > 0) sink->SetInt(field::kVideoBitRate, video_rate);
    if (audio_rate > 0) sink->SetInt(field::kAudioBitRate, audio_rate);
}

void Extract(const Input &input, Sink *sink) {
    Cursor cursor{&input, 0};
    Demuxer demuxer;
    unsigned char *buffer = static_cast<unsigned char *>(av_malloc(kBufferBytes));
    if (buffer == nullptr) throw std::bad_alloc();
    demuxer.io = avio_alloc_context(buffer, kBufferBytes, 0, &cursor, Read, nullptr, Seek);
    if (demuxer.io == nullptr) {
        av_free(buffer);
        throw std::bad_alloc();
    }
    demuxer.format = avformat_alloc_context();
    if (demuxer.format == nullptr) throw std::bad_alloc();
    demuxer.format->pb = demuxer.io;
    demuxer.format->flags |= AVFMT_FLAG_CUSTOM_IO;
    demuxer.format->io_open = NoOtherFile;
    demuxer.format->probesize = kProbeBytes;
    AVDictionary *options = nullptr;
    av_dict_set(&options, "format_whitelist", kFormats, 0);
    int status = avformat_open_input(&demuxer.format, nullptr, nullptr, &options);
    av_dict_free(&options);
    // On failure avformat_open_input has freed the context.
    if (status < 0) throw ExtractError(Error("not a readable video", status));
    status = avformat_find_stream_info(demuxer.format, nullptr);
    if (status < 0) throw ExtractError(Error("video streams unreadable", status));
    const AVFormatContext *format = demuxer.format;
    if (format->duration > 0) sink->SetDouble(field::kDurationSecond, format->duration / double{AV_TIME_BASE});
    if (format->bit_rate > 0) sink->SetInt(field::kTotalBitRate, format->bit_rate);
    Streams(format, sink);
    const AVDictionaryEntry *tag = nullptr;
    while ((tag = av_dict_get(format->metadata, "", tag, AV_DICT_IGNORE_SUFFIX)) != nullptr)
        SetMediaTag(tag->key, tag->value, sink);
}

const Extractor kVideo = {"video", Accepts, Extract};
const Registration kRegistered(kVideo);

}  // namespace

}  // namespace extract
}  // namespace zarnd
