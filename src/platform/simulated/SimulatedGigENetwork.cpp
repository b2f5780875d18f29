// SPDX-License-Identifier: Apache-2.0
// The serving thread of simulated cameras: an epoll loop over their sockets, a queue of answers that wait, and a queue
// of things that other threads want done. m_mutex guards that last queue and the activity count only, for an instant.
#include "platform/simulated/SimulatedGigENetwork.h"

#include <net/if.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <map>
#include <new>
#include <queue>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/base/Mutex.h"
#include "platform/base/StartThread.h"
#include "platform/base/Texts.h"
#include "platform/simulated/CameraSocket.h"
#include "platform/simulated/InterfaceAddresses.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::size_t LargestDatagram = 65536;
/// Datagrams taken from one socket before the others have their turn.
constexpr int DatagramsInTurn = 64;
/// Answers that may wait at a time; more are lost. Keeps a flood of commands from growing the process.
constexpr std::size_t MostWaitingAnswers = 16384;
/// How often WaitUntil looks without a packet: control may lapse, which nothing announces.
constexpr milliseconds LookAgain{5};

std::string ErrorText(int error) { return std::generic_category().message(error); }

/// What there is no memory for does not happen, as datagrams get lost; the serving thread goes on.
template <class Work>
void UnlessMemoryRunsOut(const Work& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

class SimulatedGigENetwork::Server {
public:
    explicit Server(Options options);
    ~Server();

    /// Runs the function on the serving thread and waits for its end.
    void Run(const std::function<void()>& function);

    // On the serving thread.
    AddResult AddCamera(const SimulatedCameraOptions& options);
    bool RemoveCamera(CameraId id);
    bool Use(CameraId id, const std::function<void(SimulatedGigECamera&)>& function);
    std::string GetProblem(CameraId id) const;

    /// Waits until a datagram has come since that count, or a moment. @return the new count.
    std::uint64_t WaitForActivity(std::uint64_t seen, Clock::time_point deadline);

private:
    struct Camera {
        CameraId id = 0;
        std::unique_ptr<SimulatedGigECamera> model;
        std::string interfaceName;
        unsigned int interfaceIndex = 0;
        FileDescriptor socket;
        std::uint32_t boundAddress = 0;
        std::uint32_t boundMask = 0;
        bool addressAdded = false;
        std::string problem;
    };

    /// The ear of all cameras on one interface.
    struct BroadcastSocket {
        FileDescriptor socket;
        std::vector<CameraId> cameras;
    };

    struct WaitingAnswer {
        Clock::time_point due;
        std::uint64_t order = 0;
        CameraId camera = 0;
        Endpoint peer;
        Answer answer;

        /// The queue has its greatest on top, so "less" is "later".
        bool operator<(const WaitingAnswer& other) const {
            return std::tie(due, order) > std::tie(other.due, other.order);
        }
    };

    struct Task {
        const std::function<void()>* function;
        bool done = false;
        std::exception_ptr failure;
    };

    /// What an epoll event stands for: the kind in the low two bits, the number above.
    enum class Source : std::uint64_t { WakeUp = 0, Camera = 1, Broadcast = 2 };

    void Serve();
    void RunTasks();
    void WakeUp();
    int Watch(int fd, Source source, std::uint64_t number);
    int GetWaitTime() const;
    void HandleEvent(std::uint64_t tag);
    void DrainCamera(CameraId id);
    void DrainBroadcast(unsigned int interfaceIndex);
    void Deliver(Camera& camera, Gvcp::Bytes datagram, const Endpoint& peer, Arrival arrival);
    void Send(const Camera& camera, const Endpoint& peer, const Answer& answer);
    void SendDueAnswers();

    Camera* Find(CameraId id);
    int Open(Camera& camera, bool mayAddAddress);
    void Move(Camera& camera);
    static void LeaveAddress(Camera& camera);
    void FollowAddress(Camera& camera);
    AddResult Attach(Camera& camera, const std::string& interfaceName);
    void Detach(CameraId id);
    int JoinBroadcasts(const Camera& camera);
    void LeaveBroadcasts(const Camera& camera);

    const Options m_options;
    FileDescriptor m_epoll;
    FileDescriptor m_wakeUp;
    std::map<CameraId, Camera> m_cameras;
    std::map<unsigned int, BroadcastSocket> m_broadcastSockets;  ///< by interface index
    std::priority_queue<WaitingAnswer> m_waitingAnswers;
    std::uint64_t m_answerOrder = 0;
    bool m_delivered = false;  ///< a datagram, in this turn of the loop
    CameraId m_lastId = 0;
    std::vector<std::uint8_t> m_buffer;

    Mutex m_mutex;
    ConditionVariable m_changed;
    std::vector<Task*> m_tasks NIMBREL2_GUARDED_BY(m_mutex);
    std::uint64_t m_activity NIMBREL2_GUARDED_BY(m_mutex) = 0;
    bool m_exit NIMBREL2_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

// ---- The thread ----------------------------------------------------------------------------------------------------

SimulatedGigENetwork::Server::Server(Options options) : m_options(std::move(options)), m_buffer(LargestDatagram) {
    m_epoll = FileDescriptor(epoll_create1(EPOLL_CLOEXEC));
    if (!m_epoll.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
    m_wakeUp = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wakeUp.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    const int error = Watch(m_wakeUp.Get(), Source::WakeUp, 0);
    if (error != 0) {
        throw std::system_error(error, std::generic_category(), "epoll_ctl");
    }
    m_thread = StartThread("gige-simulated", [this]() noexcept { Serve(); });
}

SimulatedGigENetwork::Server::~Server() {
    {
        const LockGuard lock(m_mutex);
        m_exit = true;
    }
    WakeUp();
    m_thread.join();
}

void SimulatedGigENetwork::Server::WakeUp() {
    const std::uint64_t one = 1;
    // Full means that the thread is about to wake up anyway.
    (void)!write(m_wakeUp.Get(), &one, sizeof(one));
}

int SimulatedGigENetwork::Server::Watch(int fd, Source source, std::uint64_t number) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = number << 2 | static_cast<std::uint64_t>(source);
    return epoll_ctl(m_epoll.Get(), EPOLL_CTL_ADD, fd, &event) == 0 ? 0 : errno;
}

void SimulatedGigENetwork::Server::Serve() {
    std::array<epoll_event, 64> events;
    for (;;) {
        const int count = epoll_wait(m_epoll.Get(), events.data(), static_cast<int>(events.size()), GetWaitTime());
        for (int i = 0; i < count; ++i) {
            UnlessMemoryRunsOut([&] { HandleEvent(events[static_cast<std::size_t>(i)].data.u64); });
        }
        UnlessMemoryRunsOut([this] { SendDueAnswers(); });
        RunTasks();
        const LockGuard lock(m_mutex);
        if (m_delivered) {
            ++m_activity;
            m_changed.NotifyAll();
        }
        m_delivered = false;
        if (m_exit) {
            break;
        }
    }
    for (auto& [id, camera] : m_cameras) {
        UnlessMemoryRunsOut([&leaving = camera] { LeaveAddress(leaving); });
    }
}

int SimulatedGigENetwork::Server::GetWaitTime() const {
    if (m_waitingAnswers.empty()) {
        return -1;
    }
    const auto left = std::chrono::ceil<milliseconds>(m_waitingAnswers.top().due - Clock::now());
    return static_cast<int>(std::clamp<milliseconds::rep>(left.count(), 0, 60000));
}

void SimulatedGigENetwork::Server::RunTasks() {
    std::vector<Task*> tasks;
    {
        const LockGuard lock(m_mutex);
        tasks.swap(m_tasks);
    }
    for (Task* task : tasks) {
        try {
            (*task->function)();
        } catch (...) {
            task->failure = std::current_exception();
        }
        const LockGuard lock(m_mutex);
        task->done = true;
        m_changed.NotifyAll();
    }
}

void SimulatedGigENetwork::Server::Run(const std::function<void()>& function) {
    Task task{&function, false, nullptr};
    UniqueLock lock(m_mutex);
    m_tasks.push_back(&task);
    WakeUp();
    m_changed.Wait(lock, [&task] { return task.done; });
    if (task.failure) {
        std::rethrow_exception(task.failure);
    }
}

std::uint64_t SimulatedGigENetwork::Server::WaitForActivity(std::uint64_t seen, Clock::time_point deadline) {
    UniqueLock lock(m_mutex);
    m_changed.WaitUntil(lock, std::min(deadline, Clock::now() + LookAgain),
                        [&]() NIMBREL2_REQUIRES(m_mutex) { return m_activity != seen; });
    return m_activity;
}

// ---- Datagrams -----------------------------------------------------------------------------------------------------

void SimulatedGigENetwork::Server::HandleEvent(std::uint64_t tag) {
    const std::uint64_t number = tag >> 2;
    switch (static_cast<Source>(tag & 3)) {
        case Source::WakeUp: {
            std::uint64_t count = 0;
            (void)!read(m_wakeUp.Get(), &count, sizeof(count));
            break;
        }
        case Source::Camera:
            DrainCamera(static_cast<CameraId>(number));
            break;
        case Source::Broadcast:
            DrainBroadcast(static_cast<unsigned int>(number));
            break;
    }
}

void SimulatedGigENetwork::Server::DrainCamera(CameraId id) {
    Camera* camera = Find(id);
    if (camera == nullptr) {
        return;
    }
    std::size_t size = 0;
    Endpoint peer;
    for (int i = 0; i < DatagramsInTurn; ++i) {
        // The socket is looked up anew: a command may have moved the camera.
        if (!camera->socket.IsOpen() || !ReceiveDatagram(camera->socket.Get(), m_buffer, &size, &peer)) {
            return;
        }
        Deliver(*camera, Gvcp::Bytes(m_buffer.data(), size), peer, Arrival::Unicast);
    }
}

void SimulatedGigENetwork::Server::DrainBroadcast(unsigned int interfaceIndex) {
    const auto found = m_broadcastSockets.find(interfaceIndex);
    if (found == m_broadcastSockets.end()) {
        return;
    }
    std::size_t size = 0;
    Endpoint peer;
    for (int i = 0; i < DatagramsInTurn; ++i) {
        if (!ReceiveDatagram(found->second.socket.Get(), m_buffer, &size, &peer)) {
            return;
        }
        for (const CameraId id : found->second.cameras) {
            Deliver(*Find(id), Gvcp::Bytes(m_buffer.data(), size), peer, Arrival::Broadcast);
        }
    }
}

void SimulatedGigENetwork::Server::Deliver(Camera& camera, Gvcp::Bytes datagram, const Endpoint& peer,
                                           Arrival arrival) {
    m_delivered = true;
    const Clock::time_point now = Clock::now();
    const std::vector<Answer> answers = camera.model->Receive(datagram, peer, arrival, now);
    FollowAddress(camera);
    for (const Answer& answer : answers) {
        if (answer.delay.count() == 0) {
            Send(camera, peer, answer);
        } else if (m_waitingAnswers.size() < MostWaitingAnswers) {
            m_waitingAnswers.push({now + answer.delay, ++m_answerOrder, camera.id, peer, answer});
        }
    }
}

void SimulatedGigENetwork::Server::Send(const Camera& camera, const Endpoint& peer, const Answer& answer) {
    if (!camera.socket.IsOpen()) {
        return;
    }
    if (answer.broadcast) {
        SendBroadcast(camera.socket.Get(), camera.interfaceIndex, camera.boundAddress, peer.port,
                      answer.packet.GetBytes());
    } else {
        SendUnicast(camera.socket.Get(), peer, answer.packet.GetBytes());
    }
}

void SimulatedGigENetwork::Server::SendDueAnswers() {
    const Clock::time_point now = Clock::now();
    while (!m_waitingAnswers.empty() && m_waitingAnswers.top().due <= now) {
        const WaitingAnswer& waiting = m_waitingAnswers.top();
        const Camera* camera = Find(waiting.camera);
        if (camera != nullptr && !camera->model->GetFaults().silent) {
            Send(*camera, waiting.peer, waiting.answer);
        }
        m_waitingAnswers.pop();
    }
}

// ---- Cameras and their addresses -----------------------------------------------------------------------------------

SimulatedGigENetwork::Server::Camera* SimulatedGigENetwork::Server::Find(CameraId id) {
    const auto found = m_cameras.find(id);
    return found == m_cameras.end() ? nullptr : &found->second;
}

SimulatedGigENetwork::AddResult SimulatedGigENetwork::Server::AddCamera(const SimulatedCameraOptions& options) {
    const CameraId id = m_lastId + 1;
    AddResult result;
    try {
        Camera& camera = m_cameras[id];
        camera.id = id;
        camera.model = std::make_unique<SimulatedGigECamera>(options, m_options.seed ^ std::uint64_t{id} << 32);
        result = Attach(camera, options.interfaceName);
    } catch (...) {
        Detach(id);
        throw;
    }
    if (result) {
        m_lastId = result.id = id;
    } else {
        Detach(id);
    }
    return result;
}

SimulatedGigENetwork::AddResult SimulatedGigENetwork::Server::Attach(Camera& camera, const std::string& interfaceName) {
    const std::uint32_t address = camera.model->GetAddress();
    camera.interfaceName = interfaceName.empty() ? FindInterfaceOf(address) : interfaceName;
    if (camera.interfaceName.empty()) {
        return {0, EADDRNOTAVAIL, FormatIp(address) + ": no network interface has this address"};
    }
    camera.interfaceIndex = if_nametoindex(camera.interfaceName.c_str());
    if (camera.interfaceIndex == 0) {
        return {0, ENODEV, camera.interfaceName + ": no such network interface"};
    }

    int error = Open(camera, !interfaceName.empty());
    if (error != 0) {
        return {0, error, FormatIp(address) + ": " + ErrorText(error)};
    }
    error = JoinBroadcasts(camera);
    if (error != 0) {
        return {0, error, camera.interfaceName + ": broadcasts cannot be heard: " + ErrorText(error)};
    }
    return {};
}

void SimulatedGigENetwork::Server::Detach(CameraId id) {
    const auto found = m_cameras.find(id);
    if (found == m_cameras.end()) {
        return;
    }
    LeaveBroadcasts(found->second);
    UnlessMemoryRunsOut([&] { LeaveAddress(found->second); });
    m_cameras.erase(found);
}

bool SimulatedGigENetwork::Server::RemoveCamera(CameraId id) {
    if (Find(id) == nullptr) {
        return false;
    }
    Detach(id);
    return true;
}

bool SimulatedGigENetwork::Server::Use(CameraId id, const std::function<void(SimulatedGigECamera&)>& function) {
    Camera* camera = Find(id);
    if (camera == nullptr) {
        return false;
    }
    camera->model->GetRegisters().ExpireControl(Clock::now());
    function(*camera->model);
    FollowAddress(*camera);
    return true;
}

std::string SimulatedGigENetwork::Server::GetProblem(CameraId id) const {
    const auto found = m_cameras.find(id);
    return found == m_cameras.end() ? std::string() : found->second.problem;
}

int SimulatedGigENetwork::Server::Open(Camera& camera, bool mayAddAddress) {
    const std::uint32_t address = camera.model->GetAddress();
    const std::uint32_t mask = camera.model->GetRegisters().GetSubnetMask();
    camera.boundAddress = address;
    camera.boundMask = mask;
    int error = OpenCameraSocket(address, &camera.socket);
    if (error == EADDRNOTAVAIL && mayAddAddress) {
        error = AddInterfaceAddress(camera.interfaceName, address, mask);
        camera.addressAdded = error == 0;
        if (error == 0) {
            error = OpenCameraSocket(address, &camera.socket);
        }
    }
    if (error == 0) {
        error = Watch(camera.socket.Get(), Source::Camera, camera.id);
    }
    if (error != 0) {
        LeaveAddress(camera);
    }
    return error;
}

void SimulatedGigENetwork::Server::LeaveAddress(Camera& camera) {
    camera.socket.Close();
    if (!camera.addressAdded) {
        return;
    }
    // An address that cannot be taken away stays: better than losing others with it.
    (void)RemoveInterfaceAddress(camera.interfaceName, camera.boundAddress, camera.boundMask);
    camera.addressAdded = false;
}

void SimulatedGigENetwork::Server::FollowAddress(Camera& camera) {
    const bool sameMask = camera.model->GetRegisters().GetSubnetMask() == camera.boundMask;
    const bool same = camera.model->GetAddress() == camera.boundAddress && (sameMask || !camera.addressAdded);
    // A camera that could not have its address tries again: whoever stood in its way may be gone.
    if (!same || !camera.problem.empty()) {
        Move(camera);
    }
}

void SimulatedGigENetwork::Server::Move(Camera& camera) {
    LeaveAddress(camera);
    const int error = Open(camera, true);
    if (error == 0) {
        camera.problem.clear();
        return;
    }
    const std::string problem = FormatIp(camera.boundAddress) + " on " + camera.interfaceName + ": " + ErrorText(error);
    if (problem != camera.problem && m_options.report) {
        m_options.report(problem);
    }
    camera.problem = problem;
}

int SimulatedGigENetwork::Server::JoinBroadcasts(const Camera& camera) {
    BroadcastSocket& broadcasts = m_broadcastSockets[camera.interfaceIndex];
    if (!broadcasts.socket.IsOpen()) {
        int error = OpenBroadcastSocket(camera.interfaceName, &broadcasts.socket);
        if (error == 0) {
            error = Watch(broadcasts.socket.Get(), Source::Broadcast, camera.interfaceIndex);
        }
        if (error != 0) {
            m_broadcastSockets.erase(camera.interfaceIndex);
            return error;
        }
    }
    broadcasts.cameras.push_back(camera.id);
    return 0;
}

void SimulatedGigENetwork::Server::LeaveBroadcasts(const Camera& camera) {
    const auto found = m_broadcastSockets.find(camera.interfaceIndex);
    if (found == m_broadcastSockets.end()) {
        return;
    }
    std::erase(found->second.cameras, camera.id);
    if (found->second.cameras.empty()) {
        m_broadcastSockets.erase(found);
    }
}

// ---- The other threads' side ---------------------------------------------------------------------------------------

SimulatedGigENetwork::SimulatedGigENetwork(Options options) : m_server(std::make_unique<Server>(std::move(options))) {}

SimulatedGigENetwork::~SimulatedGigENetwork() = default;

SimulatedGigENetwork::AddResult SimulatedGigENetwork::AddCamera(const SimulatedCameraOptions& options) {
    AddResult result;
    m_server->Run([&] { result = m_server->AddCamera(options); });
    return result;
}

bool SimulatedGigENetwork::RemoveCamera(CameraId id) {
    bool known = false;
    m_server->Run([&] { known = m_server->RemoveCamera(id); });
    return known;
}

bool SimulatedGigENetwork::Use(CameraId id, const std::function<void(SimulatedGigECamera&)>& function) {
    bool known = false;
    m_server->Run([&] { known = m_server->Use(id, function); });
    return known;
}

bool SimulatedGigENetwork::WaitUntil(CameraId id, const std::function<bool(SimulatedGigECamera&)>& condition,
                                     std::chrono::milliseconds timeout) {
    const Clock::time_point deadline = Clock::now() + timeout;
    std::uint64_t seen = 0;
    for (;;) {
        const bool last = Clock::now() >= deadline;
        bool holds = false;
        if (!Use(id, [&](SimulatedGigECamera& camera) { holds = condition(camera); })) {
            return false;
        }
        if (holds || last) {
            return holds;
        }
        seen = m_server->WaitForActivity(seen, deadline);
    }
}

std::string SimulatedGigENetwork::GetProblem(CameraId id) {
    std::string problem;
    m_server->Run([&] { problem = m_server->GetProblem(id); });
    return problem;
}

}  // namespace Nimbrel2::Platform::Simulated
