#include "platform/Registry.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/Files.h"
#include "platform/SystemError.h"
#include "platform/linux/SettingsWatch.h"

#include <filesystem>
#include <glibmm/keyfile.h>

namespace fodr::platform {

namespace {

namespace fs = std::filesystem;

constexpr const char *kFiles[] = {"HKEY_LOCAL_MACHINE.ini", "HKEY_CURRENT_USER.ini"};
constexpr size_t kMachine = 0;
constexpr size_t kFileCount = std::size(kFiles);

// Takes the user's file, with its comments, for the copy's content; nothing if it is malformed.
void TakeOver(const std::string &userFile, Glib::KeyFile &copy)
{
    Glib::KeyFile user;
    std::string ignored; // said already
    const std::string text = LoadKeyFile(userFile, user, ignored) ? user.to_data().raw() : "";
    copy.load_from_data(text, Glib::KEY_FILE_KEEP_COMMENTS);
}

void RemoveEverySpelling(Glib::KeyFile &file, const std::u16string &key, const std::u16string &name)
{
    for (const Glib::ustring &group : file.get_groups()) {
        if (FoldSettingsName(group.raw()) != key)
            continue;
        for (const Glib::ustring &spelling : file.get_keys(group)) {
            if (FoldSettingsName(spelling.raw()) == name)
                file.remove_key(group, spelling);
        }
    }
}

class LinuxPrivateStore final : public PrivateStore {
public:
    LinuxPrivateStore(const fs::path &userFolder, const std::string &ownFolder, const std::string &keyPath)
        : folder(ownFolder), key(keyPath), foldedKey(*FoldSettingsName(keyPath))
    {
        for (size_t i = 0; i < kFileCount; ++i) {
            users[i] = std::make_shared<SettingsFile>(userFolder / kFiles[i]);
            copies[i] = std::make_unique<SettingsFile>(fs::path(ownFolder) / kFiles[i]);
        }
    }

    ~LinuxPrivateStore() override
    {
        for (const auto &file : users)
            SettingsWatch::Get().Remove(file.get());
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }

    bool Update(const std::vector<FixedValue> &values, std::string *error) override
    {
        Listen(); // before the reading
        uint32_t outcome = kErrorSuccess;
        for (size_t i = 0; i < kFileCount && outcome == kErrorSuccess; ++i) {
            users[i]->Read(); // which says what is wrong with the file
            outcome = copies[i]->Edit([&](Glib::KeyFile &copy) -> uint32_t {
                TakeOver(users[i]->Path(), copy);
                return i == kMachine ? Fix(values, copy) : kErrorSuccess;
            });
        }
        if (outcome != kErrorSuccess)
            *error = "the settings in " + folder + " can't be written: " + SystemErrorText(outcome);
        return outcome == kErrorSuccess;
    }

    void Follow(std::function<void()> handler) override
    {
        onChange = std::move(handler);
        Listen();
    }

private:
    uint32_t Fix(const std::vector<FixedValue> &values, Glib::KeyFile &copy) const
    {
        for (const FixedValue &fixed : values) {
            RemoveEverySpelling(copy, foldedKey, *FoldSettingsName(fixed.name));
            SettingsValue value;
            if (fixed.type == kRegNone)
                continue;
            if (!SettingsValue::FromBytes(fixed.type, false, fixed.bytes.data(), fixed.bytes.size(), value))
                return kErrorInvalidParameter;
            value.Write(copy, key, fixed.name);
        }
        return kErrorSuccess;
    }

    void Listen()
    {
        if (!onChange)
            return;
        const auto tell = [](void *self) { static_cast<LinuxPrivateStore *>(self)->onChange(); };
        for (const auto &file : users)
            SettingsWatch::Get().Arm(file.get(), {file, {u"", true, true, true}, tell, this});
    }

    const std::string folder;
    const std::string key;
    const std::u16string foldedKey;
    std::shared_ptr<SettingsFile> users[kFileCount];
    std::unique_ptr<SettingsFile> copies[kFileCount];
    std::function<void()> onChange; // set once, before the watch knows of it
};

} // namespace

std::unique_ptr<PrivateStore> PrivateStore::Create(const std::string &folder, const std::string &keyPath,
                                                   const std::vector<FixedValue> &values, std::string *error)
{
    const std::string user = SettingsFolder();
    if (!CreatePrivateFolder(folder, error))
        return nullptr;
    auto store = std::make_unique<LinuxPrivateStore>(user, folder, keyPath);
    if (!store->Update(values, error))
        return nullptr;
    SetEnvironment("FODR_SETTINGS_DIR", folder);
    return store;
}

} // namespace fodr::platform
