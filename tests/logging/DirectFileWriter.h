// A file writer that writes at once, on the thread of the test.
#pragma once

#include "WholeFile.h"
#include "logging/FileWriter.h"
#include "logging/Messages.h"
#include "platform/Process.h"
#include "runtime/OVPollItem.h"

namespace fodr::test {

class DirectFileWriter : public FileWriter {
public:
    explicit DirectFileWriter(const std::string &folder)
    {
        SetBuffering(false);
        SetValue("folderPath", folder);
        SetValue("maxDaysKept", "0"); // nothing on the poll thread
        SetValue("diskThresholdLowMB", "0");
    }
    ~DirectFileWriter() override { Close(); }

    void Put(const std::string &text, int32_t level = LOG_LEVEL_INFO) { test::Enqueue(*this, text, level); }
    bool Write(const std::string &text) { return WriteMessage(*Message(text)); }
    std::string Get(const std::string &name) { return ValueOf(this, name); }
    std::string FileName() { return Get("filename"); }
    // Of the open file.
    std::string Content() { return ReadWholeFile(Get("folderPath") + "/" + FileName()); }
    // "orvane-<log>-<process id><behind>.log"
    static std::string NameOf(const std::string &log, const std::string &behind)
    {
        return "orvane-" + log + "-" + std::to_string(platform::CurrentProcessId()) + behind + ".log";
    }

    using FileWriter::DeletionItem;
};

} // namespace fodr::test
