#include "framework/PolicyStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <Poco/DirectoryIterator.h>
#include <Poco/SHA1Engine.h>

#include "framework/ModuleLoader.h"
#include "framework/TaskRegistry.h"
#include "framework/Topics.h"
#include "sdk/JsonUtils.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"
#include "sdk/Posix.h"

namespace Framework {

namespace {

const char* const kSource = "framework/src/PolicyStore";
const size_t kMaxPolicyBytes = 16 * 1024 * 1024;

Poco::Logger* Log()
{
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("framework", false);
}

std::string Digest(const std::string& content)
{
    Poco::SHA1Engine sha;
    sha.update(content);
    return Poco::DigestEngine::digestToHex(sha.digest());
}

}  // namespace

bool PolicyStore::Apply(const std::string& policyId, const std::string& content, std::string& error)
{
    // The feature name comes from the document when it is an object; the
    // module judges the rest, a document that is not JSON included.
    std::string feature;
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content, root) == 0) {
        feature = SDK::JsonUtils::GetStringValue(root, "feature_name", "");
    }
    Poco::Mutex::ScopedLock control(m_control);
    Module* module = m_modules.ForPolicy(policyId);
    if (module == nullptr) {
        error = "no loaded module takes policy " + policyId;
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource, "Policy %s not applied: %s", policyId,
                error);
        return false;
    }
    m_onDemand->HandlePending();
    Policy* current = nullptr;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        auto it = m_policies.find(policyId);
        current = it == m_policies.end() ? nullptr : it->second.get();
    }
    Policy* fresh = module->RefreshPolicy(policyId, feature, content, current);
    if (fresh == nullptr) {
        error = "module " + std::string(module->name()) + " rejected policy " + policyId +
                " (feature '" + feature + "'); the previous policy stays in force";
        SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "%s", error);
        return false;
    }
    Poco::AutoPtr<Policy> policy(fresh);  // adopts the callback's reference
    policy->Dispatch(nullptr);
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        m_policies[policyId] = policy;
    }
    SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Applied policy %s (feature %s)",
            policyId, feature);
    Topics::Post(kPolicyAppliedTopic, std::make_shared<PolicyAppliedMessage>(policyId, feature));
    return true;
}

int PolicyStore::ApplyDirectory(bool force)
{
    const std::string dir = m_directory();
    std::vector<std::string> files;
    try {
        for (Poco::DirectoryIterator it(dir), end; it != end; ++it) {
            const std::string name = it.name();
            if (name.size() > 5 && name.compare(name.size() - 5, 5, ".json") == 0) {
                files.push_back(name);
            }
        }
    } catch (const Poco::Exception&) {
        return 0;  // no policy directory: nothing to apply
    }
    std::sort(files.begin(), files.end());
    int applied = 0;
    for (auto& name : files) {
        const std::string id = name.substr(0, name.size() - 5);
        const std::string path = dir + name;
        std::string content;
        const SDK::ReadResult read = SDK::ReadRegularFile(path, kMaxPolicyBytes, content);
        {
            Poco::FastMutex::ScopedLock lock(m_mutex);
            std::string& refusal = m_fileRefusals[id];
            if (!read.ok()) {
                // Said once, not at every look at the directory.
                if (refusal != read.status.message()) {
                    refusal = read.status.message();
                    SDK_LOG(Log(),
                            read.error == SDK::ReadError::NotRegular ? Poco::Message::PRIO_WARNING
                                                                     : Poco::Message::PRIO_ERROR,
                            kSource, "Policy file skipped: %s", refusal);
                }
                continue;
            }
            refusal.clear();
            const std::string stamp = Digest(content);
            if (!force && m_fileStamps[id] == stamp) {
                continue;
            }
            m_fileStamps[id] = stamp;
        }
        SDK_LOG(Log(), Poco::Message::PRIO_INFORMATION, kSource, "Applying policy file %s", path);
        std::string error;
        if (Apply(id, content, error)) {
            ++applied;
        }
    }
    return applied;
}

bool PolicyStore::Install(const std::string& policyId, const std::string& content, std::string& error)
{
    if (!Apply(policyId, content, error)) {
        return false;
    }
    const std::string path = m_directory() + policyId + ".json";
    const std::string tmp = path + ".tmp";
    SDK::UniqueFd fd(::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644));
    const SDK::Status written =
        fd.Valid() ? SDK::WriteAll(fd.Get(), content, tmp)
                   : SDK::Status::Error(tmp + ": " + SDK::ErrnoText(errno));
    fd.Reset();
    if (!written) {
        ::unlink(tmp.c_str());
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource, "Policy %s applied but not kept: %s",
                policyId, written.message());
        return true;
    }
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        m_fileStamps[policyId] = Digest(content);
    }
    if (std::rename(tmp.c_str(), path.c_str()) != 0) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource,
                "Policy %s applied but not kept: cannot rename %s to %s", policyId, tmp, path);
    }
    return true;
}

std::vector<PolicyStore::Entry> PolicyStore::Current()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    std::vector<Entry> entries;
    for (auto& p : m_policies) {
        entries.push_back({p.first, p.second->GetName(), p.second->GetHash(), p.second->IsEnabled()});
    }
    return entries;
}

void PolicyStore::Clear()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_policies.clear();
}

}  // namespace Framework
