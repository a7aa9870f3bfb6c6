#pragma once
// Shared by the file-notify tests: an engine with the real "filenotify_task"
// (real inotify) and a capturing consumer, helpers to send watch requests
// and read the notifications, a watcher wrapper that can pause reading or
// lose events.

#include <sys/inotify.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <Poco/AutoPtr.h>
#include <Poco/Message.h>

#include "FileNotifyTask.h"
#include "InotifyWatcher.h"
#include "filenotify/FileNotifyMessage.h"
#include "testsupport/TestSupport.h"

namespace FileNotifyTest {

// Creates or truncates `path`, writes `content` and closes it.
inline bool WriteFile(const std::string& path, const std::string& content = "<?php echo 1; ?>")
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    out.close();
    return static_cast<bool>(out);
}

struct Note {
    uint32_t mask;
    std::string path;
    unsigned long ext;
};

inline std::vector<Note> NotesOf(TestSupport::CaptureTask& consumer)
{
    std::vector<Note> out;
    for (auto& m : consumer.MessagesOf<Engine::FileNotifyMessage>()) {
        out.push_back({m->mask, m->GetEventFilePath(), m->GetExtParm()});
    }
    return out;
}

inline size_t CountPath(TestSupport::CaptureTask& consumer, const std::string& path)
{
    const auto notes = NotesOf(consumer);
    return static_cast<size_t>(std::count_if(notes.begin(), notes.end(), [&](const Note& n) { return n.path == path; }));
}

inline std::set<std::string> PathSet(TestSupport::CaptureTask& consumer)
{
    std::set<std::string> out;
    for (const Note& note : NotesOf(consumer)) {
        out.insert(note.path);
    }
    return out;
}

inline bool WaitPath(TestSupport::CaptureTask& consumer, const std::string& path,
                     int timeoutMs = 5000)
{
    return TestSupport::WaitFor([&] { return CountPath(consumer, path) > 0; }, timeoutMs);
}

// Wraps the real watcher. Pause() stops reading (the kernel queue fills
// up); LoseAndOverflow() throws away whatever the kernel queued and reports
// an overflow instead, as the kernel does when its queue is full.
class ControlledWatcher : public FileNotify::Watcher {
public:
    explicit ControlledWatcher(std::unique_ptr<FileNotify::Watcher> inner)
        : m_inner(std::move(inner)) {}

    void Pause(bool on)
    {
        m_paused.store(on);
        m_pausedSeen.store(false);
        m_inner->Interrupt();
    }
    bool PauseInEffect() const { return m_pausedSeen.load(); }
    void LoseAndOverflow() { m_lose.store(true); }

    bool IsOpen() const override { return m_inner->IsOpen(); }
    const std::string& Error() const override { return m_inner->Error(); }
    int AddWatch(const std::string& path, uint32_t mask) override
    {
        return m_inner->AddWatch(path, mask);
    }
    void RemoveWatch(int wd) override { m_inner->RemoveWatch(wd); }
    void Interrupt() override { m_inner->Interrupt(); }
    std::string PathOf(int wd) const override { return m_inner->PathOf(wd); }
    size_t WatchCount() const override { return m_inner->WatchCount(); }

    int ReadEvents(int timeoutMs, size_t maxEvents, std::vector<FileNotify::WatchEvent>& out,
                   bool& drained) override
    {
        drained = false;
        if (m_paused.load()) {
            m_pausedSeen.store(true);
            // Not reading is the point; keep the task loop turning slowly.
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(timeoutMs, 10)));
            return 0;
        }
        if (m_lose.exchange(false)) {
            std::vector<FileNotify::WatchEvent> lost;
            bool empty = false;
            while (m_inner->ReadEvents(0, 1u << 20, lost, empty) > 0) {
                lost.clear();
            }
            FileNotify::WatchEvent overflow;
            overflow.wd = -1;
            overflow.mask = IN_Q_OVERFLOW;
            out.push_back(overflow);
            return 1;
        }
        return m_inner->ReadEvents(timeoutMs, maxEvents, out, drained);
    }

private:
    std::unique_ptr<FileNotify::Watcher> m_inner;
    std::atomic<bool> m_paused{false};
    std::atomic<bool> m_pausedSeen{false};
    std::atomic<bool> m_lose{false};
};

// The task under test on a test engine, with one registered consumer.
class Harness {
public:
    explicit Harness(const FileNotify::Options& options = FileNotify::Options(),
                     std::unique_ptr<FileNotify::Watcher> watcher = nullptr)
        : m_consumer(new TestSupport::CaptureTask("fn_consumer"))
    {
        m_task = new FileNotify::FileNotifyTask(options, std::move(watcher));
        m_env.engine().RegisterTask(m_consumer.get(), nullptr);
        m_env.engine().RegisterTask(m_task.get(), nullptr);
    }

    ~Harness()
    {
        m_env.engine().UnRegisterTask(FileNotify::FileNotifyTask::kTaskName);
        m_env.engine().UnRegisterTask(m_consumer->GetTaskName());
        for (auto& extra : m_extra) {
            m_env.engine().UnRegisterTask(extra->GetTaskName());
        }
    }

    Framework::Engine& engine() { return m_env.engine(); }
    TestSupport::CaptureTask& consumer() { return *m_consumer; }
    FileNotify::FileNotifyTask& task() { return *m_task; }
    TestSupport::LogCapture& log() { return m_log; }
    void KeepRegistered(Poco::AutoPtr<TestSupport::CaptureTask> task) { m_extra.push_back(task); }

    bool Request(Framework::Task* consumer, const std::string& path, bool add,
                 unsigned long ext = 0)
    {
        Engine::_FileNotifyOpt opt;
        opt.addWatch = add ? 1 : 0;
        opt.removeWatch = add ? 0 : 1;
        opt.extParm = ext;
        return engine().SendDirectMsg(
            FileNotify::FileNotifyTask::kTaskName,
            new Engine::FileNotifyWatchMessage(consumer, path, {0x100, 0x2, 0xC0}, opt));
    }

    // Adds a watch for the default consumer and waits until the task has
    // `registrations` registrations and at least `watches` watches.
    bool Watch(const std::string& path, unsigned long ext, size_t registrations, size_t watches)
    {
        return Request(m_consumer.get(), path, true, ext) &&
               TestSupport::WaitFor([&] {
                   return m_task->Registrations() == registrations && m_task->Watches() >= watches;
               });
    }

    // Everything the task had to say about what happened so far has reached
    // `consumer`: a sentinel file written now in `dir` (watched) is
    // delivered, nothing waits to be coalesced or retried, and every
    // delivered notification has been received.
    bool Settle(const std::string& dir)
    {
        std::string sentinel = dir + "/settle-" + std::to_string(++m_settles);
        WriteFile(sentinel);
        return WaitPath(*m_consumer, sentinel) && TestSupport::WaitFor([&] {
                   return m_task->Pending() == 0 &&
                          m_consumer->MessagesOf<Engine::FileNotifyMessage>().size() ==
                              m_task->Notifications();
               });
    }

private:
    TestSupport::TestEngine m_env;
    TestSupport::LogCapture m_log{"filenotify_module", Poco::Message::PRIO_DEBUG};
    Poco::AutoPtr<TestSupport::CaptureTask> m_consumer;
    Poco::AutoPtr<FileNotify::FileNotifyTask> m_task;
    std::vector<Poco::AutoPtr<TestSupport::CaptureTask>> m_extra;
    int m_settles = 0;
};

}  // namespace FileNotifyTest
