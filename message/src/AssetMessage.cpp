#include "message/AssetMessage.h"

#include "message/MixedTask.h"
#include "sdk/LogMacros.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

namespace {
const char* const kSource = "message/src/AssetMessage";
}

int AssetRegisterMessage::MessageHandle(void* receiver)
{
    auto* service = static_cast<Framework::Task*>(receiver);
    int result = service->AddConsumer(kind, "", consumer);
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_INFORMATION, kSource,
            "RegisterMsg handle, add consumer (%d)", result);
    return result;
}

int AssetUnRegisterMessage::MessageHandle(void* receiver)
{
    auto* service = static_cast<Framework::Task*>(receiver);
    service->DelConsumer(kind, "", consumer);
    // The unregister record carries the placeholder as it stands: no value.
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_INFORMATION, kSource,
            "UnRegisterMsg handle, del consumer (%d)");
    return 0;
}

int AssetMessage::MessageHandle(void* receiver)
{
    // Consumers have Framework::Task first and AbstractMessageReceiver right
    // after it, as MixedTask has: the same distance reaches their receiver.
    const std::ptrdiff_t distance = MixedTask::ReceiverDistance();
    auto* consumer = reinterpret_cast<AbstractMessageReceiver*>(
        reinterpret_cast<char*>(static_cast<Framework::Task*>(receiver)) + distance);
    consumer->AssetMessageAction(kind, assets);
    SDK_LOG(SDK::LoggerUtils::GetInstance()->GetRootLogger(), Poco::Message::PRIO_INFORMATION, kSource,
            "AssetMsg handle, callback (%u)", kind);
    return 0;
}

}  // namespace Engine
