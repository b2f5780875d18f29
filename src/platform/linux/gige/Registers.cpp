// SPDX-License-Identifier: Apache-2.0
// Registers of cameras. Any thread; whoever has a camera's Command is the only one who sends to it and reads its
// socket. m_mutex for a few instructions.
#include "platform/linux/gige/Registers.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <utility>

#include "platform/base/Errno.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

namespace {

namespace Register = Gvcp::Register;
using Gvcp::MessageId;

// A flood must not keep a waiting thread from looking at its deadline.
constexpr int ReadBudget = 64;
constexpr std::size_t BufferBytes = Gvcp::MaxPacketBytes + 28;
// Channels of cameras that are not listed are looked through when there are more than this.
constexpr std::size_t ManyChannels = 256;

timespec Until(TimePoint deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now()).count();
    timespec limit{};
    limit.tv_sec = static_cast<std::time_t>(left > 0 ? left / 1'000'000'000 : 0);
    limit.tv_nsec = static_cast<long>(left > 0 ? left % 1'000'000'000 : 0);
    return limit;
}

}  // namespace

/// One command to a camera.
struct Registers::Request {
    MessageId acknowledge{};
    std::uint32_t address = 0;
    std::uint32_t value = 0;

    static Request ReadOf(std::uint32_t address) { return {MessageId::ReadRegAck, address, 0}; }

    Gvcp::Packet Encode(std::uint16_t id) const {
        const Gvcp::RegisterWrite write{address, value};
        return acknowledge == MessageId::ReadRegAck ? Gvcp::EncodeReadRegCommand(id, {&address, 1})
                                                    : Gvcp::EncodeWriteRegCommand(id, {&write, 1});
    }
};

/// Which registers say who controls a camera, and what they say. Many cameras do not tell who: they have no such
/// registers, or zeros in them.
class Registers::ControlQuery {
public:
    /// The register that is to be read next; nothing when all has been said.
    std::optional<std::uint32_t> GetNext() const { return m_next; }

    void Take(std::uint32_t status, std::uint32_t value) {
        if (m_next == Register::ControlChannelPrivilege) {
            m_status = status == HAL_ACCESS_DENIED ? std::uint32_t{HAL_OK} : status;
            m_held = status == HAL_ACCESS_DENIED ? Gvcp::Ccp::ExclusiveAccess
                                                 : value & (Gvcp::Ccp::ControlAccess | Gvcp::Ccp::ExclusiveAccess);
            // Who holds it alone refuses the other reads too.
            const bool more = status == HAL_OK && m_held != 0;
            m_next = more ? std::optional<std::uint32_t>(Register::PrimaryApplicationPort) : std::nullopt;
        } else if (m_next == Register::PrimaryApplicationPort) {
            m_port = TakeOwner(status, value);
            m_next = m_port != 0 ? std::optional<std::uint32_t>(Register::PrimaryApplicationIpAddress) : std::nullopt;
        } else {
            m_ip = TakeOwner(status, value);
            m_next.reset();
        }
    }

    std::uint32_t GetStatus() const { return m_status; }
    bool IsHeld() const { return m_held != 0; }

    ControlInfo Conclude(const CameraChannel::State& channel) const {
        ControlInfo control;
        control.status = m_status;
        if (m_status != HAL_OK) {
            return control;
        }
        if (m_held == 0) {
            control.state = ControlState::Free;
            return control;
        }
        bool ours = channel.holdsControl;
        if (m_port != 0 && m_ip != 0) {
            control.ownerIp = m_ip;
            control.ownerPort = static_cast<std::uint16_t>(m_port);
            // On an interface without an address the kernel lends it another one's.
            const std::uint32_t local = channel.socket->GetLocalAddress();
            ours = (local == 0 || m_ip == local) && m_port == channel.socket->GetLocalPort();
        } else {
            control.status = m_next ? std::uint32_t{HAL_TIMED_OUT} : m_ownerStatus;
        }
        const bool exclusive = (m_held & Gvcp::Ccp::ExclusiveAccess) != 0;
        control.state = ours ? ControlState::Ours : exclusive ? ControlState::Exclusive : ControlState::Controlled;
        return control;
    }

private:
    // 0 when it has none. A camera without these registers, or that refuses them, does not say; one that was not heard,
    // or that asks to be asked again, might.
    std::uint32_t TakeOwner(std::uint32_t status, std::uint32_t value) {
        switch (status) {
            case HAL_OK:
                return value;
            case HAL_NO_SUCH_REGISTER:
            case HAL_NOT_SUPPORTED:
            case HAL_INVALID_ARGUMENT:
            case HAL_ACCESS_DENIED:
            case HAL_REFUSED:
                return 0;
            default:
                m_ownerStatus = status;
                return 0;
        }
    }

    std::optional<std::uint32_t> m_next = Register::ControlChannelPrivilege;
    std::uint32_t m_status = HAL_TIMED_OUT;
    std::uint32_t m_ownerStatus = HAL_OK;
    std::uint32_t m_held = 0;
    std::uint32_t m_port = 0;
    std::uint32_t m_ip = 0;
};

/// One camera of ReadAll.
struct Registers::Job {
    CameraPlace place;
    std::shared_ptr<CameraChannel> channel;
    CameraChannel::Command command;
    std::optional<ControlQuery> control;
    std::optional<std::uint32_t> address;  ///< of the other register, while it is to be read
    std::uint16_t requestId = 0;
    std::optional<Reply> reply;  ///< of the request that is out
    Gvcp::Packet packet;
    TimePoint nextTry;
    bool parked = false;  ///< asked, and not waited for
    bool done = false;
    Readings readings;

    bool IsWaitedFor() const { return !done && !parked; }
};

Registers::Registers(const Timings& timings, RegisterNeeds needs)
    : m_timings(timings), m_needs(std::move(needs)), m_random(Random::FromSystem()) {}

void Registers::Start(int stopFd) { m_stopFd = stopFd; }

// ---- One command ---------------------------------------------------------------------------------------------------

std::uint32_t Registers::Read(const CameraKey& key, std::uint32_t address, std::uint32_t* value) {
    return Execute(key, Request::ReadOf(address), value);
}

std::uint32_t Registers::Write(const CameraKey& key, std::uint32_t address, std::uint32_t value) {
    std::uint32_t written = 0;
    const std::uint32_t status = Execute(key, Request{MessageId::WriteRegAck, address, value}, &written);
    return status == HAL_OK && written != 1 ? std::uint32_t{HAL_BAD_ANSWER} : status;
}

std::uint32_t Registers::GetControl(const CameraKey& key, ControlInfo* control) {
    *control = ControlInfo{};
    ControlQuery query;
    while (const auto address = query.GetNext()) {
        std::uint32_t value = 0;
        const std::uint32_t status = Execute(key, Request::ReadOf(*address), &value);
        if (status == HAL_CLOSED) {
            return status;
        }
        query.Take(status, value);
    }
    if (query.GetStatus() != HAL_OK) {
        control->status = query.GetStatus();
        return control->status;
    }
    const CameraChannel::Command command = CameraChannel::Begin(GetChannel(key));
    if (!query.IsHeld()) {
        command->holdsControl = false;
    }
    *control = query.Conclude(*command.operator->());
    return HAL_OK;
}

std::uint32_t Registers::GetLocalEnd(const CameraKey& key, std::uint32_t* ip, std::uint16_t* port) {
    CameraChannel::Command command = CameraChannel::Begin(GetChannel(key));
    const auto place = m_needs.findPlace(key);
    if (m_stopped) {
        return HAL_CLOSED;
    }
    if (!place) {
        return HAL_GONE;
    }
    const std::uint32_t status = Prepare(command, *place);
    if (status != HAL_OK) {
        return status;
    }
    *ip = command->socket->GetLocalAddress();
    *port = command->socket->GetLocalPort();
    return HAL_OK;
}

std::uint32_t Registers::Execute(const CameraKey& key, const Request& request, std::uint32_t* value) {
    const std::shared_ptr<CameraChannel> channel = GetChannel(key);
    std::uint32_t status = HAL_OK;
    {
        CameraChannel::Command command = CameraChannel::Begin(channel);
        const auto place = m_needs.findPlace(key);
        if (m_stopped) {
            return HAL_CLOSED;
        }
        if (!place) {
            return HAL_GONE;
        }
        if (place->silent || Clock::now() < command->quietUntil) {
            return HAL_TIMED_OUT;
        }
        status = Prepare(command, *place);
        if (status == HAL_OK) {
            status = ExecuteAlone(command, request, value);
        }
        if (status == HAL_TIMED_OUT) {
            command->quietUntil = Clock::now() + m_timings.quietAfterTimeOut;
        }
        if (status == HAL_OK) {
            channel->SetMute(false);
        }
        if (status == HAL_OK && request.acknowledge == MessageId::WriteRegAck &&
            request.address == Register::ControlChannelPrivilege) {
            const std::uint32_t held = Gvcp::Ccp::ControlAccess | Gvcp::Ccp::ExclusiveAccess;
            command->holdsControl = (request.value & held) != 0;
        }
    }
    // Whether it is there at all is asked at once and not at its next turn.
    if (status == HAL_TIMED_OUT) {
        m_needs.suspect({key});
    }
    return status;
}

std::uint32_t Registers::ExecuteAlone(CameraChannel::Command& command, const Request& request, std::uint32_t* value) {
    const std::uint16_t id = command.NextId();
    Reply reply(id, request.acknowledge, Clock::now() + m_timings.pendingLimit);
    const std::uint32_t status = Exchange(*command->socket, request.Encode(id).GetBytes(), reply);
    if (status != HAL_OK) {
        return status;
    }
    *value = reply.GetValue();
    return reply.GetStatus();
}

// Sends the command up to three times, with one id: a camera that has executed it answers the repeat without executing
// it again. A pending acknowledge says that it is at work, so nothing is repeated from then on.
// Not HAL_OK when the network or Stop ended it; else the reply tells.
std::uint32_t Registers::Exchange(const UdpSocket& socket, std::span<const std::uint8_t> packet, Reply& reply) {
    std::array<std::uint8_t, BufferBytes> buffer;
    for (int i = 0; i < m_timings.registerTries && !reply.IsAnswered(); ++i) {
        const int error = socket.SendToPeer(packet);
        if (error != 0 && error != EAGAIN && error != ENOBUFS) {
            return StatusOfErrno(error);
        }
        const TimePoint end = Clock::now() + m_timings.registerTry;
        for (bool isLast = false; !reply.IsAnswered() && !isLast;) {
            // A camera that asks for less time than it has, or for none, is not given up the sooner for it.
            const TimePoint deadline = std::max(end, reply.GetPendingUntil());
            // What lies on the socket by then has come in time; a flood does not put it off any further.
            isLast = Clock::now() >= deadline;
            WaitReadable(socket.GetFd(), deadline);
            if (m_stopped) {
                return HAL_CLOSED;
            }
            for (int k = 0; k < ReadBudget && !reply.IsAnswered(); ++k) {
                const std::size_t size = socket.ReceiveFromPeer(buffer);
                if (size == 0) {
                    break;
                }
                reply.Take({buffer.data(), size}, Clock::now());
            }
        }
        if (reply.GetPendingUntil() != TimePoint()) {
            break;
        }
    }
    return HAL_OK;
}

void Registers::WaitReadable(int fd, TimePoint deadline) const {
    const timespec limit = Until(deadline);
    std::array<pollfd, 2> fds{pollfd{fd, POLLIN, 0}, pollfd{m_stopFd, POLLIN, 0}};
    ::ppoll(fds.data(), fds.size(), &limit, nullptr);
}

// ---- Channels ------------------------------------------------------------------------------------------------------

std::shared_ptr<CameraChannel> Registers::GetChannel(const CameraKey& key) {
    const LockGuard lock(m_mutex);
    if (m_channels.size() > ManyChannels) {
        const TimePoint now = Clock::now();
        std::erase_if(m_channels, [&](const auto& entry) {
            m_mutex.AssumeHeld();
            const bool unused = entry.second.use_count() == 1 && entry.first != key &&
                                now - entry.second->GetLastUse() >= m_timings.channelLifetime;
            if (unused) {
                m_withoutPort.erase(entry.first);
            }
            return unused;
        });
    }
    std::shared_ptr<CameraChannel>& channel = m_channels[key];
    if (!channel) {
        channel = std::make_shared<CameraChannel>(Random(m_random.Next()));
    }
    return channel;
}

// Has the socket talk to where the camera is now.
std::uint32_t Registers::Prepare(CameraChannel::Command& command, const CameraPlace& place) {
    if (command->socket && command->place.IsSameEnd(place)) {
        return HAL_OK;
    }
    std::vector<ChannelRequest> requests(1);
    requests[0].place = place;
    if (command->socket) {
        requests[0].preferredPort = command->socket->GetLocalPort();
    }
    command->socket.reset();
    m_needs.open(requests);
    NoteOpened(requests[0]);
    command->socket = requests[0].socket;
    command->place = place;
    return command->socket ? std::uint32_t{HAL_OK} : StatusOfErrno(requests[0].error);
}

void Registers::NoteOpened(const ChannelRequest& request) {
    const LockGuard lock(m_mutex);
    if (request.error == EADDRINUSE) {
        m_withoutPort[request.place.key] = request.place.interface;
    } else {
        m_withoutPort.erase(request.place.key);
    }
}

bool Registers::IsMute(const CameraKey& key) const {
    const LockGuard lock(m_mutex);
    const auto found = m_channels.find(key);
    return found != m_channels.end() && found->second->IsMute();
}

std::map<int, unsigned int> Registers::GetShortOfPorts() const {
    const LockGuard lock(m_mutex);
    std::map<int, unsigned int> cameras;
    for (const auto& entry : m_withoutPort) {
        ++cameras[entry.second];
    }
    return cameras;
}

// ---- All cameras at once -------------------------------------------------------------------------------------------

std::map<CameraKey, Readings> Registers::ReadAll(const std::vector<CameraPlace>& places, const ReadingPlan& plan) {
    std::vector<Job> jobs = BeginJobs(places, plan);
    OpenSockets(jobs);
    const TimePoint now = Clock::now();
    for (Job& job : jobs) {
        if (job.done) {
            continue;
        }
        Receive(job, now);  // what has come late
        if (job.channel->IsMute()) {
            job.parked = true;
        }
        Advance(job, now);
    }
    RunJobs(jobs);
    std::map<CameraKey, Readings> readings;
    for (const Job& job : jobs) {
        readings[job.place.key] = job.readings;
    }
    return readings;
}

// Lets others talk to the camera.
void Registers::Finish(Job& job) {
    job.done = true;
    if (!job.command) {
        return;
    }
    if (job.control && job.control->GetStatus() == HAL_OK && job.command->socket) {
        if (!job.control->IsHeld()) {
            job.command->holdsControl = false;
        }
        job.readings.control = job.control->Conclude(*job.command.operator->());
    } else if (job.control) {
        job.readings.control.status = job.readings.controlStatus;
    }
    job.command.End();
}

std::vector<Registers::Job> Registers::BeginJobs(const std::vector<CameraPlace>& places, const ReadingPlan& plan) {
    std::vector<Job> jobs;
    jobs.reserve(places.size());
    for (const CameraPlace& place : places) {
        std::shared_ptr<CameraChannel> channel = GetChannel(place.key);
        CameraChannel::Command command = CameraChannel::TryBegin(channel);
        jobs.push_back(Job{place, std::move(channel), std::move(command), {}, {}, 0, {}, {}, {}, false, false, {}});
        Job& job = jobs.back();
        if (plan.control) {
            job.control.emplace();
        }
        if (plan.address != 0) {
            job.address = plan.address;
        }
        if (!job.command) {
            // Somebody is talking to it. To a mute one that is no reason to wait for it.
            job.readings.skipped = !job.channel->IsMute();
            job.done = true;
        } else if (place.silent || Clock::now() < job.command->quietUntil) {
            job.done = true;
        }
    }
    return jobs;
}

void Registers::OpenSockets(std::vector<Job>& jobs) {
    std::vector<ChannelRequest> requests;
    std::vector<Job*> asking;
    for (Job& job : jobs) {
        if (job.done || (job.command->socket && job.command->place.IsSameEnd(job.place))) {
            continue;
        }
        ChannelRequest request;
        request.place = job.place;
        if (job.command->socket) {
            request.preferredPort = job.command->socket->GetLocalPort();
        }
        requests.push_back(std::move(request));
        asking.push_back(&job);
    }
    if (requests.empty()) {
        return;
    }
    for (Job* job : asking) {
        job->command->socket.reset();
    }
    m_needs.open(requests);
    for (std::size_t i = 0; i < requests.size(); ++i) {
        NoteOpened(requests[i]);
        Job& job = *asking[i];
        job.command->socket = requests[i].socket;
        job.command->place = job.place;
        job.command->parkedId = 0;
        if (requests[i].socket) {
            continue;
        }
        job.readings.controlStatus = job.readings.valueStatus = StatusOfErrno(requests[i].error);
        job.done = true;
    }
}

// Sends the next request, if there is one.
void Registers::Advance(Job& job, TimePoint now) {
    std::optional<std::uint32_t> address = job.control ? job.control->GetNext() : std::nullopt;
    if (!address) {
        address = job.address;
    }
    if (!address) {
        job.done = true;
        return;
    }
    job.requestId = job.command.NextId();
    job.reply.emplace(job.requestId, MessageId::ReadRegAck, now + m_timings.muteWait);
    job.packet = Request::ReadOf(*address).Encode(job.requestId);
    if (job.parked) {
        job.command->parkedId = job.requestId;
    }
    job.nextTry = now;
    Repeat(job, now);
}

void Registers::Repeat(Job& job, TimePoint now) {
    const int error = job.command->socket->SendToPeer(job.packet.GetBytes());
    job.nextTry = now + m_timings.registerTry;
    if (error == 0 || error == EAGAIN || error == ENOBUFS) {
        return;
    }
    job.readings.controlStatus = job.readings.valueStatus = StatusOfErrno(error);
    job.done = true;
}

void Registers::Receive(Job& job, TimePoint now) {
    std::array<std::uint8_t, BufferBytes> buffer;
    CameraChannel::Command& command = job.command;
    std::optional<Reply> parked;
    if (!job.reply && command->parkedId != 0) {
        parked.emplace(command->parkedId, MessageId::ReadRegAck, now);
    }
    for (int i = 0; i < ReadBudget && !job.done; ++i) {
        const std::size_t size = command->socket->ReceiveFromPeer(buffer);
        if (size == 0) {
            break;
        }
        if (parked) {
            parked->Take({buffer.data(), size}, now);
        }
        if (!job.reply) {
            continue;
        }
        job.reply->Take({buffer.data(), size}, now);
        if (!job.reply->IsAnswered()) {
            continue;
        }
        const std::uint32_t status = job.reply->GetStatus();
        const std::uint32_t value = job.reply->GetValue();
        if (job.parked) {
            // It answers again. Whoever wants to know more asks it.
            job.channel->SetMute(false);
            job.readings.skipped = true;
            job.done = true;
        } else if (job.control && job.control->GetNext()) {
            job.control->Take(status, value);
            job.readings.controlStatus = job.control->GetStatus();
            Advance(job, now);
        } else {
            job.readings.valueStatus = status;
            job.readings.value = value;
            job.address.reset();
            Advance(job, now);
        }
    }
    // One that answers too late each time is waited for once more, and then no longer.
    if (parked && parked->IsAnswered()) {
        command->parkedId = 0;
        if (!std::exchange(command->wasLate, true)) {
            job.channel->SetMute(false);
        }
    }
}

// Of those that have not answered, the ones that do not answer a discovery either are not mute but gone.
void Registers::GiveUpAbsent(std::vector<Job>& jobs, TimePoint since) {
    for (Job& job : jobs) {
        if (job.IsWaitedFor() && !m_needs.hasAnswered(job.place.key, since)) {
            job.done = true;
        }
    }
}

void Registers::RunJobs(std::vector<Job>& jobs) {
    const TimePoint start = Clock::now();
    TimePoint suspectAt = start + m_timings.suspectAfter;
    TimePoint suspectedAt;
    TimePoint giveUpAt = TimePoint::max();
    const TimePoint end = start + m_timings.muteWait;
    std::vector<pollfd> fds;
    std::vector<Job*> waiting;
    while (!m_stopped) {
        const TimePoint now = Clock::now();
        if (now >= giveUpAt) {
            GiveUpAbsent(jobs, suspectedAt);
            giveUpAt = TimePoint::max();
        }
        TimePoint next = std::min({end, suspectAt, giveUpAt});
        fds.assign(1, pollfd{m_stopFd, POLLIN, 0});
        waiting.clear();
        for (Job& job : jobs) {
            if (job.done) {
                Finish(job);
            }
            if (job.IsWaitedFor() && now >= job.nextTry && job.reply->GetPendingUntil() == TimePoint()) {
                Repeat(job, now);
            }
            if (!job.IsWaitedFor()) {
                continue;
            }
            if (job.reply->GetPendingUntil() == TimePoint()) {
                next = std::min(next, job.nextTry);
            }
            fds.push_back(pollfd{job.command->socket->GetFd(), POLLIN, 0});
            waiting.push_back(&job);
        }
        if (waiting.empty() || now >= end) {
            break;
        }
        if (now >= suspectAt) {
            std::vector<CameraKey> keys;
            for (const Job* job : waiting) {
                keys.push_back(job->place.key);
            }
            suspectedAt = now;
            m_needs.suspect(keys);
            suspectAt = TimePoint::max();
            giveUpAt = start + m_timings.verifyWait;
            continue;
        }
        const timespec limit = Until(next);
        if (::ppoll(fds.data(), fds.size(), &limit, nullptr) <= 0) {
            continue;
        }
        const TimePoint arrived = Clock::now();
        for (std::size_t i = 0; i < waiting.size(); ++i) {
            if (fds[i + 1].revents != 0) {
                Receive(*waiting[i], arrived);
            }
        }
    }
    for (Job& job : jobs) {
        if (job.parked && !job.done) {
            Receive(job, Clock::now());
        }
        if (job.IsWaitedFor()) {
            job.channel->SetMute(true);
            job.command->parkedId = job.requestId;
        }
        Finish(job);
    }
}

}  // namespace Nimbrel2::Platform::GigE
