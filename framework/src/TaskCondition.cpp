#include "framework/TaskCondition.h"

#include <ctime>

#include "sdk/JsonUtils.h"

namespace Framework {

namespace {

const int64_t kMaxIntervalS = 365LL * 24 * 3600;
const int64_t kMsPerS = 1000;

// Local-time ms of HH:MM on the day of `ms` (local), shifted by `dayOffset` days.
int64_t LocalMinuteOfDayMs(int64_t ms, int minute, int dayOffset)
{
    time_t secs = static_cast<time_t>(ms / kMsPerS);
    struct tm local {};
    localtime_r(&secs, &local);
    local.tm_mday += dayOffset;
    local.tm_hour = minute / 60;
    local.tm_min = minute % 60;
    local.tm_sec = 0;
    local.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&local)) * kMsPerS;
}

bool ParseHourMinute(const std::string& text, int& minuteOfDay)
{
    if (text.size() != 5 || text[2] != ':') {
        return false;
    }
    for (int i : {0, 1, 3, 4}) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
    }
    const int hour = (text[0] - '0') * 10 + (text[1] - '0');
    const int minute = (text[3] - '0') * 10 + (text[4] - '0');
    if (hour > 23 || minute > 59) {
        return false;
    }
    minuteOfDay = hour * 60 + minute;
    return true;
}

}  // namespace

bool TaskCondition::Parse(const std::string& text)
{
    std::string why;
    return Parse(text, why);
}

bool TaskCondition::Parse(const std::string& text, std::string& why)
{
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(text, root) != 0 || !root.isObject()) {
        why = "must be an object";
        return false;
    }
    const Json::Value& type = root["type"];
    const std::string kind = type.isString() ? type.asString() : std::string();
    if (kind != "interval" && kind != "daily") {
        why = "\"type\" must be \"interval\" or \"daily\"" +
              (type.isNull() ? std::string(" (absent)") : " (got " + SDK::JsonUtils::JsonToString(type) + ")");
        return false;
    }
    // A misspelt "delay_s" would otherwise pass as no delay at all.
    for (const auto& key : root.getMemberNames()) {
        const bool known = key == "type" || (kind == "interval" && (key == "interval_s" || key == "delay_s")) ||
                           (kind == "daily" && key == "at");
        if (!known) {
            why = "unknown key \"" + key + "\" for type \"" + kind + "\"";
            return false;
        }
    }
    if (kind == "interval") {
        const Json::Value& interval = root["interval_s"];
        const Json::Value& delay = root["delay_s"];
        if (!interval.isIntegral() || interval.asLargestInt() < 1 ||
            interval.asLargestInt() > kMaxIntervalS) {
            why = "\"interval_s\" must be a whole number of seconds from 1 to " + std::to_string(kMaxIntervalS);
            return false;
        }
        int64_t delayS = 0;
        if (!delay.isNull()) {
            if (!delay.isIntegral() || delay.asLargestInt() < 0 ||
                delay.asLargestInt() > interval.asLargestInt()) {
                why = "\"delay_s\" must be a whole number of seconds from 0 to \"interval_s\"";
                return false;
            }
            delayS = delay.asLargestInt();
        }
        m_schedule = SCHEDULE_INTERVAL;
        m_intervalS = interval.asLargestInt();
        m_delayS = delayS;
        return true;
    }
    int minute = 0;
    if (!root["at"].isString() || !ParseHourMinute(root["at"].asString(), minute)) {
        why = "\"at\" must be a local time \"HH:MM\" from 00:00 to 23:59";
        return false;
    }
    m_schedule = SCHEDULE_DAILY;
    m_dailyMinute = minute;
    return true;
}

int64_t TaskCondition::FirstFireMs(int64_t startMs) const
{
    switch (m_schedule) {
    case SCHEDULE_INTERVAL:
        return startMs + m_delayS * kMsPerS;
    case SCHEDULE_DAILY: {
        int64_t today = LocalMinuteOfDayMs(startMs, m_dailyMinute, 0);
        return today >= startMs ? today : LocalMinuteOfDayMs(startMs, m_dailyMinute, 1);
    }
    default:
        return -1;
    }
}

int64_t TaskCondition::NextFireMs(int64_t lastFireMs, int64_t nowMs) const
{
    int64_t next = -1;
    switch (m_schedule) {
    case SCHEDULE_INTERVAL:
        next = lastFireMs + m_intervalS * kMsPerS;
        break;
    case SCHEDULE_DAILY:
        next = LocalMinuteOfDayMs(lastFireMs, m_dailyMinute, 1);
        break;
    default:
        return -1;
    }
    return next > nowMs ? next : nowMs;
}

std::string TaskCondition::Describe() const
{
    switch (m_schedule) {
    case SCHEDULE_INTERVAL:
        return "every " + std::to_string(m_intervalS) + "s, first after " + std::to_string(m_delayS) + "s";
    case SCHEDULE_DAILY: {
        char buf[32];
        snprintf(buf, sizeof(buf), "daily %02d:%02d", m_dailyMinute / 60, m_dailyMinute % 60);
        return buf;
    }
    default:
        return "no schedule";
    }
}

const char* TaskCondition::TypeName(TaskType type)
{
    switch (type) {
    case TaskCondition::TASK_TYPE_SCHEDULED:
        return "scheduled";
    case TaskCondition::TASK_TYPE_ONDEMAND:
        return "on demand";
    case TaskCondition::TASK_TYPE_RESIDENT:
        return "resident";
    default:
        return "none";
    }
}

}  // namespace Framework
