#include "EventStream.h"

#include "InotifyEventStream.h"
#include "PollingEventStream.h"

std::unique_ptr<EventStream> EventStream::create(const QStringList& paths, std::uint64_t sinceWhen,
                                                 double latencySeconds, Callback callback)
{
    // Only "since now": the kernel keeps no journal of past changes, so there is nothing to replay from
    // an earlier id, and any value is taken as now.
    static_cast<void>(sinceWhen);
    if (auto stream = InotifyEventStream::create(paths, latencySeconds, callback))
        return stream;
    // Out of inotify instances or descriptors: slower and coarser, but the changes still come.
    return std::make_unique<PollingEventStream>(paths, latencySeconds, std::move(callback));
}
