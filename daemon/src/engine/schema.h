// The metadata fields that the indexer stores for every file and folder, and
// those read from inside documents and media.  Dates, sizes and counts
// travel as JSON integers, the duration as a JSON number, every other field
// as a string.
// Each search engine decides how it keeps them (see its layout).
#ifndef ZARND_SCHEMA_H
#define ZARND_SCHEMA_H


namespace zarnd {
namespace field {

constexpr char kPath[] = "ZARNMDPath";  // share-relative: "/share/sub/name"
constexpr char kFSName[] = "ZARNMDFSName";
constexpr char kExtension[] = "ZARNMDExtension";  // without the dot; "" when none
constexpr char kIsDir[] = "ZARNMDIsDir";          // "y" or "n"
constexpr char kFSSize[] = "ZARNMDFSSize";
constexpr char kFSCreationDate[] = "ZARNMDFSCreationDate";
constexpr char kFSContentChangeDate[] = "ZARNMDFSContentChangeDate";
constexpr char kAttributeChangeDate[] = "ZARNMDAttributeChangeDate";
constexpr char kOwnerUserID[] = "ZARNMDOwnerUserID";    // decimal text
constexpr char kOwnerGroupID[] = "ZARNMDOwnerGroupID";  // decimal text
constexpr char kParent[] = "ZARNMDParent";              // share-relative folder
constexpr char kSearchFileName[] = "ZARNMDSearchFileName";
constexpr char kTextContent[] = "ZARNMDTextContent";

// Read from inside documents by the extraction workers (extract/).
constexpr char kTitle[] = "ZARNMDTitle";
constexpr char kAuthors[] = "ZARNMDAuthors";
constexpr char kKeywords[] = "ZARNMDKeywords";
constexpr char kDescription[] = "ZARNMDDescription";
constexpr char kCreator[] = "ZARNMDCreator";  // the program that made the document
constexpr char kIdentifier[] = "ZARNMDIdentifier";
constexpr char kContentCreationDate[] = "ZARNMDContentCreationDate";
constexpr char kContentModificationDate[] = "ZARNMDContentModificationDate";
constexpr char kIsEncrypted[] = "ZARNMDIsEncrypted";  // "y" or "n"

// Read from photos, music and video by the extraction workers.
constexpr char kAcquisitionMake[] = "ZARNMDAcquisitionMake";
constexpr char kAcquisitionModel[] = "ZARNMDAcquisitionModel";
constexpr char kAperture[] = "ZARNMDAperture";                   // "f/2.8"
constexpr char kExposureTimeString[] = "ZARNMDExposureTimeString";  // "1/250"
constexpr char kISOSpeed[] = "ZARNMDISOSpeed";
constexpr char kResolutionWidthDPI[] = "ZARNMDResolutionWidthDPI";
constexpr char kResolutionHeightDPI[] = "ZARNMDResolutionHeightDPI";
constexpr char kStarRating[] = "ZARNMDStarRating";  // "0" to "5"
constexpr char kAlbum[] = "ZARNMDAlbum";
constexpr char kComposer[] = "ZARNMDComposer";
constexpr char kMusicalGenre[] = "ZARNMDMusicalGenre";
constexpr char kComment[] = "ZARNMDComment";
constexpr char kAudioTrackNumber[] = "ZARNMDAudioTrackNumber";
constexpr char kRecordingYear[] = "ZARNMDRecordingYear";
constexpr char kDurationSecond[] = "ZARNMDDurationSecond";  // a double
constexpr char kAudioBitRate[] = "ZARNMDAudioBitRate";      // bits per second
constexpr char kVideoBitRate[] = "ZARNMDVideoBitRate";
constexpr char kTotalBitRate[] = "ZARNMDTotalBitRate";
constexpr char kAudioSampleRate[] = "ZARNMDAudioSampleRate";  // Hz
constexpr char kAudioChannelCount[] = "ZARNMDAudioChannelCount";
constexpr char kMediaTypes[] = "ZARNMDMediaTypes";  // "Image", "Sound", "Video", joined by "; "
constexpr char kCodecs[] = "ZARNMDCodecs";          // "h264; aac"

}  // namespace field

}  // namespace zarnd

#endif  // ZARND_SCHEMA_H
