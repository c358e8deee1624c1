// What the settings file makes of the limit.
#include "SettingsFixture.h"
#include "rdpdr/RedirectionSettings.h"
#include "runtime/CapturedLog.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fodr {
namespace {

constexpr const char *kKey = "[SOFTWARE\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr]\n";

TEST(LocalFolderLimit, WhatCantBeReadAllowsNothing)
{
    const std::string outside = " is outside of the folders that this machine allows.\n";
    const std::string unread = " is not shared, as the setting AllowedFolders can't be read.\n";
    const struct {
        const char *what;
        std::string store;
        std::string refusal; // of a folder; empty when it is allowed
    } rows[] = {
        {"no store", "", ""},
        {"no value", kKey, ""},
        {"another value", kKey + std::string("logLevel=dword:x\n"), ""},
        {"the folder", kKey + std::string("AllowedFolders=multi_sz:/f;\n"), ""},
        {"another folder", kKey + std::string("AllowedFolders=multi_sz:/g;\n"), outside},
        {"none", kKey + std::string("AllowedFolders=multi_sz:\n"), outside},
        {"a bad escape", kKey + std::string("AllowedFolders=multi_sz:/f\\x;\n"), unread},
        {"a bad escape elsewhere", kKey + std::string("AllowedFolders=multi_sz:/f;\nlogLevel=\\x\n"), ""},
        {"a bad line", kKey + std::string("AllowedFolders=multi_sz:/f;\nlogLevel\n"), unread},
        {"no settings file", "nonsense", unread},
    };
    const test::SettingsFixture settings;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        settings.Store(row.store);
        const CapturedLog log(LOG_LEVEL_WARN);
        const LocalFolderLimit limit;
        const bool allowed = row.refusal.empty();
        EXPECT_EQ(limit.Allows("/f"), allowed);
        const FolderOffer offer = limit.OfferOfFiles("/f", {"x"});
        EXPECT_EQ(offer.whole, allowed);
        EXPECT_EQ(offer.files.size(), allowed ? 1u : 0u);
        std::vector<std::string> refusals;
        for (const std::string &line : CapturedLog::Lines()) {
            if (line.find(" LocalFolderLimit::") != std::string::npos)
                refusals.push_back(line);
        }
        if (allowed)
            EXPECT_THAT(refusals, testing::IsEmpty());
        else
            EXPECT_THAT(refusals, testing::ElementsAre(testing::EndsWith("Folder /f" + row.refusal),
                                                       testing::EndsWith("x" + row.refusal)));
    }
    settings.Store("");
    std::filesystem::remove(settings.Folder() + "/HKEY_LOCAL_MACHINE.ini");
    std::filesystem::create_directory(settings.Folder() + "/HKEY_LOCAL_MACHINE.ini"); // no file at all
    EXPECT_FALSE(LocalFolderLimit().Allows("/f"));
}

} // namespace
} // namespace fodr
