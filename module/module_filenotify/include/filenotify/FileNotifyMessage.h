#pragma once
// Watch requests to the file-notify service ("filenotify_task") and the
// notifications it sends back, one per changed file.

#include <cstdint>
#include <string>
#include <vector>

#include "framework/Export.h"
#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

struct _FileNotifyOpt {
    uint8_t addWatch = 0;
    uint8_t reserved2 = 0;
    uint8_t reserved3 = 0;
    uint8_t reserved4 = 0;
    uint8_t reserved5 = 0;
    uint8_t removeWatch = 0;
    uint8_t recursive = 1;        // watch subdirectories too
    uint8_t reserved8 = 0;
    std::vector<uint64_t> reserved9;
    uint64_t extParm = 0;         // handed back in every FileNotifyMessage of the watch
    std::vector<std::string> excludeList;   // reserved
    std::vector<std::string> includeList;   // reserved
    uint8_t reserved13 = 0;
    int32_t reserved14 = 0;
    uint8_t coalesce = 1;         // merge repeated modifications of one file
};

// The task that asks is alive when it makes the request: its handle is taken
// here, and notifications go to that handle only.
class ARDENT_EXPORT FileNotifyWatchMessage : public Framework::Message {
public:
    FileNotifyWatchMessage(Framework::Task* sender, const std::string& path,
                           std::vector<unsigned int> events, const _FileNotifyOpt& opt);
    ~FileNotifyWatchMessage() override;

    const Framework::MailboxRef& GetSender() const { return m_sender; }
    const std::string& GetPath() const { return m_path; }
    const std::vector<unsigned int>& GetEvents() const { return m_events; }
    const _FileNotifyOpt& GetOpt() const { return m_opt; }
    // The union of the event masks.
    uint32_t GetMask() const;

private:
    Framework::MailboxRef m_sender;
    std::string m_path;
    std::vector<unsigned int> m_events;
    _FileNotifyOpt m_opt;
};

class ARDENT_EXPORT FileNotifyMessage : public Framework::Message {
public:
    FileNotifyMessage(uint32_t mask, const std::string& path, unsigned long extParm);
    ~FileNotifyMessage() override;

    // Calls FileNotifyMessageAction on the receiving task's AbstractMessageReceiver.
    int MessageHandle(void* task) override;

    std::string GetEventFilePath() const { return m_path; }
    unsigned long GetExtParm() const { return m_extParm; }

    uint32_t mask;  // inotify mask of the event

private:
    std::string m_path;
    unsigned long m_extParm;
};

}  // namespace Engine
