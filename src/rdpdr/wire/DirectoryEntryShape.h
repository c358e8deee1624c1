// Where the native entries of a listing keep their names (MS-FSCC 2.4).
#pragma once

#include "platform/NtRecords.h"

#include <cstddef>
#include <cstdint>

namespace fodr {

struct DirectoryEntryShape {
    uint32_t infoClass;
    uint32_t nameLengthOffset; // of FileNameLength
    uint32_t nameOffset;       // of FileName
};

// Null for a class that is none of a listing.
inline const DirectoryEntryShape *FindDirectoryEntryShape(uint32_t infoClass)
{
    using namespace nt;
    static constexpr DirectoryEntryShape kShapes[] = {
        {FileDirectoryInformation, offsetof(FILE_DIRECTORY_INFORMATION, FileNameLength),
         offsetof(FILE_DIRECTORY_INFORMATION, FileName)},
        {FileFullDirectoryInformation, offsetof(FILE_FULL_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_FULL_DIR_INFORMATION, FileName)},
        {FileBothDirectoryInformation, offsetof(FILE_BOTH_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_BOTH_DIR_INFORMATION, FileName)},
        {FileNamesInformation, offsetof(FILE_NAMES_INFORMATION, FileNameLength),
         offsetof(FILE_NAMES_INFORMATION, FileName)},
        {FileIdBothDirectoryInformation, offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_ID_BOTH_DIR_INFORMATION, FileName)},
        {FileIdFullDirectoryInformation, offsetof(FILE_ID_FULL_DIR_INFORMATION, FileNameLength),
         offsetof(FILE_ID_FULL_DIR_INFORMATION, FileName)},
    };
    for (const DirectoryEntryShape &shape : kShapes) {
        if (shape.infoClass == infoClass)
            return &shape;
    }
    return nullptr;
}

} // namespace fodr
