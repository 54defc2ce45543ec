// The table of metadata keys: every key with its type, and near misses.
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "field_type_table.h"

namespace {

struct KeysOfType {
    ZARNQueryDocumentFieldType type;
    std::vector<std::string> keys;
};

const KeysOfType kKnown[] = {
    {DOCUMENT_FIELD_TYPE_INT,
     {"ZARNMDAttributeChangeDate", "ZARNMDAudioBitRate", "ZARNMDAudioChannelCount",
      "ZARNMDAudioSampleRate", "ZARNMDAudioTrackNumber", "ZARNMDContentCreationDate",
      "ZARNMDContentModificationDate", "ZARNMDDateAdded", "ZARNMDFSContentChangeDate",
      "ZARNMDFSCreationDate", "ZARNMDFSSize", "ZARNMDFinderLabel", "ZARNMDFinderOpenDate",
      "ZARNMDISOSpeed", "ZARNMDLastUsedDate", "ZARNMDLogicalSize", "ZARNMDPhysicalSize",
      "ZARNMDRecordingYear", "ZARNMDResolutionHeightDPI", "ZARNMDResolutionWidthDPI",
      "ZARNMDTotalBitRate", "ZARNMDVideoBitRate"}},
    {DOCUMENT_FIELD_TYPE_DOUBLE, {"ZARNMDDurationSecond"}},
    {DOCUMENT_FIELD_TYPE_BOOL, {"ZARNMDIsDir", "ZARNMDIsEncrypted"}},
    {DOCUMENT_FIELD_TYPE_STRING,
     {"ZARNMDAcquisitionMake", "ZARNMDAcquisitionModel", "ZARNMDAlbum", "ZARNMDAperture",
      "ZARNMDAuthors", "ZARNMDCodecs", "ZARNMDComment", "ZARNMDComposer", "ZARNMDCreator",
      "ZARNMDDescription", "ZARNMDExposureTimeString", "ZARNMDExtension", "ZARNMDFSName",
      "ZARNMDGroupId", "ZARNMDIdentifier", "ZARNMDKeywords", "ZARNMDMediaTypes",
      "ZARNMDMusicalGenre", "ZARNMDOwnerGroupID", "ZARNMDOwnerUserID", "ZARNMDParent",
      "ZARNMDPath", "ZARNMDPrivilege", "ZARNMDSearchAncestor", "ZARNMDSearchFileName",
      "ZARNMDSpotlightBoost", "ZARNMDStarRating", "ZARNMDTextContent", "ZARNMDTitle",
      "_ZARNMDUserTags"}},
};

TEST(FieldTypeTable, HoldsExactlyTheKnownKeysWithTheirTypes) {
    std::size_t known = 0;
    for (const KeysOfType &group : kKnown) {
        for (const std::string &key : group.keys) {
            ZARNQueryDocumentFieldType type{};
            EXPECT_TRUE(zarn::LookupFieldType(key.c_str(), &type)) << key;
            EXPECT_EQ(group.type, type) << key;
            ++known;
        }
    }
    EXPECT_EQ(55u, known);
    EXPECT_EQ(known, zarn::FieldTypeTableSize());
}

TEST(FieldTypeTable, MissesEverythingButExactKeys) {
    const char *misses[] = {"zarnmdpath", "ZARNMDPATH", "ZARNMDPath ", " ZARNMDPath", "ZARNMDPat",
                            "ZARNMD", "", "ZARNMDUserTags", "_zarnmdusertags", "ZARNMDPathX",
                            nullptr};
    for (const char *key : misses) {
        auto type = static_cast<ZARNQueryDocumentFieldType>(7);
        EXPECT_FALSE(zarn::LookupFieldType(key, &type)) << (key ? key : "(null)");
        EXPECT_EQ(7, type) << "a miss must leave the output alone";
    }
}

TEST(FieldTypeTable, ConstantListIsInAscendingByteOrder) {
    for (std::size_t i = 1; i < zarn::kFieldTypeCount; ++i) {
        EXPECT_LT(std::strcmp(zarn::kFieldTypeList[i - 1].key, zarn::kFieldTypeList[i].key), 0)
            << zarn::kFieldTypeList[i].key;
    }
    EXPECT_STREQ("_ZARNMDUserTags", zarn::kFieldTypeList[zarn::kFieldTypeCount - 1].key);
}

}  // namespace
