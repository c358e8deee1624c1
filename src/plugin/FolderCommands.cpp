#include "plugin/FolderCommands.h"

#include "rdpdr/RdpdrChannelManager.h"
#include "runtime/LogCall.h"

#include <cstdlib>
#include <cstring>

namespace fodr {

namespace {

// Where the first comma of `text` separates something from something, else npos.
size_t FindSeparatingComma(const std::string &text)
{
    size_t comma = text.find(',');
    return comma == 0 || comma + 1 == text.size() ? std::string::npos : comma;
}

} // namespace

bool ParseCmdData(const std::string &command, std::string &action, int32_t &count, std::string &path,
                  std::string &name)
{
    size_t comma = FindSeparatingComma(command);
    if (comma == std::string::npos) {
        LOG_ERROR("Invalid command, no action string.\n");
        return false;
    }
    action = command.substr(0, comma);
    std::string rest = command.substr(comma + 1);

    comma = FindSeparatingComma(rest);
    if (comma == std::string::npos) {
        LOG_INFO("No file number parameter.\n");
    } else {
        // Text that reads as 0 is no count but the beginning of a path with a comma in it, "0," included.
        count = std::atoi(rest.substr(0, comma).c_str()); // NOLINT(cert-err34-c): this is the meaning wanted
        if (count != 0)
            rest.erase(0, comma + 1);
    }

    size_t bar = rest.rfind('|');
    path = rest.substr(0, bar);
    name = bar == std::string::npos ? std::string() : rest.substr(bar + 1);
    return true;
}

bool ParseFileList(const char *start, int32_t count, std::vector<std::string> &list)
{
    for (uint32_t left = static_cast<uint32_t>(count); left > 0; --left) {
        if (*start == '\0')
            return false;
        LOG_TRACE("The parsed file: [%s]\n", start);
        list.emplace_back(start);
        start += list.back().size() + 1;
    }
    return true;
}

bool OnSharedFolderCommand(void *context, const char *sender, const char *cookie, const char *data)
{
    auto *manager = static_cast<RdpdrChannelManager *>(context);
    if (!manager) {
        LOG_ERROR("Invalid pointer to RdpdrChannelManager.\n");
        return false;
    }
    if (!data) {
        LOG_ERROR("Invalid pointer to cmd data.\n");
        return false;
    }
    std::string command = data;
    std::string cookieText = cookie ? cookie : "";
    LOG_INFO("Get cmd [%s] from [%s] with cookie [%s].\n", data, sender ? sender : "", cookieText.c_str());

    std::string action;
    std::string path;
    std::string name;
    int32_t count = 0;
    bool parsed = ParseCmdData(command, action, count, path, name);
    LOG_INFO("Share Action: [%s], Share path: [%s], Share Name: [%s], File Number: [%d].\n", action.c_str(),
             path.c_str(), name.c_str(), count);
    if (!parsed) {
        LOG_ERROR("Failed to parse cmd data.\n");
        return false;
    }

    std::vector<std::string> files;
    if (count != 0 && RdpdrChannelManager::NeedsAccessControl(name) &&
        !ParseFileList(data + command.size() + 1, count, files)) {
        LOG_ERROR("Failed to parse file list.\n");
        files.clear();
    }
    if (action == "ADD") {
        LOG_DEBUG("Add shared folder %s, friendly name %s.\n", path.c_str(), name.c_str());
        return manager->AddSharedFolder(path, cookieText, false, 0, name, files);
    }
    if (action == "REMOVE") {
        LOG_DEBUG("Remove Shared folder %s, friendly name %s.\n", path.c_str(), name.c_str());
        return manager->RemoveSharedFolder(path, name, cookieText);
    }
    return false;
}

} // namespace fodr
