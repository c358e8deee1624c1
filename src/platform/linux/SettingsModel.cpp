#include "platform/linux/SettingsModel.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/CodeSet.h"

#include <glibmm/error.h>
#include <glibmm/fileutils.h>
#include <glibmm/init.h>
#include <glibmm/keyfile.h>

namespace fodr::platform {

namespace {

// The library's exceptions need it.
void InitGlibOnce()
{
    static const bool done = [] {
        Glib::init();
        return true;
    }();
    static_cast<void>(done);
}

} // namespace

std::optional<std::u16string> FoldSettingsName(std::string_view name)
{
    std::u16string wide;
    if (!Utf8ToUtf16(name, wide))
        return std::nullopt;
    return FoldText(wide);
}

bool IsSettingsPath(std::string_view path)
{
    return !path.empty() && path.front() != '\\' && path.back() != '\\' &&
           path.find("\\\\") == std::string_view::npos;
}

bool LoadKeyFile(const std::string &path, Glib::KeyFile &file, std::string &complaint)
{
    InitGlibOnce();
    try {
        file.load_from_file(path, Glib::KEY_FILE_KEEP_COMMENTS);
        return true;
    } catch (const Glib::FileError &error) {
        if (error.code() == Glib::FileError::NO_SUCH_ENTITY)
            return true;
        complaint = "Settings file " + path + " can't be read and counts as empty: " + error.what().raw();
    } catch (const Glib::Error &error) {
        complaint = "Settings file " + path + " is malformed and counts as empty: " + error.what().raw();
    }
    return false;
}

SettingsModel SettingsModel::FromFile(const Glib::KeyFile &file, std::string &complaint)
{
    SettingsModel model;
    model.keys[u""];         // the root is always there,
    model.keys[u"software"]; // and what all settings are below, as in a registry
    for (const Glib::ustring &group : file.get_groups()) {
        const std::optional<std::u16string> path = FoldSettingsName(group.raw());
        if (!path || !IsSettingsPath(group.raw())) {
            complaint = "[" + group.raw() + "] is no key path and is left out";
            continue;
        }
        for (size_t end = path->find(u'\\'); end != std::u16string::npos; end = path->find(u'\\', end + 1))
            model.keys[path->substr(0, end)];
        Values &values = model.keys[*path];
        for (const Glib::ustring &key : file.get_keys(group)) {
            const std::optional<std::u16string> name = FoldSettingsName(key.raw());
            if (!name)
                continue;
            SettingsValue value;
            const bool good = SettingsValue::Read(file, group, key, value);
            if (!good)
                complaint =
                    "\"" + key.raw() + "\" in [" + group.raw() + "] isn't well-formed and can't be used";
            values[*name] = good ? std::optional(value) : std::nullopt;
        }
    }
    return model;
}

const SettingsModel::Values *SettingsModel::FindKey(const std::u16string &path) const
{
    const auto found = keys.find(path);
    return found == keys.end() ? nullptr : &found->second;
}

bool SettingsModel::HasKeysBelow(const std::u16string &path) const
{
    const std::u16string prefix = path.empty() ? path : path + u'\\';
    const auto next = keys.upper_bound(prefix);
    return next != keys.end() && next->first.starts_with(prefix);
}

// The keys of interest, with their values as far as those are.
std::map<std::u16string, SettingsModel::Values> SettingsModel::Part(const Interest &interest) const
{
    std::map<std::u16string, Values> part;
    const Values *own = FindKey(interest.path);
    if (own)
        part[interest.path] = interest.values ? *own : Values();
    const std::u16string prefix = interest.path.empty() ? interest.path : interest.path + u'\\';
    for (auto next = keys.upper_bound(prefix); next != keys.end() && next->first.starts_with(prefix);
         ++next) {
        if (interest.subtree)
            part[next->first] = interest.values ? next->second : Values();
        else if (interest.names && next->first.find(u'\\', prefix.size()) == std::u16string::npos)
            part[next->first];
    }
    return part;
}

bool SettingsModel::Differ(const SettingsModel &before, const SettingsModel &after, const Interest &interest)
{
    return &before != &after &&
           (before.isReadable != after.isReadable || before.Part(interest) != after.Part(interest));
}

} // namespace fodr::platform
