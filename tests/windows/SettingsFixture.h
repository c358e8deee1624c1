// A settings store of its own for a test: an empty key of the user that stands for HKEY_LOCAL_MACHINE while
// this lives.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fodr::test {

class SettingsFixture {
public:
    SettingsFixture();
    ~SettingsFixture();
    SettingsFixture(const SettingsFixture &) = delete;
    SettingsFixture &operator=(const SettingsFixture &) = delete;

    // Values of the plug-in's key.
    void SetText(const std::string &name, const std::string &value);
    void SetNumber(const std::string &name, uint32_t value);
    void SetList(const std::string &name, const std::vector<std::string> &values);
    // Makes the key exist without values.
    void CreateKey();

    // A scratch folder that goes with the store.
    const std::string &Folder() const { return folder; }

private:
    void Set(const std::string &name, uint32_t type, const std::wstring &text);

    std::wstring store;
    std::string folder;
};

} // namespace fodr::test
