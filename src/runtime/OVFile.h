// A buffered text file.
#pragma once

#include "runtime/RCObject.h"

#include <cstdint>
#include <cstdio>
#include <string>

namespace fodr::FileUtils {

// One thread at a time. Closed with its end.
class OVFile : public RCObject {
public:
    // The absolute path, in UTF-8.
    explicit OVFile(const std::string &filePath);
    ~OVFile() override;

    // In a mode of the C library, and shared with other readers and writers. Never makes the file, whatever
    // the mode: false when it isn't there. A stream that is open is closed first.
    bool Open(const std::string &mode);
    bool Close(); // true always
    bool Flush(); // false without an open stream
    // Of an open stream its position, which is the size when it appends; else the size of the file of this
    // path. `size` may be null.
    bool GetSize(int64_t *size);
    bool Write(const std::string &text);

    bool IsOpen() const { return file != nullptr; }
    const std::string &GetPath() const { return path; }

private:
    const std::string path;
    std::FILE *file = nullptr;
};

} // namespace fodr::FileUtils
