#pragma once

#include <list>
#include <string>

#include "container/ContainerMessage.h"

namespace Engine {

// One entry of the container cache: the container's description as the
// collector sent it, the host paths of its web directories and its index.
// A blank record (index 0, everything empty) stands for the host itself.
struct ContainerCacheInfo : public ContainerInfo {
    // rootPath + policy path, ascending byte order, no duplicates.
    std::list<std::string> scanPathList;
    // 1 or more for a cache entry; it is the extra parameter of the
    // container's watches, so notifications lead back to the entry.
    unsigned long index = 0;
};

}  // namespace Engine
