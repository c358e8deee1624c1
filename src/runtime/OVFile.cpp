#include "runtime/OVFile.h"

#include "platform/Files.h"
#include "runtime/LogCall.h"

namespace fodr::FileUtils {

OVFile::OVFile(const std::string &filePath) : path(filePath) {}

OVFile::~OVFile()
{
    Close();
}

bool OVFile::Open(const std::string &mode)
{
    if (path.empty()) {
        LOG_DEBUG("The abolute path of the file is not set.\n");
        return false;
    }
    if (!platform::PathExists(path)) {
        LOG_DEBUG("%s file does not exist.\n", path.c_str());
        return false;
    }
    Close();
    file = platform::OpenSharedFile(path, mode.c_str());
    if (!file) {
        LOG_DEBUG("Opening the file failed: %s", path.c_str());
        return false;
    }
    return true;
}

bool OVFile::Close()
{
    if (file)
        std::fclose(file);
    file = nullptr;
    return true;
}

bool OVFile::Flush()
{
    return file && std::fflush(file) == 0;
}

bool OVFile::GetSize(int64_t *size)
{
    if (path.empty())
        return false;
    int64_t found = 0;
    if (file)
        found = platform::PositionOfStream(file);
    else if (!platform::SizeOfFile(path, found))
        return false;
    if (found == -1)
        return false;
    if (size)
        *size = found;
    return true;
}

bool OVFile::Write(const std::string &text)
{
    return file && std::fprintf(file, "%s", text.c_str()) >= 0;
}

} // namespace fodr::FileUtils
