#include "framework/StatusBoard.h"

#include <map>

#include <Poco/Mutex.h>

namespace Framework {

namespace {
Poco::FastMutex g_mutex;
std::map<std::string, Json::Value>& Board()
{
    static std::map<std::string, Json::Value> board;
    return board;
}
}  // namespace

void StatusBoard::Publish(const std::string& key, const Json::Value& value)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    Board()[key] = value;
}

void StatusBoard::Remove(const std::string& key)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    Board().erase(key);
}

Json::Value StatusBoard::Get(const std::string& key)
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    auto it = Board().find(key);
    return it == Board().end() ? Json::Value() : it->second;
}

Json::Value StatusBoard::Snapshot()
{
    Poco::FastMutex::ScopedLock lock(g_mutex);
    Json::Value all(Json::objectValue);
    for (auto& entry : Board()) {
        all[entry.first] = entry.second;
    }
    return all;
}

}  // namespace Framework
