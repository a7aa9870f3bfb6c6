// A service module refused a task name already taken. (Real nginx and
// Apache servers are discovered by the agent in tests/e2e.)

#include <Poco/AutoPtr.h>
#include <gtest/gtest.h>

#include "testsupport/TestSupport.h"

// Each module running its tasks with the agent's configuration is covered by
// the end-to-end tests; what they cannot set up is a name already taken.
TEST(ServiceModules, AServiceIsWholeOrAbsent)
{
    TestSupport::TestEngine te({"report"});
    Poco::AutoPtr<TestSupport::CaptureTask> squatter(new TestSupport::CaptureTask("file_comm_report_task"));
    ASSERT_EQ(te.engine().RegisterTask(squatter.get(), nullptr), 0);
    te.engine().LoadModules(te.InstallDir() + "module");
    EXPECT_EQ(te.engine().FindTask("data_comm_report_task"), nullptr);
    EXPECT_EQ(te.engine().FindTask("file_comm_report_task"), squatter.get());
    te.engine().UnloadModules();
    te.engine().UnRegisterTask("file_comm_report_task");
}
