// A settings store of its own for a test: an empty folder that FODR_SETTINGS_DIR names while this lives.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace fodr::test {

class SettingsFixture {
public:
    SettingsFixture()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "fodr-settings-XXXXXX";
        folder = mkdtemp(pattern.data());
        if (const char *old = std::getenv("FODR_SETTINGS_DIR"))
            previous = old;
        setenv("FODR_SETTINGS_DIR", folder.c_str(), 1);
    }
    ~SettingsFixture()
    {
        if (previous.empty())
            unsetenv("FODR_SETTINGS_DIR");
        else
            setenv("FODR_SETTINGS_DIR", previous.c_str(), 1);
        std::filesystem::remove_all(folder);
    }
    SettingsFixture(const SettingsFixture &) = delete;
    SettingsFixture &operator=(const SettingsFixture &) = delete;

    // Values of the plug-in's key. Each call rewrites the file.
    void SetText(const std::string &name, const std::string &value) { Set(name + "=sz:" + value); }
    void SetNumber(const std::string &name, uint32_t value) { Set(name + "=dword:" + std::to_string(value)); }
    void SetList(const std::string &name, const std::vector<std::string> &values)
    {
        std::string line = name + "=multi_sz:";
        for (const std::string &value : values)
            line += value + ";";
        Set(line);
    }
    // Makes the key exist without values.
    void CreateKey() { Write(); }
    // The store of the machine's settings is this text from now on, in one step.
    void Store(const std::string &text) const
    {
        std::ofstream(folder + "/new") << text;
        std::filesystem::rename(folder + "/new", folder + "/HKEY_LOCAL_MACHINE.ini");
    }

    const std::string &Folder() const { return folder; }

private:
    void Set(const std::string &line)
    {
        lines.push_back(line);
        Write();
    }
    void Write()
    {
        std::ofstream file(folder + "/HKEY_LOCAL_MACHINE.ini");
        file << "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";
        for (const std::string &line : lines)
            file << line << "\n";
    }

    std::string folder;
    std::string previous;
    std::vector<std::string> lines;
};

} // namespace fodr::test
