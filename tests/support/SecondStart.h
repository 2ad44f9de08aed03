#pragma once

#include "platform/SingleInstance.h"
#include "support/EventLoop.h"

#include <chrono>
#include <future>
#include <optional>

// A second start on another thread, while this thread's event loop lets the first one answer: a hand-over
// waits for the running program's acknowledgement, which a single thread could never send and wait for.
// Answers nothing when the second start has not finished within the bound.
inline std::optional<SingleInstance::Claim> claimAsASecondStart(const SingleInstance::Places& places,
                                                                int patienceMs = 1000, int boundMs = 10000)
{
    std::future<SingleInstance::Claim> second = std::async(std::launch::async, [places, patienceMs] {
        SingleInstance instance(places);
        instance.setHandOverPatience(patienceMs);
        return instance.claim();
    });
    if (!runEventLoopUntil(
            [&] { return second.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }, boundMs))
        return std::nullopt; // the future's destructor still waits for the thread
    return second.get();
}
