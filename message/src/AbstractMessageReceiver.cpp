#include "message/AbstractMessageReceiver.h"

namespace Engine {

int AbstractMessageReceiver::FileNotifyMessageAction(Engine::FileNotifyMessage* msg)
{
    (void)msg;
    return 0;
}

void AbstractMessageReceiver::ProcsMessageAction(int event, unsigned int kind,
                                                 std::shared_ptr<Engine::ProcsMessage::procInfo> info)
{
    (void)event;
    (void)kind;
    (void)info;
}

void AbstractMessageReceiver::AssetMessageAction(
    unsigned int kind, const std::map<int, std::shared_ptr<Engine::AssetMessage::assetInfo>>& assets)
{
    (void)kind;
    (void)assets;
}

void AbstractMessageReceiver::FtraceMessageAction(const Engine::FtraceMessage* msg)
{
    (void)msg;
}

AbstractMessageReceiver::~AbstractMessageReceiver() = default;

}  // namespace Engine
