#include "cli/PluginPath.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <filesystem>

namespace fodr::cli {

namespace fs = std::filesystem;

std::string OwnProgram()
{
    return platform::ModulePath(nullptr);
}

std::string FindPlugin(std::string *problem)
{
    std::error_code error;
    const std::string chosen = platform::GetEnvironment("FODR_PLUGIN");
    if (!chosen.empty()) {
        if (fs::is_regular_file(chosen, error))
            return chosen;
        *problem = "there is no plug-in at \"" + chosen + "\", which FODR_PLUGIN names: correct or unset it";
        return {};
    }
    const fs::path here = fs::path(OwnProgram()).parent_path();
    const std::string name = platform::LibraryFileName("fodrClient");
    for (const fs::path &path : {here.parent_path() / "lib" / name, here / name}) {
        if (fs::is_regular_file(path, error))
            return path.string();
    }
    *problem = "the plug-in " + name + " is not in " + (here.parent_path() / "lib").string() +
               ": install it there or name it with FODR_PLUGIN";
    return {};
}

} // namespace fodr::cli
