#include <ctime>

#include <gtest/gtest.h>

#include "framework/TaskCondition.h"

using Framework::TaskCondition;

TEST(TaskCondition, AcceptsWellFormedSchedulesOnlyAndCoalescesFires)
{
    struct Case {
        const char* text;
        bool ok;
    } cases[] = {
        {R"({"type":"interval","interval_s":60,"delay_s":5})", true},
        {R"({"type":"interval","interval_s":60})", true},
        {R"({"type":"interval","interval_s":31536000,"delay_s":31536000})", true},
        {R"({"type":"interval","interval_s":0})", false},
        {R"({"type":"interval","interval_s":-5})", false},
        {R"({"type":"interval","interval_s":31536001})", false},
        {R"({"type":"interval","interval_s":60,"delay_s":61})", false},
        {R"({"type":"interval","interval_s":60,"delay_s":-1})", false},
        {R"({"type":"interval","interval_s":"60"})", false},
        {R"({"type":"interval","interval_s":1.5})", false},
        {R"({"type":"daily","at":"02:30"})", true},
        {R"({"type":"daily","at":"23:59"})", true},
        {R"({"type":"daily","at":"24:00"})", false},
        {R"({"type":"daily","at":"2:30"})", false},
        {R"({"type":"daily","at":"02:60"})", false},
        {R"({"type":"daily"})", false},
        {R"({"type":"weekly","at":"02:30"})", false},
        {R"({"interval_s":60})", false},
        {R"([1,2])", false},
        {R"(not json)", false},
        {"", false},
    };
    for (const auto& c : cases) {
        TaskCondition fresh;
        EXPECT_EQ(fresh.Parse(c.text), c.ok) << c.text;
        EXPECT_EQ(fresh.HasSchedule(), c.ok) << c.text;
        // A refused text leaves the schedule as it was.
        TaskCondition set;
        ASSERT_TRUE(set.Parse(R"({"type":"interval","interval_s":7,"delay_s":3})"));
        if (!set.Parse(c.text)) {
            EXPECT_EQ(set.Describe(), "every 7s, first after 3s") << c.text;
        }
    }

    // Interval fires coalesce; a daily one fires at the local time.
    TaskCondition condition;
    ASSERT_TRUE(condition.Parse(R"({"type":"interval","interval_s":10,"delay_s":3})"));
    EXPECT_EQ(condition.FirstFireMs(1000000), 1003000);
    // On time: the next fire is one interval later.
    EXPECT_EQ(condition.NextFireMs(1003000, 1004000), 1013000);
    // A run that outlasted three intervals: one fire now, not three.
    EXPECT_EQ(condition.NextFireMs(1003000, 1040000), 1040000);

    // Daily: at the local time of day.
    ASSERT_TRUE(condition.Parse(R"({"type":"daily","at":"02:30"})"));
    const int64_t now = static_cast<int64_t>(time(nullptr)) * 1000;
    const int64_t first = condition.FirstFireMs(now);
    ASSERT_GE(first, now);
    EXPECT_LE(first - now, 25LL * 3600 * 1000);
    time_t secs = static_cast<time_t>(first / 1000);
    struct tm local {};
    localtime_r(&secs, &local);
    EXPECT_EQ(local.tm_hour, 2);
    EXPECT_EQ(local.tm_min, 30);
    const int64_t next = condition.NextFireMs(first, first + 1000);
    EXPECT_GE(next - first, 23LL * 3600 * 1000);  // a day later (DST changes a day by an hour)
    EXPECT_LE(next - first, 25LL * 3600 * 1000);
}
