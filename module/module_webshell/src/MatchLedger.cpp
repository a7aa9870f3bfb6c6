#include "MatchLedger.h"

#include <utility>

#include <json/json.h>

#include "framework/StatusBoard.h"
#include "sdk/FileUtils.h"
#include "sdk/LogMacros.h"

namespace Engine {

namespace {

const char* const kSource = "module/module_webshell/src/MatchLedger";
// Counted and published under one lock, so status never goes backwards.
Poco::FastMutex g_overQuotaMutex;
uint64_t g_overQuota = 0;

}  // namespace

void MatchLedger::Record(MatchRecord record)
{
    Poco::Mutex::ScopedLock lock(m_mutex);
    if (m_matches.size() >= m_bound) {
        ++m_notListed;
        return;
    }
    m_matches.push_back(std::move(record));
}

std::shared_ptr<MatchListMessage> MatchLedger::Take(const std::string& task, uint64_t passId)
{
    auto message = std::make_shared<MatchListMessage>();
    message->task = task;
    message->passId = passId;
    Poco::Mutex::ScopedLock lock(m_mutex);
    message->matches.swap(m_matches);
    message->notListed = m_notListed;
    m_notListed = 0;
    return message;
}

void NoteOverQuota(Poco::Logger* logger, const std::string& path, int quota)
{
    {
        Poco::FastMutex::ScopedLock lock(g_overQuotaMutex);
        Json::Value v(Json::objectValue);
        v["over_quota"] = Json::UInt64(++g_overQuota);
        Framework::StatusBoard::Publish("webshell.uploads", v);
    }
    SDK_LOG(logger, Poco::Message::PRIO_INFORMATION, kSource,
            "Suspicious file %s not kept: the daily upload quota (%d) is used up. Counted under "
            "webshell.uploads in status.",
            path, quota);
}

std::string FileSha256(const std::string& path)
{
    bool flag = true;
    std::string sha256;
    if (SDK::FileUtils::GetFileSha256(path, flag, sha256, 0) != 0) {
        sha256.clear();
    }
    return sha256;
}

}  // namespace Engine
