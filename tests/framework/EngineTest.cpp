// The engine with modules: loading, policies from the policy directory,
// tasklets; and the real agent binary's control socket.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <Poco/Event.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include "../e2e/E2e.h"
#include "framework/Engine.h"
#include "framework/Topics.h"

using TestSupport::WaitFor;

namespace {

const char* const kPolicy = R"({"feature_name":"test_feature","hash":"h1","content":{}})";

// One request on the control socket; the reply.
std::string Request(const std::string& socketPath, const std::string& bytes)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    std::string reply;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) {
        // A refused peer may be answered before it has written: ignore EPIPE.
        (void)send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        char buf[4096];
        ssize_t n;
        while ((n = read(fd, buf, sizeof(buf))) > 0) {
            reply.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    return reply;
}

// "Threads:" of /proc/<pid>/status and the number of mappings of the process.
size_t ProcFigure(pid_t pid, const std::string& what)
{
    const std::string base = "/proc/" + std::to_string(pid) + "/";
    if (what == "maps") {
        return TestSupport::ReadLines(base + "maps").size();
    }
    const std::string status = TestSupport::ReadFile(base + "status");
    const size_t at = status.find(what + ":");
    return at == std::string::npos ? 0 : std::stoul(status.substr(at + what.size() + 1));
}

// A module whose policy callback (id 20001) registers a scheduled task. (A
// schedule reaching a task through the policy is the end-to-end policy
// test's: the periodic pass follows it.)
class PolicyModule : public Framework::Module {
public:
    PolicyModule() : Framework::Module("policy_module") {}
    int Init() override
    {
        RegisterPolicyCallback("20001", new Framework::PolicyCallback<PolicyModule>(this, &PolicyModule::OnPolicy));
        return Framework::Module::Init();
    }
    Framework::Policy* OnPolicy(const std::string& feature, const std::string&, Framework::Policy*& current)
    {
        struct Plain : Framework::FeaturePolicy {
            using Framework::FeaturePolicy::FeaturePolicy;
            bool Parse(const std::string&) override { return true; }
        };
        struct Scheduled : Framework::Task {
            Scheduled()
                : Framework::Task("test_scheduled_task", "test_feature",
                                  Framework::TaskCondition::TASK_TYPE_SCHEDULED, 64) {}
            int Run() override { return 0; }
        };
        if (current != nullptr) {
            current->SetExpired();
        }
        if (!m_scheduled) {
            m_scheduled = new Scheduled();
            RegisterTask(m_scheduled.get(), false);
        }
        return new Plain(feature);
    }

private:
    Poco::AutoPtr<Framework::Task> m_scheduled;
};

}  // namespace

TEST(Engine, LoadsModulesSkipsFilesWithoutEntryPointAppliesPoliciesAndRunsTasklets)
{
    TestSupport::TestEngine env({"report"});
    auto& engine = env.engine();
    TestSupport::LogCapture log("framework");
    auto applied = std::make_shared<Framework::Mailbox>("listener", 16);
    Framework::Topics::Subscribe(Framework::kPolicyAppliedTopic, Framework::MailboxRef(applied));
    const std::string install = env.InstallDir();
    // A shared library that is not a module, and a file that is no library.
    ASSERT_EQ(symlink((TestSupport::StageDir() + "/lib/libsdk.so").c_str(),
                      (install + "module/libnotamodule_module.so").c_str()), 0);
    env.Dir().Write("install/module/libgarbage_module.so", "not an ELF file");

    EXPECT_EQ(engine.LoadModules(install + "module"), 1);
    ASSERT_TRUE(engine.AddModule(new PolicyModule()));
    ASSERT_EQ(engine.GetModuleNames(), (std::vector<std::string>{"report_module", "policy_module"}));

    // Policy directory: applied once, again only when it changes.
    env.Dir().Write("install/policy/20001.json", kPolicy);
    EXPECT_EQ(engine.ApplyPolicyDirectory(false), 1);
    std::shared_ptr<Framework::Message> note;
    ASSERT_TRUE(applied->Take(note));
    auto* announced = dynamic_cast<Framework::PolicyAppliedMessage*>(note.get());
    ASSERT_NE(announced, nullptr);
    EXPECT_EQ(announced->policyId, "20001");
    EXPECT_EQ(announced->feature, "test_feature");
    EXPECT_NE(engine.FindTask("test_scheduled_task"), nullptr);
    EXPECT_EQ(engine.ApplyPolicyDirectory(false), 0);
    env.Dir().Write("install/policy/20001.json", R"({"feature_name":"test_feature","hash":"h2","content":{}})");
    EXPECT_EQ(engine.ApplyPolicyDirectory(false), 1);

    // An unknown id is refused. (A rejected document keeping the policy in
    // force is the end-to-end policy test's.)
    std::string error;
    EXPECT_FALSE(engine.ApplyPolicyDocument("99999", kPolicy, error));
    EXPECT_NE(error.find("99999"), std::string::npos);

    // An unreadable policy file and a FIFO are skipped, never waited on; the
    // others still apply. Each is named once, not at every look.
    env.Dir().Symlink("/nonexistent/target", "install/policy/20002.json");
    const std::string fifo = env.Dir().Fifo("install/policy/20003.json");
    EXPECT_EQ(engine.ApplyPolicyDirectory(true), 1);
    EXPECT_EQ(engine.ApplyPolicyDirectory(true), 1);
    EXPECT_EQ(log.Count(fifo + ": not a regular file"), 1u);
    EXPECT_EQ(log.Count("20002.json", Poco::Message::PRIO_ERROR), 1u);
    Framework::Topics::Unsubscribe(Framework::kPolicyAppliedTopic, Framework::MailboxRef(applied));

    // A long tasklet runs once at a time. The module's on-demand task has no
    // thread: its messages are handled before the tasklet runs.
    class Idle : public Framework::Task {
    public:
        Idle() : Framework::Task("idle", "test_feature", Framework::TaskCondition::TASK_TYPE_ONDEMAND, 8) {}
        int Run() override { return 0; }
        int HandleMsg(std::shared_ptr<Framework::Message>&) override { return ++handled; }
        std::atomic<int> handled{0};
    };
    class SlowModule : public Framework::Module {
    public:
        SlowModule() : Framework::Module("slow_module") {}
        int Init() override
        {
            RegisterTaskletCallback("slow", new Framework::TaskletCallback<SlowModule>(this, &SlowModule::Slow, true));
            idle->Init();
            return 0;
        }
        int UnInit() override
        {
            idle->UnInit();
            return Framework::Module::UnInit();
        }
        int Slow(const std::string&)
        {
            handledBefore = idle->handled.load();
            ++started;
            release.wait();
            return 7;
        }
        std::atomic<int> started{0};
        Poco::Event release{Poco::Event::EVENT_MANUALRESET};
        std::atomic<int> handledBefore{-1};
        Poco::AutoPtr<Idle> idle{new Idle()};
    };
    auto* module = new SlowModule();
    ASSERT_TRUE(engine.AddModule(module));
    ASSERT_EQ(module->idle->EnqueueMsg(std::make_shared<Framework::Message>("m")), 1);
    int rc = -1;
    EXPECT_EQ(engine.InvokeTasklet("slow", "", false, rc), Framework::Engine::TASKLET_STARTED);
    ASSERT_TRUE(WaitFor([&] { return module->started.load() == 1; }));
    EXPECT_EQ(module->handledBefore.load(), 1);
    EXPECT_EQ(engine.InvokeTasklet("slow", "", false, rc), Framework::Engine::TASKLET_ALREADY_RUNNING);
    EXPECT_EQ(engine.InvokeTasklet("missing", "", false, rc), Framework::Engine::TASKLET_UNKNOWN);
    module->release.set();
    engine.WaitForTasklets();
    EXPECT_EQ(engine.InvokeTasklet("slow", "", true, rc), Framework::Engine::TASKLET_DONE);
    EXPECT_EQ(rc, 7);
    EXPECT_EQ(module->started.load(), 2);

    engine.UnloadModules();
    EXPECT_EQ(engine.FindTask("test_scheduled_task"), nullptr);
    EXPECT_TRUE(engine.GetModuleNames().empty());
}

// Loading modules, applying policies, `ctl status`, `ctl scan-now` and the
// stop are the end-to-end tests' (tests/e2e); what the control socket itself
// must withstand is here.
TEST(Agent, ControlSocketIsPrivateRefusesStrangersAndOutlivesItsClients)
{
    TestSupport::TempDir dir("ardent-agent-e2e");
    E2e::Agent agent(dir, {"none"});
    const std::string& install = agent.install;
    ASSERT_TRUE(agent.Start(Json::Value()));
    ASSERT_TRUE(WaitFor([&] { return agent.Status()["ok"].asBool(); }, 10000)) << agent.Log();
    const auto logHas = [&](const std::string& text) {
        return WaitFor([&] { return agent.Log().find(text) != std::string::npos; }, 10000);
    };

    // Garbage gets an error reply; another user is refused; the agent lives on.
    const std::string sock = install + "run/agent.sock";
    struct stat st;
    ASSERT_EQ(stat(sock.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    std::string reply = Request(sock, std::string("\x01\x02garbage\xff\n", 12));
    EXPECT_NE(reply.find("\"ok\":false"), std::string::npos) << reply;
    EXPECT_NE(reply.find("unknown request"), std::string::npos) << reply;
    // Let the other user reach the peer check itself.
    for (const std::string& d : {dir.Path(), install, install + "run"}) {
        chmod(d.c_str(), 0755);
    }
    chmod(sock.c_str(), 0666);
    if (getuid() == 0) {
        TestSupport::RunCommand("setpriv --reuid=nobody --regid=nogroup --clear-groups " +
                                    TestSupport::AgentBinary() + " ctl status --install-dir " + install,
                                &reply);
        EXPECT_NE(reply.find("permission denied"), std::string::npos) << reply;
        EXPECT_TRUE(logHas("Control socket: refused a peer of uid"));
    }

    // Served requests leave nothing behind: threads are joined as they end,
    // so neither the thread count nor the mappings (their stacks) grow.
    const size_t threads = ProcFigure(agent.process.Pid(), "Threads");
    const size_t maps = ProcFigure(agent.process.Pid(), "maps");
    for (int i = 0; i < 2000; ++i) {
        ASSERT_NE(Request(sock, "status\n").find("\"ok\":true"), std::string::npos) << i;
    }
    EXPECT_TRUE(WaitFor([&] { return ProcFigure(agent.process.Pid(), "Threads") <= threads; }));
    EXPECT_LT(ProcFigure(agent.process.Pid(), "maps"), maps + 100);

    // A second agent on the same install dir is refused the socket, not crashed.
    TestSupport::AgentProcess second;
    ASSERT_TRUE(second.Start({"run", "--install-dir", install}));
    EXPECT_TRUE(logHas("another agent already listens"));
    EXPECT_EQ(second.Stop(SIGTERM), 0);

    EXPECT_EQ(agent.process.Stop(SIGTERM, 20000), 0);

    // A limit out of range is refused with exit 2 and says which option.
    const E2e::Outcome bad = E2e::Run({"run", "--cpu-limit", "250", "--install-dir", install});
    EXPECT_EQ(bad.code, 2);
    EXPECT_NE(bad.err.find("--cpu-limit"), std::string::npos);
}
