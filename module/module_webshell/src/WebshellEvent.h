#pragma once
// The JSON security event of a certain match. The keys are described one by
// one in README.md ("Event format"); receivers rely on them, so a key is
// added, never renamed or removed.

#include <cstdint>
#include <string>

#include <Poco/Logger.h>
#include <json/json.h>

#include "container/ContainerMessage.h"
#include "webshell/DetectResult.h"

namespace Engine {

// The machine the events come from.
struct EventHost {
    std::string name;     // host name: <host root>/etc/hostname, else this system's
    std::string id;       // <host root>/etc/machine-id; "" when it cannot be read
    std::string version;  // of the agent

    // For the engine's agent.host_root. The files are read at the first
    // call and again only when the host root changes, never per event.
    static EventHost Current();
    // Reads them now; a machine id that cannot be read is logged once, at information.
    static EventHost Read(const std::string& hostRoot, Poco::Logger* logger);
};

// What one event says. A new key is a new member here and a line in
// BuildWebshellEvent.
struct WebshellEventFacts {
    std::string path;             // the file as the host sees it
    DetectResult result;
    ContainerInfo container;      // a container file when it has both a name and an id
    int64_t occurMs = 0;          // when it was found (milliseconds since the epoch)
};

Json::Value BuildWebshellEvent(const WebshellEventFacts& facts, const EventHost& host);

// "2026-11-23T02:07:01Z": RFC 3339, UTC, whole seconds.
std::string Rfc3339Utc(int64_t ms);

}  // namespace Engine
