#pragma once

#include <string>

namespace Framework {

// Base of every message a task sends to another. The framework owns a
// message from SendDirectMsg on and frees it after the receiver handled it.
class Message {
public:
    Message() = default;
    explicit Message(const std::string& name) : m_name(name) {}
    virtual ~Message() = default;

    // Runs on the receiving task's thread; `task` is the receiving
    // Framework::Task*. The base does nothing.
    virtual int MessageHandle(void* task)
    {
        (void)task;
        return 0;
    }

    const std::string& GetName() const { return m_name; }

private:
    std::string m_name;
};

// A report for the data-report task: a data type code and its content.
class DataMessage : public Message {
public:
    DataMessage(const std::string& dataType, const std::string& content)
        : Message("data_message"), m_dataType(dataType), m_content(content) {}

    const std::string& GetDataType() const { return m_dataType; }
    const std::string& GetContent() const { return m_content; }

private:
    std::string m_dataType;
    std::string m_content;
};

// A file transfer for the file-report task.
//  UPLOAD:   filePath is the file to keep; kind names what it is ("webshell").
//  DOWNLOAD: filePath is where to write; extra is the URL to fetch.
class FileMessage : public Message {
public:
    enum TaskType { UPLOAD = 0, DOWNLOAD = 1 };

    FileMessage(TaskType type, const std::string& filePath, const std::string& kind,
                const std::string& extra)
        : Message("file_message"), m_type(type), m_filePath(filePath), m_kind(kind),
          m_extra(extra) {}

    TaskType GetTaskType() const { return m_type; }
    const std::string& GetFilePath() const { return m_filePath; }
    const std::string& GetKind() const { return m_kind; }
    const std::string& GetExtra() const { return m_extra; }

private:
    TaskType m_type;
    std::string m_filePath;
    std::string m_kind;
    std::string m_extra;
};

}  // namespace Framework
