// SPDX-License-Identifier: Apache-2.0
// Registers of cameras: one by one for whoever asks, and of all cameras at once for listings. Any thread.
// Locks: a camera's Command while it answers; m_mutex for a few instructions, to find its channel.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_REGISTERS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_REGISTERS_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/base/Mutex.h"
#include "platform/linux/gige/CameraChannel.h"
#include "platform/linux/gige/Reply.h"

namespace Nimbrel2::Platform::GigE {

/// A socket for a camera that somebody should open.
struct ChannelRequest {
    CameraPlace place;
    std::uint16_t preferredPort = 0;
    std::shared_ptr<UdpSocket> socket;  ///< the answer
    int error = 0;                      ///< errno
};

/// What registers need of the rest of the driver. All may be called from any thread, with no lock but a Command held.
struct RegisterNeeds {
    /// Where a camera is; nothing when it is not listed.
    std::function<std::optional<CameraPlace>(const CameraKey&)> findPlace;
    /// Opens sockets, all at once.
    std::function<void(std::vector<ChannelRequest>&)> open;
    /// Asks cameras, at once, whether they are there.
    std::function<void(const std::vector<CameraKey>&)> suspect;
    /// Whether a camera has answered that since.
    std::function<bool(const CameraKey&, TimePoint)> hasAnswered;
};

/// What a listing reads of a camera.
struct Readings {
    /// Nothing was read, for somebody talks to the camera: it is to be asked.
    bool skipped = false;
    std::uint32_t controlStatus = HAL_TIMED_OUT;
    ControlInfo control;
    std::uint32_t valueStatus = HAL_TIMED_OUT;
    std::uint32_t value = 0;
};

/// Which.
struct ReadingPlan {
    bool control = true;        ///< who controls the camera
    std::uint32_t address = 0;  ///< of one register more
};

class Registers {
public:
    /// @param stopFd  Readable from the driver's end on.
    Registers(const Timings& timings, RegisterNeeds needs);

    /// Before anything else. @param stopFd  Readable from Stop on.
    void Start(int stopFd);
    /// Commands in flight end soon, later ones at once.
    void Stop() { m_stopped = true; }

    std::uint32_t Read(const CameraKey& key, std::uint32_t address, std::uint32_t* value);
    std::uint32_t Write(const CameraKey& key, std::uint32_t address, std::uint32_t value);
    std::uint32_t GetControl(const CameraKey& key, ControlInfo* control);
    /// Where this computer talks to the camera from.
    std::uint32_t GetLocalEnd(const CameraKey& key, std::uint32_t* ip, std::uint16_t* port);

    /// Reads of all cameras at once. One that does not answer is waited for half a second, and remembered as mute: then
    /// it is asked and not waited for, until it answers. One that is not even there is waited for no longer than a
    /// listing waits for that.
    std::map<CameraKey, Readings> ReadAll(const std::vector<CameraPlace>& places, const ReadingPlan& plan);

    bool IsMute(const CameraKey& key) const;
    /// Interfaces on which cameras have no port to be talked to from, and how many.
    std::map<int, unsigned int> GetShortOfPorts() const;

private:
    class ControlQuery;
    struct Request;
    struct Job;

    std::shared_ptr<CameraChannel> GetChannel(const CameraKey& key);
    std::uint32_t Prepare(CameraChannel::Command& command, const CameraPlace& place);
    void NoteOpened(const ChannelRequest& request);
    std::uint32_t Execute(const CameraKey& key, const Request& request, std::uint32_t* value);
    std::uint32_t ExecuteAlone(CameraChannel::Command& command, const Request& request, std::uint32_t* value);
    std::uint32_t Exchange(const UdpSocket& socket, std::span<const std::uint8_t> packet, Reply& reply);
    /// Until the deadline at most, and not after Stop.
    void WaitReadable(int fd, TimePoint deadline) const;

    // Of ReadAll.
    std::vector<Job> BeginJobs(const std::vector<CameraPlace>& places, const ReadingPlan& plan);
    void OpenSockets(std::vector<Job>& jobs);
    void Advance(Job& job, TimePoint now);
    void Receive(Job& job, TimePoint now);
    void Repeat(Job& job, TimePoint now);
    void GiveUpAbsent(std::vector<Job>& jobs, TimePoint since);
    static void Finish(Job& job);
    void RunJobs(std::vector<Job>& jobs);

    const Timings& m_timings;
    const RegisterNeeds m_needs;
    int m_stopFd = -1;
    std::atomic<bool> m_stopped{false};

    mutable Mutex m_mutex;
    Random m_random NIMBREL2_GUARDED_BY(m_mutex);
    std::map<CameraKey, std::shared_ptr<CameraChannel>> m_channels NIMBREL2_GUARDED_BY(m_mutex);
    std::map<CameraKey, int> m_withoutPort NIMBREL2_GUARDED_BY(m_mutex);  ///< and their interface
};

}  // namespace Nimbrel2::Platform::GigE

#endif
