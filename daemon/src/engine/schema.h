// The metadata fields that the indexer stores for every file and folder, and
// those read from inside documents.  The dates and the size travel as JSON
// integers, every other field as a string.
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

}  // namespace field

}  // namespace zarnd

#endif  // ZARND_SCHEMA_H
