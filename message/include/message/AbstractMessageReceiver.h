#pragma once
// What message handlers call on a consuming task. A consumer has
// Framework::Task as its first base and this interface as its second,
// directly after it (as MixedTask has): AssetMessage relies on that.

#include <map>
#include <memory>

#include "message/AssetMessage.h"
#include "message/ProcsMessage.h"

namespace Engine {

class AbstractMessageReceiver {
public:
    virtual int FileNotifyMessageAction(Engine::FileNotifyMessage* msg);
    virtual void ProcsMessageAction(int event, unsigned int kind,
                                    std::shared_ptr<Engine::ProcsMessage::procInfo> info);
    virtual void AssetMessageAction(
        unsigned int kind, const std::map<int, std::shared_ptr<Engine::AssetMessage::assetInfo>>& assets);
    virtual void FtraceMessageAction(const Engine::FtraceMessage* msg);
    virtual ~AbstractMessageReceiver();
};

}  // namespace Engine
