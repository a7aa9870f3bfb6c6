#include "sdk/CryptoCodeUtils.h"

#include <Poco/UUID.h>
#include <Poco/UUIDGenerator.h>

namespace SDK {

std::string CryptoCodeUtils::GenerateUUID()
{
    // createRandom draws from Poco's RandomInputStream (the kernel's random
    // source) and sets the version-4 and variant bits; toString is lower case.
    return Poco::UUIDGenerator::defaultGenerator().createRandom().toString();
}

}  // namespace SDK
