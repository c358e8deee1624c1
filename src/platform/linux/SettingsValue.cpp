#include "platform/linux/SettingsValue.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/CodeSet.h"
#include "platform/SettingsKey.h"

#include <algorithm>
#include <cstring>
#include <glibmm/error.h>
#include <glibmm/keyfile.h>

namespace fodr::platform {

namespace {

// Cuts the prefix off; a text without one is kRegSz.
uint32_t TakeType(std::string &text)
{
    const size_t colon = text.find(':');
    const auto type = colon == std::string::npos ? std::nullopt : SettingTypeOf(text.substr(0, colon));
    if (type)
        text.erase(0, colon + 1);
    return type.value_or(kRegSz);
}

bool IsTextType(uint32_t type)
{
    return type == kRegSz || type == kRegExpandSz || type == kRegMultiSz;
}

} // namespace

bool SettingsValue::IsText() const
{
    return IsTextType(type);
}

bool SettingsValue::WideBytes(std::string &wide) const
{
    if (!IsText()) {
        wide = bytes;
        return true;
    }
    std::u16string text;
    if (!Utf8ToUtf16(bytes, text))
        return false;
    wide.resize(text.size() * sizeof(char16_t));
    std::memcpy(wide.data(), text.data(), wide.size());
    return true;
}

bool SettingsValue::FromBytes(uint32_t type, bool wide, const void *data, size_t size, SettingsValue &value)
{
    value.type = type;
    const auto *first = static_cast<const char *>(data);
    if (!IsTextType(type)) {
        value.bytes.assign(first ? first : "", first ? size : 0);
        return (type == kRegDword && size == 4) || (type == kRegQword && size == 8) || type == kRegBinary;
    }
    std::string text(first ? first : "", first ? size : 0);
    if (wide) {
        std::u16string units(text.size() / sizeof(char16_t), u'\0');
        std::memcpy(units.data(), text.data(), units.size() * sizeof(char16_t));
        if (!Utf16ToUtf8(units, text))
            return false;
    } else {
        std::u16string units;
        if (!Utf8ToUtf16(text, units))
            return false;
    }
    value.bytes = text;
    value.SetTexts(value.Texts());
    return true;
}

// The texts of a list end at the first empty one, as in the registry.
std::vector<std::string> SettingsValue::Texts() const
{
    std::vector<std::string> texts;
    for (size_t begin = 0; begin < bytes.size();) {
        const size_t end = std::min(bytes.find('\0', begin), bytes.size());
        if (end == begin)
            break;
        texts.push_back(bytes.substr(begin, end - begin));
        if (type != kRegMultiSz)
            break;
        begin = end + 1;
    }
    return texts;
}

void SettingsValue::SetTexts(const std::vector<std::string> &texts)
{
    bytes.clear();
    for (const std::string &text : texts) {
        if (!text.empty())
            bytes.append(text).push_back('\0');
    }
    if (type == kRegMultiSz || bytes.empty())
        bytes.push_back('\0');
}

bool SettingsValue::Read(const Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key,
                         SettingsValue &value)
{
    try {
        std::string text = file.get_value(group, key);
        value.type = TakeType(text);
        if (!value.IsText()) {
            const auto bytes = SettingBytes(value.type, text);
            value.bytes = bytes.value_or("");
            return bytes.has_value();
        }
        std::vector<std::string> texts;
        if (value.type == kRegMultiSz) {
            for (const Glib::ustring &entry : file.get_string_list(group, key))
                texts.push_back(entry);
        } else {
            texts.push_back(file.get_string(group, key));
        }
        if (!texts.empty())
            TakeType(texts.front());
        value.SetTexts(texts);
        return true;
    } catch (const Glib::Error &) {
        return false;
    }
}

void SettingsValue::Write(Glib::KeyFile &file, const Glib::ustring &group, const Glib::ustring &key) const
{
    const std::string prefix = std::string(SettingTypeName(type)) + ':';
    if (!IsText()) {
        file.set_value(group, key, prefix + SettingText(type, bytes));
        return;
    }
    std::vector<std::string> texts = Texts();
    if (texts.empty())
        texts.emplace_back();
    texts.front().insert(0, prefix);
    if (type == kRegMultiSz)
        file.set_string_list(group, key, std::vector<Glib::ustring>(texts.begin(), texts.end()));
    else
        file.set_string(group, key, texts.front());
}

} // namespace fodr::platform
