#pragma once
// When a task runs. Scheduled tasks (type 1) fire on their schedule:
//   {"type":"interval", "interval_s":N, "delay_s":M}  every N s (1..31536000),
//                                                      first after M s (0..N)
//   {"type":"daily", "at":"HH:MM"}                     once a day, local time
// On-demand tasks (3) are never run by the framework; resident tasks (4) run
// once, on their own thread, until cancelled.

#include <cstdint>
#include <string>

namespace Framework {

class TaskCondition {
public:
    enum TaskType {
        TASK_TYPE_NONE = 0,
        TASK_TYPE_SCHEDULED = 1,
        TASK_TYPE_ONDEMAND = 3,
        TASK_TYPE_RESIDENT = 4,
    };
    // "scheduled", "on demand", "resident" or "none", for logs and status.
    static const char* TypeName(TaskType type);

    enum ScheduleKind { SCHEDULE_NONE = 0, SCHEDULE_INTERVAL, SCHEDULE_DAILY };

    TaskCondition() = default;
    explicit TaskCondition(TaskType type) : m_type(type) {}

    // Parses the JSON text of a schedule; false (and nothing changed) for any
    // other shape, a value out of range or a key of neither form. `why`
    // names the key and what it must be.
    bool Parse(const std::string& text);
    bool Parse(const std::string& text, std::string& why);

    TaskType GetType() const { return m_type; }
    void SetType(TaskType type) { m_type = type; }
    ScheduleKind GetSchedule() const { return m_schedule; }
    bool HasSchedule() const { return m_schedule != SCHEDULE_NONE; }
    int64_t GetIntervalS() const { return m_intervalS; }
    int64_t GetDelayS() const { return m_delayS; }
    int GetDailyMinute() const { return m_dailyMinute; }  // minutes after local midnight

    // First fire time (ms since the epoch) for a schedule that starts at `startMs`.
    int64_t FirstFireMs(int64_t startMs) const;
    // The fire after `lastFireMs`, but never at or before `nowMs` (fires
    // missed during a long run coalesce). -1 without a schedule.
    int64_t NextFireMs(int64_t lastFireMs, int64_t nowMs) const;

    // Short text for status and logs, e.g. "interval 3600s" or "daily 02:30".
    std::string Describe() const;

private:
    TaskType m_type = TASK_TYPE_NONE;
    ScheduleKind m_schedule = SCHEDULE_NONE;
    int64_t m_intervalS = 0;
    int64_t m_delayS = 0;
    int m_dailyMinute = 0;
};

}  // namespace Framework
