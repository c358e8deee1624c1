#include "platform/Registry.h"

#include "lib/misc/Mutex.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/linux/SettingsFile.h"
#include "platform/linux/SettingsWatch.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <glibmm/keyfile.h>
#include <map>
#include <optional>

namespace fodr::platform {

namespace {

// The unnamed value of a key, as exported registry files write it.
constexpr char kUnnamedValue[] = "@";

struct OpenKey {
    std::shared_ptr<SettingsFile> file;
    std::string path; // as given
    std::u16string foldedPath;
    bool isWatched = false;
};

std::atomic<RegistryComplaintHandler> complaintHandler{nullptr};

const char *FileNameOf(RegistryRoot root)
{
    switch (root) {
    case RegistryRoot::ClassesRoot:
        return "HKEY_CLASSES_ROOT.ini";
    case RegistryRoot::CurrentUser:
        return "HKEY_CURRENT_USER.ini";
    case RegistryRoot::LocalMachine:
        return "HKEY_LOCAL_MACHINE.ini";
    case RegistryRoot::Users:
        return "HKEY_USERS.ini";
    case RegistryRoot::CurrentConfig:
        return "HKEY_CURRENT_CONFIG.ini";
    }
    return "";
}

struct OpenFiles {
    Mutex mutex;
    std::map<std::string, std::shared_ptr<SettingsFile>> files GUARDED_BY(mutex); // few, kept
};

OpenFiles &Files()
{
    static OpenFiles &files = *new OpenFiles; // a plug-in that lives in a static still reads and writes then
    return files;
}

std::shared_ptr<SettingsFile> FileOf(RegistryRoot root)
{
    const std::string path = SettingsFolder() + '/' + FileNameOf(root);
    OpenFiles &open = Files();
    const MutexLock guard(open.mutex);
    std::shared_ptr<SettingsFile> &file = open.files[path];
    if (!file)
        file = std::make_shared<SettingsFile>(path);
    return file;
}

// One separator at the end is allowed; the path of the root is empty.
uint32_t MakeKey(RegistryRoot root, const std::string &path, std::unique_ptr<OpenKey> &key)
{
    std::string cleaned = path;
    if (!cleaned.empty() && cleaned.back() == '\\')
        cleaned.pop_back();
    if (!cleaned.empty() && !IsSettingsPath(cleaned))
        return kErrorBadPathname;
    const std::optional<std::u16string> folded = FoldSettingsName(cleaned);
    if (!folded)
        return kErrorInvalidParameter;
    key.reset(new OpenKey{FileOf(root), cleaned, *folded, false});
    return kErrorSuccess;
}

bool CanBeGroup(const std::string &path)
{
    for (const char c : path) {
        if (c == '[' || c == ']' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return false;
    }
    return !path.empty();
}

bool CanBeName(const std::string &name)
{
    if (name.empty() || name.front() == ' ' || name.back() == ' ' || name.front() == '#')
        return false;
    for (const char c : name) {
        if (c == '=' || c == '[' || c == ']' || static_cast<unsigned char>(c) < 0x20)
            return false;
    }
    return true;
}

bool HasGroup(const Glib::KeyFile &file, const std::u16string &foldedPath)
{
    for (const Glib::ustring &group : file.get_groups()) {
        if (FoldSettingsName(group.raw()) == foldedPath)
            return true;
    }
    return false;
}

// The library has no call for a group without keys.
void AddGroup(Glib::KeyFile &file, const std::string &path)
{
    const std::string text = file.to_data().raw();
    file.load_from_data(text + (text.empty() ? "[" : "\n[") + path + "]\n", Glib::KEY_FILE_KEEP_COMMENTS);
}

void RemoveGroups(Glib::KeyFile &file, const std::u16string &foldedPath)
{
    for (const Glib::ustring &group : file.get_groups()) {
        if (FoldSettingsName(group.raw()) == foldedPath)
            file.remove_group(group);
    }
}

// Takes every spelling of the value out and gives the group and spelling that it had last, or should get.
bool RemoveValue(Glib::KeyFile &file, const OpenKey &key, const std::u16string &foldedName,
                 Glib::ustring &group, Glib::ustring &name)
{
    bool found = false;
    for (const Glib::ustring &candidate : file.get_groups()) {
        if (FoldSettingsName(candidate.raw()) != key.foldedPath)
            continue;
        if (!found)
            group = candidate;
        for (const Glib::ustring &spelling : file.get_keys(candidate)) {
            if (FoldSettingsName(spelling.raw()) != foldedName)
                continue;
            found = true;
            group = candidate;
            name = spelling;
            file.remove_key(candidate, spelling);
        }
    }
    return found;
}

} // namespace

bool ReportSettingsComplaint(const std::string &text)
{
    if (const RegistryComplaintHandler handler = complaintHandler.load())
        return handler(text.c_str());
    DebugOutput(text.c_str());
    return true;
}

void SetRegistryComplaintHandler(RegistryComplaintHandler handler)
{
    complaintHandler.store(handler);
}

uint32_t RegistryOpen(RegistryRoot root, const std::string &path, uint32_t, RegistryKey *key)
{
    std::unique_ptr<OpenKey> opened;
    const uint32_t outcome = MakeKey(root, path, opened);
    if (outcome != kErrorSuccess)
        return outcome;
    const std::shared_ptr<const SettingsModel> model = opened->file->Read();
    if (!model->FindKey(opened->foldedPath))
        return model->isReadable ? kErrorFileNotFound : kErrorInvalidData;
    *key = opened.release();
    return kErrorSuccess;
}

uint32_t RegistryCreate(RegistryRoot root, const std::string &path, uint32_t access, RegistryKey *key)
{
    const uint32_t found = RegistryOpen(root, path, access, key);
    if (found != kErrorFileNotFound)
        return found;
    std::unique_ptr<OpenKey> created;
    uint32_t outcome = MakeKey(root, path, created);
    if (outcome == kErrorSuccess && !CanBeGroup(created->path))
        outcome = kErrorInvalidParameter;
    if (outcome == kErrorSuccess) {
        outcome = created->file->Edit([&](Glib::KeyFile &file) {
            if (!HasGroup(file, created->foldedPath))
                AddGroup(file, created->path);
            return kErrorSuccess;
        });
    }
    if (outcome == kErrorSuccess)
        *key = created.release();
    return outcome;
}

uint32_t RegistryQuery(RegistryKey key, const std::string &name, bool wide, uint32_t *type, void *data,
                       uint32_t *size)
{
    const auto *opened = static_cast<const OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    const std::shared_ptr<const SettingsModel> model = opened->file->Read();
    const SettingsModel::Values *values = model->FindKey(opened->foldedPath);
    if (!values)
        return kErrorKeyDeleted;
    const std::optional<std::u16string> folded = FoldSettingsName(name.empty() ? kUnnamedValue : name);
    const auto found = folded ? values->find(*folded) : values->end();
    if (found == values->end())
        return kErrorFileNotFound;
    if (!found->second)
        return kErrorInvalidData;
    std::string converted;
    if (wide && !found->second->WideBytes(converted))
        return kErrorInvalidData;
    const std::string &bytes = wide ? converted : found->second->bytes;
    if (type)
        *type = found->second->type;
    const uint32_t room = *size;
    *size = static_cast<uint32_t>(bytes.size());
    if (!data)
        return kErrorSuccess;
    if (room < bytes.size())
        return kErrorMoreData;
    std::memcpy(data, bytes.data(), bytes.size());
    return kErrorSuccess;
}

uint32_t RegistrySet(RegistryKey key, const std::string &name, uint32_t type, bool wide, const void *data,
                     uint32_t size)
{
    const auto *opened = static_cast<const OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    const std::string wanted = name.empty() ? kUnnamedValue : name;
    const std::optional<std::u16string> folded = FoldSettingsName(wanted);
    SettingsValue value;
    if (!folded || !CanBeName(wanted) || !CanBeGroup(opened->path) ||
        !SettingsValue::FromBytes(type, wide, data, size, value))
        return kErrorInvalidParameter;
    return opened->file->Edit([&](Glib::KeyFile &file) {
        Glib::ustring group = opened->path;
        Glib::ustring spelling = wanted;
        RemoveValue(file, *opened, *folded, group, spelling);
        value.Write(file, group, spelling);
        return kErrorSuccess;
    });
}

uint32_t RegistryDeleteValue(RegistryKey key, const std::string &name)
{
    const auto *opened = static_cast<const OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    const std::optional<std::u16string> folded = FoldSettingsName(name.empty() ? kUnnamedValue : name);
    if (!folded)
        return kErrorInvalidParameter;
    return opened->file->Edit([&](Glib::KeyFile &file) {
        Glib::ustring group;
        Glib::ustring spelling;
        return RemoveValue(file, *opened, *folded, group, spelling) ? kErrorSuccess : kErrorFileNotFound;
    });
}

uint32_t RegistryListValues(RegistryKey key, std::vector<std::string> *names)
{
    const auto *opened = static_cast<const OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    Glib::KeyFile file;
    std::string ignored; // said when the values are read
    names->clear();
    if (!LoadKeyFile(opened->file->Path(), file, ignored))
        return kErrorSuccess;
    for (const Glib::ustring &group : file.get_groups()) {
        if (FoldSettingsName(group.raw()) != opened->foldedPath)
            continue;
        for (const Glib::ustring &name : file.get_keys(group))
            names->push_back(name.raw() == kUnnamedValue ? "" : name.raw());
    }
    return kErrorSuccess;
}

uint32_t RegistryDelete(RegistryKey key, const std::string &path)
{
    const auto *opened = static_cast<const OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    const std::optional<std::u16string> below = FoldSettingsName(path);
    if (!below || !IsSettingsPath(path))
        return kErrorInvalidParameter;
    const std::u16string doomed = opened->foldedPath.empty() ? *below : opened->foldedPath + u'\\' + *below;
    return opened->file->Edit([&](Glib::KeyFile &file) -> uint32_t {
        std::string ignored;
        const SettingsModel model = SettingsModel::FromFile(file, ignored);
        if (!model.FindKey(doomed))
            return kErrorFileNotFound;
        if (model.HasKeysBelow(doomed))
            return kErrorAccessDenied;
        RemoveGroups(file, doomed);
        // A key that was only there because of the one below stays.
        const std::string fullPath = opened->path.empty() ? path : opened->path + '\\' + path;
        const size_t parentEnd = fullPath.rfind('\\');
        if (parentEnd != std::string::npos) {
            const std::string parent = fullPath.substr(0, parentEnd);
            if (!SettingsModel::FromFile(file, ignored).FindKey(*FoldSettingsName(parent)))
                AddGroup(file, parent);
        }
        return kErrorSuccess;
    });
}

uint32_t RegistryClose(RegistryKey key)
{
    if (!key)
        return kErrorInvalidHandle;
    const std::unique_ptr<OpenKey> opened(static_cast<OpenKey *>(key));
    if (opened->isWatched)
        SettingsWatch::Get().Remove(key);
    return kErrorSuccess;
}

uint32_t RegistryNotify(RegistryKey key, bool watchSubtree, uint32_t filter, RegistryChangeHandler handler,
                        void *context)
{
    auto *opened = static_cast<OpenKey *>(key);
    if (!opened)
        return kErrorInvalidHandle;
    const bool names = (filter & kRegNotifyChangeName) != 0;
    const bool values = (filter & kRegNotifyChangeLastSet) != 0;
    if (!handler || (!names && !values))
        return kErrorInvalidParameter;
    opened->isWatched = true;
    return SettingsWatch::Get().Arm(
        key, {opened->file, {opened->foldedPath, watchSubtree, names, values}, handler, context});
}

} // namespace fodr::platform
