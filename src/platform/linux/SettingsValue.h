// One value of a settings file: a type and the bytes that the registry would hold.
//
//     name=dword:1        name=multi_sz:/home/me/docs;/home/me/pictures;       name=text without a type
//
// The syntax is GKeyFile's, its escapes included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Glib {
class KeyFile;
class ustring;
} // namespace Glib

namespace fodr::platform {

struct SettingsValue {
    uint32_t type = 0; // kReg...
    // Texts as UTF-8 with their terminators, numbers little-endian.
    std::string bytes;

    bool operator==(const SettingsValue &other) const = default;
    bool IsText() const;
    // With texts as UTF-16LE. False when a text isn't valid.
    bool WideBytes(std::string &wide) const;

    // From bytes as a program hands them over, which may lack terminators. False for a type that a settings
    // file has no form for, a text that isn't valid or a number of the wrong size.
    static bool FromBytes(uint32_t type, bool wide, const void *data, size_t size, SettingsValue &value);

    // False when the text of the file isn't well-formed for its type.
    static bool Read(const Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key,
                     SettingsValue &value);
    void Write(Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key) const;

private:
    std::vector<std::string> Texts() const;
    void SetTexts(const std::vector<std::string> &texts);
};

} // namespace fodr::platform
