// A file writer that writes at once, on the thread of the test.
#pragma once

#include "logging/FileWriter.h"
#include "logging/LogMessage.h"
#include "platform/Process.h"
#include "runtime/LogCall.h"
#include "runtime/OVPollItem.h"

#include <fstream>
#include <sstream>
#include <string>

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

    void Put(const std::string &text, int32_t level = LOG_LEVEL_INFO)
    {
        OVMutexLock held(LoggerMutex());
        Enqueue(LogMessage::Create(level, text.data(), text.size()));
    }
    bool Write(const std::string &text)
    {
        return WriteMessage(*LogMessage::Create(LOG_LEVEL_INFO, text.data(), text.size()));
    }
    std::string Get(const std::string &name)
    {
        std::string value;
        return GetValue(name, value) ? value : "none";
    }
    std::string FileName() { return Get("filename"); }
    // Of the open file.
    std::string Content() { return ContentOf(Get("folderPath") + "/" + FileName()); }

    static std::string ContentOf(const std::string &path)
    {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream content;
        content << file.rdbuf();
        return content.str();
    }
    // "orvane-<log>-<process id><behind>.log"
    static std::string NameOf(const std::string &log, const std::string &behind)
    {
        return "orvane-" + log + "-" + std::to_string(platform::CurrentProcessId()) + behind + ".log";
    }

    using FileWriter::DeletionItem;
};

} // namespace fodr::test
