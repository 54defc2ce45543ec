#include "extract/fields.h"

#include "schema.h"

namespace zarnd {
namespace extract {

namespace {

const ExtractedField kFields[] = {
    {field::kTitle, FieldType::kString},
    {field::kAuthors, FieldType::kString},
    {field::kKeywords, FieldType::kString},
    {field::kDescription, FieldType::kString},
    {field::kCreator, FieldType::kString},
    {field::kIdentifier, FieldType::kString},
    {field::kContentCreationDate, FieldType::kInt},
    {field::kContentModificationDate, FieldType::kInt},
    {field::kIsEncrypted, FieldType::kBool},
    // Photos, music and video.
    {field::kAcquisitionMake, FieldType::kString},
    {field::kAcquisitionModel, FieldType::kString},
    {field::kAperture, FieldType::kString},
    {field::kExposureTimeString, FieldType::kString},
    {field::kISOSpeed, FieldType::kInt},
    {field::kResolutionWidthDPI, FieldType::kInt},
    {field::kResolutionHeightDPI, FieldType::kInt},
    {field::kStarRating, FieldType::kString},
    {field::kAlbum, FieldType::kString},
    {field::kComposer, FieldType::kString},
    {field::kMusicalGenre, FieldType::kString},
    {field::kComment, FieldType::kString},
    {field::kAudioTrackNumber, FieldType::kInt},
    {field::kRecordingYear, FieldType::kInt},
    {field::kDurationSecond, FieldType::kDouble},
    {field::kAudioBitRate, FieldType::kInt},
    {field::kVideoBitRate, FieldType::kInt},
    {field::kTotalBitRate, FieldType::kInt},
    {field::kAudioSampleRate, FieldType::kInt},
    {field::kAudioChannelCount, FieldType::kInt},
    {field::kMediaTypes, FieldType::kString},
    {field::kCodecs, FieldType::kString},
};

}  // namespace

const ExtractedField *FindExtractedField(const std::string &key) {
    for (const ExtractedField &entry : kFields)
        if (key == entry.key) return &entry;
    return nullptr;
}

}  // namespace extract
}  // namespace zarnd
