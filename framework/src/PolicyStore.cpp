#include "framework/PolicyStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <Poco/DirectoryIterator.h>
#include <Poco/SHA1Engine.h>

#include "framework/Health.h"
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

void PolicyStore::Check(Module& module, const std::string& policyId, const std::string& content,
                        PolicyCheck& check, std::string& feature)
{
    std::string named;
    bool isObject = false;
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(content, root) == 0 && root.isObject()) {
        isObject = true;
        named = SDK::JsonUtils::GetStringValue(root, "feature_name", "");
    }
    const std::string registered = module.GetPolicyFeature(policyId);
    feature = registered.empty() ? named : registered;
    // The id decides where the policy goes; a document that names another
    // feature (or none) would otherwise reach some tasks and not others.
    if (isObject && !registered.empty() && named != registered) {
        check.warnings.push_back(
            (root.isMember("feature_name") ? "\"feature_name\" is \"" + named + "\", but policy "
                                            : "no \"feature_name\"; policy ") +
            policyId + " belongs to feature " + registered + ": applied to " + registered);
    }
    module.CheckPolicy(policyId, content, check);
}

bool PolicyStore::Reject(const std::string& policyId, const std::string& reason, std::string& error)
{
    bool inForce = false;
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        inForce = m_policies.count(policyId) != 0;
        m_rejections[policyId] = reason;
    }
    error = "policy " + policyId + " rejected: " + reason +
            (inForce ? "; the previous policy stays in force" : "; no policy " + policyId + " is in force");
    SDK_LOG(Log(), Poco::Message::PRIO_ERROR, kSource, "%s", error);
    Health::Raise("policy." + policyId, Health::Severity::Degraded, error);
    return false;
}

bool PolicyStore::Apply(const std::string& policyId, const std::string& content, std::string& error,
                        PolicyCheck* found)
{
    Poco::Mutex::ScopedLock control(m_control);
    Module* module = m_modules.ForPolicy(policyId);
    if (module == nullptr) {
        error = "no loaded module takes policy " + policyId;
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource, "Policy %s not applied: %s", policyId,
                error);
        return false;
    }
    PolicyCheck check;
    std::string feature;
    Check(*module, policyId, content, check, feature);
    for (const auto& warning : check.warnings) {
        SDK_LOG(Log(), Poco::Message::PRIO_WARNING, kSource, "Policy %s: %s", policyId, warning);
    }
    if (found != nullptr) {
        *found = check;
    }
    if (!check.Good()) {
        return Reject(policyId, check.ErrorText(), error);
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
        return Reject(policyId,
                      "module " + std::string(module->name()) + " refused it (feature '" + feature +
                          "'; its log line says why)",
                      error);
    }
    Poco::AutoPtr<Policy> policy(fresh);  // adopts the callback's reference
    if (!feature.empty() && policy->GetName() != feature) {
        policy->SetName(feature);  // the name dispatch matches tasks by
    }
    policy->Dispatch(nullptr);
    {
        Poco::FastMutex::ScopedLock lock(m_mutex);
        m_policies[policyId] = policy;
        m_rejections.erase(policyId);
    }
    Health::Clear("policy." + policyId);
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
        const SDK::ReadResult read = SDK::ReadRegularFile(path, kMaxDocumentBytes, content);
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

bool PolicyStore::Install(const std::string& policyId, const std::string& content, std::string& error,
                          PolicyCheck* found)
{
    if (!Apply(policyId, content, error, found)) {
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
        auto rejected = m_rejections.find(p.first);
        entries.push_back({p.first, p.second->GetName(), p.second->GetHash(), p.second->IsEnabled(),
                           rejected == m_rejections.end() ? std::string() : rejected->second, true});
    }
    // An id whose only documents were refused has no policy, but its refusal shows.
    for (auto& r : m_rejections) {
        if (m_policies.count(r.first) == 0) {
            entries.push_back({r.first, "", "", false, r.second, false});
        }
    }
    return entries;
}

void PolicyStore::Clear()
{
    Poco::FastMutex::ScopedLock lock(m_mutex);
    m_policies.clear();
    m_rejections.clear();
    Health::ClearPrefix("policy.");
}

}  // namespace Framework
