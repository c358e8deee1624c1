#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"
#include "platform/SystemError.h"
#include "runtime/LogCall.h"
#include "runtime/OVRegKey.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace fodr {

namespace {

constexpr const char *kLoad = "OVRegValue::Load()";
constexpr const char *kLogData = "OVRegValue::LogData()";

// Enough zero bytes behind a value for a terminator of either width, also behind an odd size.
constexpr size_t kTerminatorBytes = 4;

constexpr const char *kTypeNames[] = {
    "REG_NONE",
    "REG_SZ",
    "REG_EXPAND_SZ",
    "REG_BINARY",
    "REG_DWORD",
    "REG_DWORD_BIG_ENDIAN",
    "REG_LINK",
    "REG_MULTI_SZ",
    "REG_RESOURCE_LIST",
    "REG_FULL_RESOURCE_DESCRIPTOR",
    "REG_RESOURCE_REQUIREMENTS_LIST",
    "REG_QWORD",
};

constexpr const char *kViewNames[] = {"Win32Default", "Alternate", "Reg64Bit", "Reg32Bit"};

constexpr int kDumpBytesPerLine = 20;
constexpr int kDumpIndent = 63;

size_t LastSeparator(const std::string &text)
{
    return text.find_last_of("/\\");
}

std::string KeyPathOf(const std::string &valuePath)
{
    const size_t separator = LastSeparator(valuePath);
    return separator == std::string::npos ? std::string() : valuePath.substr(0, separator);
}

bool IsTextType(int32_t type)
{
    switch (static_cast<uint32_t>(type)) {
    case platform::kRegSz:
    case platform::kRegExpandSz:
    case platform::kRegMultiSz:
        return true;
    default:
        return false;
    }
}

std::string DumpOf(const std::vector<uint8_t> &data, size_t size)
{
    const size_t lines = (size + kDumpBytesPerLine - 1) / kDumpBytesPerLine;
    std::string dump(lines * (kDumpBytesPerLine * 4 + 10 + kDumpIndent) + 1, '\0');
    dump.resize(
        StringUtils::HexDump(dump.data(), dump.size(), data.data(), size, kDumpBytesPerLine, kDumpIndent));
    return "\n" + dump;
}

} // namespace

OVRegValue::OVRegValue(const std::string &keyPath, const std::string &name, RegView keyView)
    : OVRegKey(keyPath, keyView), fullPath(keyPath + '\\' + name), valueName(name)
{}

OVRegValue::OVRegValue(const std::string &valuePath, RegView keyView)
    : OVRegKey(KeyPathOf(valuePath), keyView), fullPath(valuePath),
      valueName(valuePath.substr(LastSeparator(valuePath) + 1)) // npos + 1 is 0
{}

bool OVRegValue::Load(bool readWide, int32_t logLevel)
{
    OVMutexLock guard(mutex);
    std::vector<uint8_t> bytes;
    uint32_t newSize = 0;
    uint32_t newType = 0;
    if (OpenKey() != platform::kErrorSuccess) {
        if (IsLogEnabled(logLevel))
            LogWrite(kLoad, logLevel, "RegOpenKeyEx(\"%s\") failed", path.c_str());
        Clear(false);
        return false;
    }
    uint32_t error = platform::RegistryQuery(handle, valueName, readWide, &newType, nullptr, &newSize);
    if (error == platform::kErrorSuccess || error == platform::kErrorMoreData) {
        bytes.resize(newSize + kTerminatorBytes);
        error = platform::RegistryQuery(handle, valueName, readWide, &newType, bytes.data(), &newSize);
    }
    if (error != platform::kErrorSuccess) {
        if (IsLogEnabled(logLevel))
            LogWrite(kLoad, logLevel, "RegQueryValueEx(\"%s\") failed", fullPath.c_str());
        Clear(false);
        return false;
    }
    const bool changed = !loaded || type != static_cast<int32_t>(newType) || size != newSize ||
                         std::memcmp(data.data(), bytes.data(), newSize) != 0;
    if (changed) {
        data = std::move(bytes);
        size = newSize;
        type = static_cast<int32_t>(newType);
        wide = readWide;
        loaded = true;
    }
    LogData(logLevel);
    if (IsLogEnabled(logLevel))
        LogWrite(kLoad, logLevel, changed ? "\"%s\" has changed" : "\"%s\" has not changed",
                 fullPath.c_str());
    return changed;
}

void OVRegValue::Clear(bool reload)
{
    OVMutexLock guard(mutex);
    data.clear();
    loaded = false;
    size = 0;
    CloseKey();
    if (reload)
        Load(wide, LOG_LEVEL_VERBOSE);
}

void OVRegValue::LogData(int32_t logLevel)
{
    if (!IsLogEnabled(logLevel))
        return;
    OVMutexLock guard(mutex);
    const std::string typeName = static_cast<uint32_t>(type) < std::size(kTypeNames)
                                     ? std::string(kTypeNames[static_cast<uint32_t>(type)])
                                     : std::to_string(type);
    const char *viewName = view < std::size(kViewNames) ? kViewNames[view] : "";
    LogWrite(kLogData, logLevel, "%s  Location(%s%s)  Type(%s/%c)  Size(%d)%s", fullPath.c_str(), viewName,
             GetDisplayPath() == path ? "" : "/WOW64", typeName.c_str(), wide ? 'W' : 'A',
             static_cast<int>(size), size == 0 ? "" : DumpOf(data, size).c_str());
}

// Up to the first terminator, of which there is one in any case.
bool OVRegValue::TextOfData(std::string &text) const
{
    if (!wide) {
        text = reinterpret_cast<const char *>(data.data());
        return true;
    }
    std::u16string units(data.size() / sizeof(char16_t), u'\0');
    std::memcpy(units.data(), data.data(), units.size() * sizeof(char16_t));
    return Utf16ToUtf8(units.c_str(), text);
}

bool OVRegValue::NumberOfData(uint64_t &number) const
{
    std::string text;
    if (!loaded)
        return false;
    if (IsTextType(type)) {
        if (!TextOfData(text) || text.empty())
            return false;
        char *end = nullptr;
        number = std::strtoull(text.c_str(), &end, 0);
        return end != text.c_str();
    }
    size_t width = 0;
    switch (static_cast<uint32_t>(type)) {
    case platform::kRegDword:
        width = 4;
        break;
    case platform::kRegQword:
        width = 8;
        break;
    case platform::kRegBinary:
        width = size >= 8 ? 8 : size >= 4 ? 4 : size >= 2 ? 2 : size;
        break;
    default:
        break;
    }
    width = std::min<size_t>(width, size);
    number = 0;
    for (size_t n = width; n > 0; --n)
        number = number << 8 | data[n - 1];
    return width > 0;
}

bool OVRegValue::IsLoaded()
{
    OVMutexLock guard(mutex);
    return loaded;
}

bool OVRegValue::ToBool(bool defaultValue)
{
    OVMutexLock guard(mutex);
    if (!loaded)
        return defaultValue;
    if (IsTextType(type)) {
        std::string text;
        if (!TextOfData(text))
            return defaultValue;
        for (const char *yes : {"true", "yes", "1"}) {
            if (AsciiEqualsNoCase(text, yes))
                return true;
        }
        for (const char *no : {"false", "no", "0"}) {
            if (AsciiEqualsNoCase(text, no))
                return false;
        }
        return defaultValue;
    }
    if (static_cast<uint32_t>(type) == platform::kRegBinary)
        return std::any_of(data.begin(), data.end(), [](uint8_t byte) { return byte != 0; });
    uint64_t number = 0;
    return NumberOfData(number) ? number != 0 : defaultValue;
}

uint32_t OVRegValue::ToDword(uint32_t defaultValue)
{
    OVMutexLock guard(mutex);
    uint64_t number = 0;
    if (!NumberOfData(number))
        return defaultValue;
    return IsTextType(type) ? SaturatedNumber(number) : static_cast<uint32_t>(number);
}

uint64_t OVRegValue::ToQword(uint64_t defaultValue)
{
    OVMutexLock guard(mutex);
    uint64_t number = 0;
    return NumberOfData(number) ? number : defaultValue;
}

bool OVRegValue::ToString(std::string &value, const std::string &defaultValue)
{
    OVMutexLock guard(mutex);
    value = defaultValue;
    if (!loaded)
        return false;
    std::string text;
    uint64_t number = 0;
    switch (static_cast<uint32_t>(type)) {
    case platform::kRegSz:
    case platform::kRegExpandSz:
    case platform::kRegMultiSz:
        if (!TextOfData(text))
            return false;
        break;
    case platform::kRegBinary:
        for (size_t n = 0; n < size; ++n)
            text += StringUtils::Format(n == 0 ? "%02x" : " %02x", data[n]);
        break;
    case platform::kRegDword:
        if (!NumberOfData(number))
            return false;
        text = std::to_string(static_cast<uint32_t>(number));
        break;
    case platform::kRegQword:
        if (!NumberOfData(number))
            return false;
        text = std::to_string(static_cast<int64_t>(number)); // signed, unlike the smaller one
        break;
    default:
        return false;
    }
    value = text;
    return true;
}

bool OVRegValue::ToWideString(std::u16string &value, const std::u16string &defaultValue)
{
    OVMutexLock guard(mutex);
    value = defaultValue;
    if (loaded && IsTextType(type) && wide) {
        std::u16string units(data.size() / sizeof(char16_t), u'\0');
        std::memcpy(units.data(), data.data(), units.size() * sizeof(char16_t));
        value = units.c_str();
        return true;
    }
    std::string text;
    std::u16string converted;
    if (!ToString(text, {}) || !Utf8ToUtf16(text, converted))
        return false;
    value = converted;
    return true;
}

namespace {

std::string ReadString(const std::string &fullPath, RegView view, int32_t logLevel)
{
    OVRegValue value(fullPath, view);
    std::string text;
    value.Load(false, logLevel == -1 ? static_cast<int32_t>(LOG_LEVEL_VERBOSE) : logLevel);
    value.ToString(text, {});
    return text;
}

} // namespace

std::string ReadRegistryString(const std::string &fullPath, int32_t logLevel)
{
    return ReadString(fullPath, Win32Default, logLevel);
}

std::string ReadRegistryString64Bit(const std::string &fullPath, int32_t logLevel)
{
    return ReadString(fullPath, Reg64Bit, logLevel);
}

} // namespace fodr
