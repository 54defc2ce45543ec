// Music: tags and audio properties of MP3, FLAC, Ogg (Vorbis, Opus, FLAC,
// Speex), M4A, WAV, AIFF and the other kinds TagLib reads, from the mapped
// bytes (a worker may not open paths).
#include <memory>

#include <taglib/aifffile.h>
#include <taglib/apefile.h>
#include <taglib/asffile.h>
#include <taglib/fileref.h>
#include <taglib/flacfile.h>
#include <taglib/mp4file.h>
#include <taglib/mpegfile.h>
#include <taglib/oggflacfile.h>
#include <taglib/opusfile.h>
#include <taglib/speexfile.h>
#include <taglib/tiostream.h>
#include <taglib/tpropertymap.h>
#include <taglib/vorbisfile.h>
#include <taglib/wavfile.h>
#include <taglib/wavpackfile.h>

#include "extract/extractor.h"
#include "extract/media.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

// The mapped file as a read-only TagLib stream: reads copy only what they
// ask for, and a length read from a damaged tag is cut at the file's end.
class MemoryStream : public TagLib::IOStream {
public:
    explicit MemoryStream(const Input &input) : data_(input.data), size_(static_cast<long>(input.size)) {}

    TagLib::FileName name() const override { return ""; }  // kinds are told by content
    TagLib::ByteVector readBlock(unsigned long length) override {
        const unsigned long left = static_cast<unsigned long>(size_ - at_);
        const unsigned long n = length < left ? length : left;
        TagLib::ByteVector block(data_ + at_, static_cast<unsigned int>(n));
        at_ += static_cast<long>(n);
        return block;
    }
    void writeBlock(const TagLib::ByteVector &) override {}
    void insert(const TagLib::ByteVector &, unsigned long, unsigned long) override {}
    void removeBlock(unsigned long, unsigned long) override {}
    bool readOnly() const override { return true; }
    bool isOpen() const override { return true; }
    void seek(long offset, Position from) override {
        const long base = from == Beginning ? 0 : from == Current ? at_ : size_;
        // Past the end reads nothing; before the start is the start.
        at_ = offset < -base ? 0 : base + offset > size_ ? size_ : base + offset;
    }
    long tell() const override { return at_; }
    long length() override { return size_; }
    void truncate(long) override {}

private:
    const char *data_;
    long size_;
    long at_ = 0;
};

bool Accepts(const Input &input) {
    static const char *const kKinds[] = {"audio/mpeg", "audio/flac", "audio/x-flac", "audio/ogg", "audio/x-m4a",
                                         "audio/mp4", "audio/x-wav", "audio/wav", "audio/x-aiff", "audio/x-ape",
                                         "audio/x-wavpack", "audio/x-ms-wma"};
    for (const char *kind : kKinds)
        if (input.kind == kind) return true;
    return false;
}

std::string WavCodec(int format) {
    switch (format) {
    case 1: return "pcm";
    case 3: return "pcm float";
    case 6: return "alaw";
    case 7: return "mulaw";
    case 0x55: return "mp3";
    default: return "wav format " + std::to_string(format);
    }
}

// The codec's name, as libavcodec names it where it has one.
std::string Codec(TagLib::File *file) {
    if (auto *mpeg = dynamic_cast<TagLib::MPEG::File *>(file)) {
        const TagLib::MPEG::Properties *properties = mpeg->audioProperties();
        return properties == nullptr ? "mp3" : "mp" + std::to_string(properties->layer());
    }
    if (dynamic_cast<TagLib::FLAC::File *>(file) || dynamic_cast<TagLib::Ogg::FLAC::File *>(file)) return "flac";
    if (dynamic_cast<TagLib::Ogg::Vorbis::File *>(file)) return "vorbis";
    if (dynamic_cast<TagLib::Ogg::Opus::File *>(file)) return "opus";
    if (dynamic_cast<TagLib::Ogg::Speex::File *>(file)) return "speex";
    if (auto *mp4 = dynamic_cast<TagLib::MP4::File *>(file)) {
        const TagLib::MP4::Properties *properties = mp4->audioProperties();
        if (properties != nullptr && properties->codec() == TagLib::MP4::Properties::ALAC) return "alac";
        return "aac";
    }
    if (auto *wav = dynamic_cast<TagLib::RIFF::WAV::File *>(file))
        return wav->audioProperties() == nullptr ? "pcm" : WavCodec(wav->audioProperties()->format());
    if (dynamic_cast<TagLib::RIFF::AIFF::File *>(file)) return "pcm";
    if (dynamic_cast<TagLib::APE::File *>(file)) return "ape";
    if (dynamic_cast<TagLib::WavPack::File *>(file)) return "wavpack";
    if (dynamic_cast<TagLib::ASF::File *>(file)) return "wma";
    return std::string();
}

void Extract(const Input &input, Sink *sink) {
    MemoryStream stream(input);
    TagLib::FileRef ref(&stream, true, TagLib::AudioProperties::Average);
    TagLib::File *file = ref.file();
    if (file == nullptr || !file->isValid()) throw ExtractError("not a readable audio file");
    sink->Set(field::kMediaTypes, "Sound");
    sink->Set(field::kCodecs, Codec(file));
    const TagLib::PropertyMap tags = file->properties();
    for (const auto &tag : tags)
        for (const TagLib::String &value : tag.second)
            SetMediaTag(tag.first.to8Bit(true), value.to8Bit(true), sink);
    const TagLib::AudioProperties *audio = file->audioProperties();
    if (audio == nullptr) return;
    if (audio->lengthInMilliseconds() > 0) sink->SetDouble(field::kDurationSecond, audio->lengthInMilliseconds() / 1000.0);
    if (audio->bitrate() > 0) {
        // One stream: the file's rate is the sound's.
        sink->SetInt(field::kAudioBitRate, int64_t{audio->bitrate()} * 1000);
        sink->SetInt(field::kTotalBitRate, int64_t{audio->bitrate()} * 1000);
    }
    if (audio->sampleRate() > 0) sink->SetInt(field::kAudioSampleRate, audio->sampleRate());
    if (audio->channels() > 0) sink->SetInt(field::kAudioChannelCount, audio->channels());
}

const Extractor kAudio = {"audio", Accepts, Extract};
const Registration kRegistered(kAudio);

}  // namespace

}  // namespace extract
}  // namespace zarnd
