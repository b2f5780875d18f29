// SPDX-License-Identifier: Apache-2.0
// The event side of one bus: who is registered, and what each of them is told. One object per bus and session.
#ifndef NIMBREL2_PLATFORM_HAL_BUSEVENTS_H
#define NIMBREL2_PLATFORM_HAL_BUSEVENTS_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <thread>

#include "hal/HAL.h"
#include "platform/Drivers.h"
#include "platform/base/Mutex.h"
#include "platform/base/StartThread.h"
#include "platform/hal/BusNews.h"
#include "platform/hal/EntryTable.h"
#include "platform/hal/EventDelivery.h"

namespace Nimbrel2::Platform {

/// Takes what the driver reports and hands what is news in it to the delivery thread of each registration.
/// @par Threads  Any. Lock order: m_mutex, then a delivery's own; neither is ever held during a callback or a join.
class BusEvents final : public BusEventSink {
public:
    using Listing = BusNews::Listing;

    BusEvents(HALInterfaceType bus, ThreadStarter startThread);
    /// Ends what Close has not ended, without waiting for callbacks.
    ~BusEvents() override;
    BusEvents(const BusEvents&) = delete;
    BusEvents& operator=(const BusEvents&) = delete;

    void Report(BusState state) noexcept override;
    void ReportSettled(BusState state) noexcept override;
    void ReportUnknown() noexcept override;
    void RaiseError() noexcept override;

    /// @return HAL_CLOSED after StopCallbacks, HAL_OUT_OF_MEMORY when no thread can be made.
    std::uint32_t Register(HALBusEventFunction function, void* context, void** registration);
    /// Also from inside the registration's own callback. @return HAL_GONE for an unknown registration.
    std::uint32_t Deregister(void* registration);

    /// Waits until everything raised so far has been called back. False when the deadline came first.
    [[nodiscard]] bool WaitUntilDelivered(EventDelivery::Clock::time_point deadline) const;

    /// Stands around a listing, whatever becomes of it.
    class ListingInProgress {
    public:
        ListingInProgress(BusEvents& events, Listing listing);
        ~ListingInProgress();
        ListingInProgress(const ListingInProgress&) = delete;
        ListingInProgress& operator=(const ListingInProgress&) = delete;

        /// It has succeeded: whoever registers from here on knows this state.
        void Succeeded(BusState state);

    private:
        BusEvents& m_events;
        const Listing m_listing;
    };

    /// From here on no callback is begun and nothing registers.
    void StopCallbacks();
    /// Waits for the callbacks in flight until the deadline and joins their threads. One whose callback still hangs
    /// then is left alone with its EventDelivery. After StopCallbacks.
    void JoinThreads(EventDelivery::Clock::time_point deadline);

private:
    struct Registration {
        std::shared_ptr<EventDelivery> delivery;
        std::thread thread;
    };
    using Registrations = std::map<Handle, Registration>;

    void Take(BusState state, bool settled);
    /// To every registration.
    void Add(const BusEvent& event, bool settled) NIMBREL2_REQUIRES(m_mutex);

    /// Joins threads of earlier registrations that have ended by themselves.
    void Reap();

    const HALInterfaceType m_bus;
    const ThreadStarter m_startThread;

    mutable Mutex m_mutex;
    bool m_stopped NIMBREL2_GUARDED_BY(m_mutex) = false;
    BusNews m_news NIMBREL2_GUARDED_BY(m_mutex);
    Registrations m_registrations NIMBREL2_GUARDED_BY(m_mutex);
    /// Deregistered, with a thread that may still be in its last callback.
    Registrations m_ending NIMBREL2_GUARDED_BY(m_mutex);
};

}  // namespace Nimbrel2::Platform

#endif
