// Photos: EXIF, IPTC and XMP of JPEG, TIFF, PNG, WebP, HEIF and the other
// kinds exiv2 reads, from the mapped bytes (a worker may not open paths).
// Where the three say the same thing, EXIF is read first, then XMP, then
// IPTC: cameras write EXIF, editors keep the other two in step with it.
#include <cmath>
#include <cstdio>
#include <initializer_list>
#include <memory>

#include <exiv2/exiv2.hpp>

#include "extract/extractor.h"
#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

// Before the worker is confined: exiv2's XMP toolkit and its warnings, and
// the character set conversions that comments in UCS-2 need (iconv loads
// them from disk, which the confined worker may not).
struct Setup {
    Setup() {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        Exiv2::XmpParser::initialize();
        std::string text = "a";
        Exiv2::convertStringCharset(text, "UCS-2LE", "UTF-8");
    }
};
const Setup kSetup;

class Metadata {
public:
    explicit Metadata(const Exiv2::Image &image)
        : exif_(image.exifData()), iptc_(image.iptcData()), xmp_(image.xmpData()) {}

    // The first of `keys` that the image has ("Exif.", "Xmp." or "Iptc.").
    const Exiv2::Value *Find(std::initializer_list<const char *> keys) const {
        for (const char *key : keys) {
            const Exiv2::Value *value = FindOne(key);
            if (value != nullptr && value->count() > 0) return value;
        }
        return nullptr;
    }

    // Every value of the first key that has any, joined by "; ".
    void AddAll(std::initializer_list<const char *> keys, const char *field, Sink *sink) const {
        for (const char *key : keys) {
            const std::string prefix(key, 5);
            bool found = false;
            if (prefix == "Iptc.") {
                for (auto it = iptc_.begin(); it != iptc_.end(); ++it)
                    if (it->key() == key) found = true, sink->Add(field, it->toString());
            } else if (const Exiv2::Value *value = FindOne(key)) {
                // XMP's bags and sequences hold several texts; any other
                // value is one, whatever its count of bytes.
                const bool array = value->typeId() == Exiv2::xmpBag || value->typeId() == Exiv2::xmpSeq;
                for (long i = 0, n = array ? value->count() : 1; i < n; ++i)
                    found = true, sink->Add(field, Text(*value, i));
            }
            if (found) return;
        }
    }

    static std::string Text(const Exiv2::Value &value, long n = 0) {
        if (value.typeId() == Exiv2::comment) return static_cast<const Exiv2::CommentValue &>(value).comment();
        return value.toString(n);
    }

private:
    const Exiv2::Value *FindOne(const char *key) const {
        const std::string name(key);
        if (name.compare(0, 5, "Exif.") == 0) {
            const auto it = exif_.findKey(Exiv2::ExifKey(name));
            return it == exif_.end() ? nullptr : &it->value();
        }
        if (name.compare(0, 4, "Xmp.") == 0) {
            const auto it = xmp_.findKey(Exiv2::XmpKey(name));
            return it == xmp_.end() ? nullptr : &it->value();
        }
        const auto it = iptc_.findKey(Exiv2::IptcKey(name));
        return it == iptc_.end() ? nullptr : &it->value();
    }

    const Exiv2::ExifData &exif_;
    const Exiv2::IptcData &iptc_;
    const Exiv2::XmpData &xmp_;
};

// The kinds exiv2 reads metadata of, as libmagic names them; an icon or a
// bitmap of another kind keeps its name and metadata only.
bool Accepts(const Input &input) {
    static const char *const kKinds[] = {
        "image/jpeg",          "image/png",          "image/tiff",        "image/webp",       "image/heic",
        "image/heif",          "image/avif",         "image/gif",         "image/bmp",        "image/jp2",
        "image/x-canon-cr2",   "image/x-canon-crw",  "image/x-nikon-nef", "image/x-sony-arw", "image/x-adobe-dng",
        "image/x-olympus-orf", "image/x-panasonic-rw2", "image/x-fuji-raf", "image/x-pentax-pef",
        "image/x-samsung-srw", "image/vnd.adobe.photoshop"};
    for (const char *kind : kKinds)
        if (input.kind == kind) return true;
    return false;
}

void SetText(const Metadata &meta, std::initializer_list<const char *> keys, const char *field, Sink *sink) {
    if (const Exiv2::Value *value = meta.Find(keys)) sink->Set(field, Metadata::Text(*value));
}

double Real(const Exiv2::Value &value) {
    const Exiv2::Rational r = value.toRational(0);
    return r.second == 0 ? static_cast<double>(value.toFloat(0)) : static_cast<double>(r.first) / r.second;
}

// "f/2.8", "f/8".
void SetAperture(const Metadata &meta, Sink *sink) {
    double number = 0;
    if (const Exiv2::Value *value = meta.Find({"Exif.Photo.FNumber", "Xmp.exif.FNumber"}))
        number = Real(*value);
    else if (const Exiv2::Value *apex = meta.Find({"Exif.Photo.ApertureValue", "Xmp.exif.ApertureValue"}))
        number = std::pow(2.0, Real(*apex) / 2);
    if (!(number > 0 && number < 1000)) return;
    char text[32];
    std::snprintf(text, sizeof text, number == std::floor(number) ? "f/%.0f" : "f/%.1f", number);
    sink->Set(field::kAperture, text);
}

// "1/250" below a second, "2" or "2.5" (seconds) from one second on.
void SetExposure(const Metadata &meta, Sink *sink) {
    const Exiv2::Value *value = meta.Find({"Exif.Photo.ExposureTime", "Xmp.exif.ExposureTime"});
    if (value == nullptr) return;
    const double seconds = Real(*value);
    if (!(seconds > 0 && seconds < 1e6)) return;
    char text[32];
    if (seconds < 1)
        std::snprintf(text, sizeof text, "1/%.0f", 1 / seconds);
    else
        std::snprintf(text, sizeof text, "%g", seconds);
    sink->Set(field::kExposureTimeString, text);
}

void SetResolution(const Metadata &meta, Sink *sink) {
    // Unit 3 is centimetres; 2, the default, inches.
    const Exiv2::Value *unit = meta.Find({"Exif.Image.ResolutionUnit", "Xmp.tiff.ResolutionUnit"});
    const double scale = unit != nullptr && unit->toLong(0) == 3 ? 2.54 : 1;
    const std::pair<const char *, const char *> kAxes[] = {
        {"Exif.Image.XResolution", field::kResolutionWidthDPI}, {"Exif.Image.YResolution", field::kResolutionHeightDPI}};
    for (const auto &axis : kAxes) {
        const std::string xmp = std::string("Xmp.tiff.") + (axis.first + 11);
        const Exiv2::Value *value = meta.Find({axis.first, xmp.c_str()});
        const double dpi = value == nullptr ? 0 : Real(*value) * scale;
        if (dpi >= 1 && dpi < 1e6) sink->SetInt(axis.second, std::llround(dpi));
    }
}

// EXIF's "2024:03:05 10:20:30", with the zone of its offset tag when the
// camera wrote one, else read as UTC (as ParseIsoDate reads a time without
// a zone): the clock time as the camera showed it.
void SetExifDate(const Metadata &meta, const char *key, const char *offset_key, std::initializer_list<const char *> xmp,
                 const char *field, Sink *sink) {
    int64_t seconds = 0;
    if (const Exiv2::Value *value = meta.Find({key})) {
        std::string text = value->toString();
        if (text.size() >= 10 && text[4] == ':' && text[7] == ':') text[4] = text[7] = '-';
        if (const Exiv2::Value *offset = meta.Find({offset_key})) text += offset->toString();
        if (ParseIsoDate(text, &seconds)) return sink->SetInt(field, seconds);
    }
    if (const Exiv2::Value *value = meta.Find(xmp))
        if (ParseIsoDate(value->toString(), &seconds)) sink->SetInt(field, seconds);
}

void SetRating(const Metadata &meta, Sink *sink) {
    const Exiv2::Value *value = meta.Find({"Xmp.xmp.Rating", "Exif.Image.Rating"});
    if (value == nullptr) return;
    // -1 is "rejected"; anything else out of 0 to 5 is noise.
    const long stars = value->toLong(0);
    if (value->ok() && stars >= -1 && stars <= 5) sink->Set(field::kStarRating, std::to_string(stars));
}

void Extract(const Input &input, Sink *sink) {
    // exiv2 0.27 hands the image over in a std::auto_ptr: take it at once.
    std::unique_ptr<Exiv2::Image> image;
    try {
        image.reset(Exiv2::ImageFactory::open(reinterpret_cast<const Exiv2::byte *>(input.data),
                                              static_cast<long>(input.size))
                        .release());
        if (image.get() == nullptr) throw ExtractError("not an image that exiv2 reads");
        // exiv2 also reads some video containers, and its readers of them
        // can loop on a crafted file: photos only (videos go to libavformat).
        if (image->mimeType().compare(0, 6, "image/") != 0) throw ExtractError("not a photo that exiv2 reads");
        image->readMetadata();
    } catch (const Exiv2::AnyError &error) {
        throw ExtractError(std::string("image metadata: ") + error.what());
    }
    const std::string mime = image->mimeType();
    sink->Set(field::kMediaTypes, "Image");
    sink->Set(field::kCodecs, mime.compare(0, 6, "image/") == 0 ? mime.substr(6) : mime);
    const Metadata meta(*image);
    SetText(meta, {"Exif.Image.Make", "Xmp.tiff.Make"}, field::kAcquisitionMake, sink);
    SetText(meta, {"Exif.Image.Model", "Xmp.tiff.Model"}, field::kAcquisitionModel, sink);
    if (const Exiv2::Value *iso = meta.Find({"Exif.Photo.ISOSpeedRatings", "Xmp.exif.ISOSpeedRatings"}))
        if (iso->toLong(0) > 0) sink->SetInt(field::kISOSpeed, iso->toLong(0));
    SetAperture(meta, sink);
    SetExposure(meta, sink);
    SetResolution(meta, sink);
    SetRating(meta, sink);
    SetText(meta, {"Xmp.dc.title", "Iptc.Application2.ObjectName"}, field::kTitle, sink);
    SetText(meta, {"Exif.Image.ImageDescription", "Xmp.dc.description", "Iptc.Application2.Caption"},
            field::kDescription, sink);
    SetText(meta, {"Exif.Photo.UserComment"}, field::kComment, sink);
    SetText(meta, {"Exif.Image.Software", "Xmp.xmp.CreatorTool"}, field::kCreator, sink);
    meta.AddAll({"Exif.Image.Artist", "Xmp.dc.creator", "Iptc.Application2.Byline"}, field::kAuthors, sink);
    meta.AddAll({"Xmp.dc.subject", "Iptc.Application2.Keywords"}, field::kKeywords, sink);
    SetExifDate(meta, "Exif.Photo.DateTimeOriginal", "Exif.Photo.OffsetTimeOriginal",
                {"Xmp.exif.DateTimeOriginal", "Xmp.photoshop.DateCreated", "Xmp.xmp.CreateDate"},
                field::kContentCreationDate, sink);
    SetExifDate(meta, "Exif.Image.DateTime", "Exif.Photo.OffsetTime", {"Xmp.xmp.ModifyDate"},
                field::kContentModificationDate, sink);
}

const Extractor kImage = {"image", Accepts, Extract};
const Registration kRegistered(kImage);

}  // namespace

}  // namespace extract
}  // namespace zarnd
