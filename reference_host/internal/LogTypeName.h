// The words for the types of events, in the log and in its timeline.
#ifndef REFERENCE_HOST_INTERNAL_LOGTYPENAME_H
#define REFERENCE_HOST_INTERNAL_LOGTYPENAME_H

#include <host/Logger.h>

namespace reference_host {

// NULL for a type of the host's own.
inline const char* NameOf(LogTypeEnum type) {
    switch (type) {
    case LogTypeGeneral:
        return "general";
    case LogTypeTraffic:
        return "traffic";
    case LogTypeLife:
        return "life";
    case LogTypeMutex:
        return "mutex";
    }
    return nullptr;
}

} // namespace reference_host

#endif
