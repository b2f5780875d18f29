// SPDX-License-Identifier: Apache-2.0
// Registrations and what drivers report. Runs on driver threads (Report, RaiseError) and on callers' threads (all
// others). Takes m_mutex for a walk over a handful of registrations, and in it each delivery's mutex for a few
// instructions.
#include "platform/hal/BusEvents.h"

#include <algorithm>
#include <system_error>
#include <utility>
#include <vector>

namespace Nimbrel2::Platform {
namespace {

const char* ThreadName(HALInterfaceType bus) {
    switch (bus) {
        case HAL_INTERFACE_1394:
            return "hal-events-1394";
        case HAL_INTERFACE_USB:
            return "hal-events-usb";
        case HAL_INTERFACE_GIGE:
            return "hal-events-gige";
    }
    return "hal-events";
}

}  // namespace

BusEvents::BusEvents(HALInterfaceType bus, ThreadStarter startThread)
    : m_bus(bus), m_startThread(std::move(startThread)) {}

BusEvents::~BusEvents() {
    StopCallbacks();
    JoinThreads(EventDelivery::Clock::time_point::min());
}

void BusEvents::Report(BusState state) noexcept { Take(std::move(state), false); }

void BusEvents::ReportSettled(BusState state) noexcept { Take(std::move(state), true); }

void BusEvents::Take(BusState state, bool settled) {
    const LockGuard lock(m_mutex);
    m_news.Report(std::move(state), [this, settled](HALBusEvent event, std::uint32_t first, std::uint32_t second) {
        m_mutex.AssumeHeld();
        Add({event, first, second}, settled);
    });
}

void BusEvents::ReportUnknown() noexcept {
    const LockGuard lock(m_mutex);
    m_news.ReportUnknown([this](HALBusEvent event, std::uint32_t first, std::uint32_t second) {
        m_mutex.AssumeHeld();
        Add({event, first, second}, false);
    });
}

void BusEvents::RaiseError() noexcept {
    const LockGuard lock(m_mutex);
    Add({HAL_BUS_ERROR, 0, 0}, false);
}

void BusEvents::Add(const BusEvent& event, bool settled) {
    for (auto& [handle, registration] : m_registrations) {
        registration.delivery->Add(event, settled);
    }
}

std::uint32_t BusEvents::Register(HALBusEventFunction function, void* context, void** registration) {
    Reap();
    Registrations fresh;
    const Handle handle = NextHandle();
    Registration& made = fresh[handle];
    made.delivery = std::make_shared<EventDelivery>(m_bus, function, context);
    try {
        made.thread = m_startThread(ThreadName(m_bus), [delivery = made.delivery] { delivery->Run(); });
    } catch (const std::system_error&) {
        return HAL_OUT_OF_MEMORY;
    }
    // Nothing throws from here on: a running thread would have no owner. Merging moves the node and takes no memory.
    {
        const LockGuard lock(m_mutex);
        if (!m_stopped) {
            // Under the lock, so that a change is either found here or added by Report: once, whichever is first.
            m_news.RaiseUnseen([&made](HALBusEvent event, std::uint32_t first, std::uint32_t second) {
                made.delivery->Add({event, first, second});
            });
            m_registrations.merge(fresh);
            *registration = ToPointer(handle);
            return HAL_OK;
        }
    }
    made.delivery->Stop();
    made.thread.join();
    return HAL_CLOSED;
}

std::uint32_t BusEvents::Deregister(void* registration) {
    {
        const LockGuard lock(m_mutex);
        const auto found = m_registrations.find(ToHandle(registration));
        if (found == m_registrations.end()) {
            return HAL_GONE;
        }
        found->second.delivery->Stop();
        m_ending.insert(m_registrations.extract(found));
    }
    Reap();
    return HAL_OK;
}

bool BusEvents::WaitUntilDelivered(EventDelivery::Clock::time_point deadline) const {
    std::vector<std::shared_ptr<EventDelivery>> deliveries;
    {
        const LockGuard lock(m_mutex);
        for (const auto& [handle, registration] : m_registrations) {
            deliveries.push_back(registration.delivery);
        }
    }
    return std::all_of(deliveries.begin(), deliveries.end(),
                       [deadline](const auto& delivery) { return delivery->WaitUntilIdle(deadline); });
}

BusEvents::ListingInProgress::ListingInProgress(BusEvents& events, Listing listing)
    : m_events(events), m_listing(listing) {
    const LockGuard lock(m_events.m_mutex);
    m_events.m_news.BeginListing(m_listing);
}

BusEvents::ListingInProgress::~ListingInProgress() {
    const LockGuard lock(m_events.m_mutex);
    m_events.m_news.EndListing(m_listing);
}

void BusEvents::ListingInProgress::Succeeded(BusState state) {
    const LockGuard lock(m_events.m_mutex);
    m_events.m_news.Listed(m_listing, std::move(state));
}

void BusEvents::StopCallbacks() {
    const LockGuard lock(m_mutex);
    m_stopped = true;
    for (auto& [handle, registration] : m_registrations) {
        registration.delivery->Stop();
    }
    m_ending.merge(m_registrations);
}

void BusEvents::JoinThreads(EventDelivery::Clock::time_point deadline) {
    Registrations ending;
    {
        const LockGuard lock(m_mutex);
        ending.swap(m_ending);
    }
    for (auto& [handle, registration] : ending) {
        // The second: this is the callback's own thread, which would wait for itself.
        if (registration.thread.get_id() != std::this_thread::get_id() &&
            registration.delivery->WaitUntilEnded(deadline)) {
            registration.thread.join();
        } else {
            registration.thread.detach();
        }
    }
}

void BusEvents::Reap() {
    Registrations ended;
    {
        const LockGuard lock(m_mutex);
        for (auto next = m_ending.begin(); next != m_ending.end();) {
            const auto current = next++;
            if (current->second.delivery->HasEnded()) {
                ended.insert(m_ending.extract(current));
            }
        }
    }
    for (auto& [handle, registration] : ended) {
        registration.thread.join();
    }
}

}  // namespace Nimbrel2::Platform
