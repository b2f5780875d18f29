// SPDX-License-Identifier: Apache-2.0
// The registry of callbacks and the threads that call them: checks in their order, one call at a time, registrations
// that come and go under calls, and callbacks that use the bus master themselves.
#include <algorithm>
#include <atomic>
#include <future>
#include <set>
#include <stdexcept>

#include "tests/busmaster/CoreFixture.h"
#include "tests/support/AllocationFailure.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2 {
namespace {

using Testing::AllocationFailure;
using Testing::Gate;
using Testing::ThreadStartFailure;
using CallbackList = std::list<Access::CallbackData*>;

// Records the calls of callbacks. Any thread.
class Calls {
public:
    struct Call {
        unsigned int parameter;
        std::thread::id thread;
    };

    // To be registered with a Calls object as its data.
    static void Record(void* data, unsigned int parameter) {
        auto* const calls = static_cast<Calls*>(data);
        const std::lock_guard<std::mutex> lock(calls->m_mutex);
        calls->m_calls.push_back({parameter, std::this_thread::get_id()});
        calls->m_changed.notify_all();
    }

    bool WaitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, Testing::TestDeadline, [&] { return m_calls.size() >= count; });
    }

    std::vector<Call> Get() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    std::size_t Count() { return Get().size(); }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Call> m_calls;
};

class CallbacksTest : public CoreTest {
protected:
    CallbacksTest() { bm.SetInitialized(true); }

    ~CallbacksTest() override {
        EXPECT_TRUE(AllThreadsEnd());
        Testing::ExpectLocksFree(bm.object);
    }

    // A signalling thread holds a share of the members until its end.
    bool AllThreadsEnd() {
        const boost::shared_ptr<Access::Members> share = Access::Share(bm.object);
        const auto deadline = std::chrono::steady_clock::now() + Testing::TestDeadline;
        while (share.use_count() > UsualShares && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return share.use_count() == UsualShares;
    }

    void* Register(BusCallbackType type, void (*function)(void*, unsigned int), void* data) {
        void* handle = nullptr;
        ExpectOk(bm.object.RegisterCallback(function, type, data, &handle));
        EXPECT_NE(nullptr, handle);
        return handle;
    }

    // As the worker does it.
    Error Signal(CallbackList& list, unsigned int parameter) {
        const boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);
        return Access::SignalCallbacks(bm.object, list, parameter);
    }

    CallbackList& Resets() { return bm.members().m_busResetCallbacks; }
    CallbackList& Arrivals() { return bm.members().m_arrivalCallbacks; }
    CallbackList& Removals() { return bm.members().m_removalCallbacks; }
    std::set<Access::CallbackData*>& Set() { return bm.members().m_callbackSet; }

    // Every record of the three lists is in the set, and nothing else.
    void ExpectConsistent(std::size_t registrations) {
        std::set<Access::CallbackData*> listed;
        for (const CallbackList* list : {&Resets(), &Arrivals(), &Removals()}) {
            listed.insert(list->begin(), list->end());
        }
        EXPECT_EQ(listed, Set());
        EXPECT_EQ(registrations, Resets().size() + Arrivals().size() + Removals().size());
    }

    // The object's, the one by which the HAL's events find it, and that of who asks.
    static constexpr long UsualShares = 3;

    BusMasterByHand bm;
    Calls calls;
};

void DoNothing(void*, unsigned int) {}

// ---- Registering ---------------------------------------------------------------------------------------------------

TEST(BusCallbackType, KeepsItsNumbers) {
    EXPECT_EQ(0U, BUS_RESET);
    EXPECT_EQ(1U, ARRIVAL);
    EXPECT_EQ(2U, REMOVAL);
}

TEST_F(CallbacksTest, AreKeptInTheListOfTheirKindAndInTheSet) {
    int data = 0;
    void* const reset = Register(BUS_RESET, &DoNothing, &data);
    void* const arrival = Register(ARRIVAL, &DoNothing, &data);
    void* const removal = Register(REMOVAL, &DoNothing, &data);
    void* const second = Register(ARRIVAL, &DoNothing, &data);
    EXPECT_EQ(reset, Resets().front());
    EXPECT_EQ(removal, Removals().front());
    EXPECT_EQ((std::vector<void*>{arrival, second}), std::vector<void*>(Arrivals().begin(), Arrivals().end()));
    EXPECT_EQ(&DoNothing, Resets().front()->fn);
    EXPECT_EQ(&data, Resets().front()->data);
    EXPECT_NE(arrival, second);
    ExpectConsistent(4);
}

TEST_F(CallbacksTest, AreRefusedWithANullHandleBeforeAnythingElseIsLookedAt) {
    for (const bool initialized : {false, true}) {
        bm.SetInitialized(initialized);
        ExpectError(bm.object.RegisterCallback(&DoNothing, static_cast<BusCallbackType>(9), nullptr, nullptr),
                    ERROR_INVALID_PARAMETER, "Invalid callback handle address.");
    }
    ExpectConsistent(0);
}

TEST_F(CallbacksTest, AreRefusedBeforeStartUpWhateverTheirKind) {
    bm.SetInitialized(false);
    void* handle = &handle;
    ExpectError(bm.object.RegisterCallback(&DoNothing, BUS_RESET, nullptr, &handle), ERROR_NOT_INITIALIZED,
                "Object not initialized.");
    ExpectError(bm.object.RegisterCallback(&DoNothing, static_cast<BusCallbackType>(3), nullptr, &handle),
                ERROR_NOT_INITIALIZED, "Object not initialized.");
    EXPECT_EQ(&handle, handle);
    ExpectConsistent(0);
}

TEST_F(CallbacksTest, OfAnUnknownKindAreRefused) {
    void* handle = &handle;
    for (const std::uint32_t type : {3U, 0xFFFFFFFFU}) {
        ExpectError(bm.object.RegisterCallback(&DoNothing, static_cast<BusCallbackType>(type), nullptr, &handle),
                    ERROR_INVALID_PARAMETER, "Invalid callback type.");
    }
    EXPECT_EQ(&handle, handle);
    ExpectConsistent(0);
}

TEST_F(CallbacksTest, LeaveTheRegistryAsItWasWhenThereIsNoMemory) {
    Register(ARRIVAL, &DoNothing, nullptr);
    for (std::uint64_t nth = 1;; ++nth) {
        void* handle = &handle;
        Error error;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            error = bm.object.RegisterCallback(&DoNothing, ARRIVAL, nullptr, &handle);
            happened = failure.Happened();
        }
        Testing::ExpectLocksFree(bm.object);
        if (!happened) {
            ExpectOk(error);
            EXPECT_GE(nth, 4U);  // the record, its place in the list and its place in the set
            break;
        }
        EXPECT_TRUE(error == ERROR_MEMORY_ALLOCATION_FAILED);
        EXPECT_EQ(&handle, handle);
        ExpectConsistent(1);
    }
    ExpectConsistent(2);
}

// ---- Unregistering -------------------------------------------------------------------------------------------------

TEST_F(CallbacksTest, GoFromTheirListAndTheSetWhenUnregistered) {
    for (const BusCallbackType type : {BUS_RESET, ARRIVAL, REMOVAL}) {
        void* const first = Register(type, &DoNothing, nullptr);
        void* const second = Register(type, &DoNothing, nullptr);
        ExpectOk(bm.object.UnregisterCallback(first));
        ExpectConsistent(1);
        ExpectOk(bm.object.UnregisterCallback(second));
        ExpectConsistent(0);
    }
}

TEST_F(CallbacksTest, AreNotUnregisteredBeforeStartUp) {
    void* const handle = Register(BUS_RESET, &DoNothing, nullptr);
    bm.SetInitialized(false);
    ExpectError(bm.object.UnregisterCallback(handle), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.UnregisterCallback(nullptr), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectConsistent(1);
}

TEST_F(CallbacksTest, AreNotUnregisteredByABadHandle) {
    void* const handle = Register(BUS_RESET, &DoNothing, nullptr);
    BusMasterByHand other;
    other.SetInitialized(true);
    void* foreign = nullptr;
    ExpectOk(other.object.RegisterCallback(&DoNothing, BUS_RESET, nullptr, &foreign));
    char noRecord = 0;
    for (void* const bad :
         {static_cast<void*>(nullptr), static_cast<void*>(&noRecord), reinterpret_cast<void*>(8), foreign}) {
        ExpectError(bm.object.UnregisterCallback(bad), ERROR_INVALID_PARAMETER, "Invalid callback handle.");
        Testing::ExpectLocksFree(bm.object);
    }
    ExpectConsistent(1);
    ExpectOk(bm.object.UnregisterCallback(handle));
    ExpectError(bm.object.UnregisterCallback(handle), ERROR_INVALID_PARAMETER, "Invalid callback handle.");
    Testing::ExpectLocksFree(bm.object);
}

TEST_F(CallbacksTest, NeedNoMemoryToBeUnregistered) {
    void* const handle = Register(BUS_RESET, &DoNothing, nullptr);
    const AllocationFailure failure(1);
    EXPECT_TRUE(bm.object.UnregisterCallback(handle) == ERROR_OK);
    EXPECT_FALSE(failure.Happened());
}

TEST_F(CallbacksTest, AreFreedWithTheBusMaster) {
    for (const BusCallbackType type : {BUS_RESET, ARRIVAL, REMOVAL}) {
        Register(type, &DoNothing, nullptr);
    }
    // The destructor of the fixture does it; the sanitizers see that nothing is left.
    ExpectConsistent(3);
}

// ---- Signalling ----------------------------------------------------------------------------------------------------

TEST_F(CallbacksTest, AreCalledOnceEachWithTheirDataAndTheParameter) {
    Calls others;
    Register(ARRIVAL, &Calls::Record, &calls);
    Register(ARRIVAL, &Calls::Record, &calls);
    Register(REMOVAL, &Calls::Record, &others);
    ExpectOk(Signal(Arrivals(), 0xCAFE));
    ASSERT_TRUE(calls.WaitFor(2));
    ASSERT_TRUE(AllThreadsEnd());
    const std::vector<Calls::Call> made = calls.Get();
    ASSERT_EQ(2U, made.size());
    EXPECT_EQ(0xCAFEU, made[0].parameter);
    EXPECT_EQ(0xCAFEU, made[1].parameter);
    EXPECT_NE(std::this_thread::get_id(), made[0].thread);
    EXPECT_EQ(0U, others.Count());
}

TEST_F(CallbacksTest, AreEachCalledOnAThreadOfTheirOwn) {
    const ThreadStartFailure counter(0);
    for (int i = 0; i < 5; ++i) {
        Register(BUS_RESET, &Calls::Record, &calls);
    }
    ExpectOk(Signal(Resets(), 0));
    EXPECT_EQ(5U, counter.Count());
    EXPECT_TRUE(calls.WaitFor(5));
}

TEST_F(CallbacksTest, OfAnEmptyListNeedNoThread) {
    const ThreadStartFailure counter(0);
    ExpectOk(Signal(Resets(), 0));
    EXPECT_EQ(0U, counter.Count());
}

TEST_F(CallbacksTest, AreNotSignalledBeforeStartUp) {
    Register(BUS_RESET, &Calls::Record, &calls);
    bm.SetInitialized(false);
    ExpectError(Signal(Resets(), 0), ERROR_NOT_INITIALIZED, "Failed to get initialization status");
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_EQ(0U, calls.Count());
}

TEST_F(CallbacksTest, WithoutAFunctionAreAcceptedAndSkipped) {
    Register(BUS_RESET, nullptr, nullptr);
    Register(BUS_RESET, &Calls::Record, &calls);
    ExpectOk(Signal(Resets(), 0));
    EXPECT_TRUE(calls.WaitFor(1));
}

// Waits at a gate in the callback.
struct Blocking {
    Gate gate;
    std::atomic<int> running{0};
    std::atomic<int> most{0};
    std::atomic<int> ended{0};

    static void Run(void* data, unsigned int) {
        auto* const self = static_cast<Blocking*>(data);
        const int running = ++self->running;
        self->most = std::max(self->most.load(), running);
        self->gate.Pass();
        --self->running;
        ++self->ended;
    }
};

TEST_F(CallbacksTest, AreNotWaitedForByWhoSignals) {
    Blocking blocking;
    Register(BUS_RESET, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));  // returns although the callback cannot end
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    ExpectOk(Signal(Resets(), 0));
    blocking.gate.Open();
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_EQ(2, blocking.ended);
}

TEST_F(CallbacksTest, RunOneAtATimeWhateverTheirKind) {
    Blocking blocking;
    Register(BUS_RESET, &Blocking::Run, &blocking);
    Register(BUS_RESET, &Blocking::Run, &blocking);
    Register(ARRIVAL, &Blocking::Run, &blocking);
    Register(REMOVAL, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));
    ExpectOk(Signal(Arrivals(), 1));
    ExpectOk(Signal(Removals(), 1));
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    EXPECT_FALSE(bm.members().m_callbackMutex.try_lock());
    EXPECT_EQ(1U, blocking.gate.Reached());
    blocking.gate.Open();
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_EQ(4, blocking.ended);
    EXPECT_EQ(1, blocking.most);
}

TEST_F(CallbacksTest, RunOneAtATimeInALongRow) {
    struct Counting {
        std::atomic<int> running{0};
        std::atomic<int> overlaps{0};
        std::atomic<int> ended{0};
        static void Run(void* data, unsigned int) {
            auto* const self = static_cast<Counting*>(data);
            self->overlaps += ++self->running > 1 ? 1 : 0;
            std::this_thread::yield();
            --self->running;
            ++self->ended;
        }
    } counting;
    Register(BUS_RESET, &Counting::Run, &counting);
    Register(BUS_RESET, &Counting::Run, &counting);
    for (int i = 0; i < 50; ++i) {
        ExpectOk(Signal(Resets(), 0));
    }
    EXPECT_TRUE(AllThreadsEnd());
    EXPECT_EQ(0, counting.overlaps);
    EXPECT_EQ(100, counting.ended);
}

TEST_F(CallbacksTest, ThatThrowAreTracedAndHarmless) {
    Register(
        BUS_RESET, [](void*, unsigned int) { throw std::runtime_error("user"); }, nullptr);
    Register(
        BUS_RESET, [](void*, unsigned int) { throw 42; }, nullptr);
    Register(ARRIVAL, &Calls::Record, &calls);
    ExpectOk(Signal(Resets(), 0));
    EXPECT_TRUE(traces.WaitFor("A user callback threw an exception.", 2));
    EXPECT_TRUE(AllThreadsEnd());
    ExpectOk(Signal(Arrivals(), 1));
    EXPECT_TRUE(calls.WaitFor(1));
    ExpectConsistent(3);
}

TEST_F(CallbacksTest, BeforeTheThreadThatCannotBeMadeAreCalled) {
    for (int i = 0; i < 3; ++i) {
        Register(BUS_RESET, &Calls::Record, &calls);
    }
    std::size_t expected = 0;
    for (unsigned int nth = 1; nth <= 3; ++nth) {
        {
            const ThreadStartFailure failure(nth);
            ExpectError(Signal(Resets(), 0), ERROR_LOW_LEVEL_FAILURE,
                        "Could not start a callback thread. System error: 11.");
            EXPECT_EQ(nth, failure.Count());
        }
        EXPECT_TRUE(AllThreadsEnd());
        expected += nth - 1;
        EXPECT_EQ(expected, calls.Count());
        Testing::ExpectLocksFree(bm.object);
    }
    {
        const ThreadStartFailure failure(1, ThreadStartFailure::Kind::BadAlloc);
        EXPECT_TRUE(Signal(Resets(), 0) == ERROR_MEMORY_ALLOCATION_FAILED);
    }
    {
        const ThreadStartFailure failure(1, ThreadStartFailure::Kind::Foreign);
        EXPECT_TRUE(Signal(Resets(), 0) == ERROR_LOW_LEVEL_FAILURE);
    }
    ExpectConsistent(3);
}

TEST_F(CallbacksTest, AreCalledOrNotButNeverTwiceWhicheverAllocationFails) {
    Register(BUS_RESET, &Calls::Record, &calls);
    Register(BUS_RESET, &Calls::Record, &calls);
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        const std::size_t before = calls.Count();
        Error error;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            error = Signal(Resets(), 0);
            happened = failure.Happened();
        }
        EXPECT_TRUE(AllThreadsEnd());
        const std::size_t made = calls.Count() - before;
        if (error != ERROR_OK) {
            EXPECT_TRUE(error == ERROR_MEMORY_ALLOCATION_FAILED);
            EXPECT_LT(made, 2U);
        } else {
            EXPECT_EQ(2U, made);
        }
        ExpectConsistent(2);
        if (!happened) {
            EXPECT_TRUE(error == ERROR_OK);
            break;
        }
    }
}

// ---- Registrations that go under a call ----------------------------------------------------------------------------

// What the thread of a signal gets; the thread frees it.
Access::CallbackThreadData* Signalled(void* handle, unsigned int parameter) {
    auto data = std::make_unique<Access::CallbackThreadData>();
    data->callback = static_cast<Access::CallbackData*>(handle);
    data->parameter = parameter;
    data->number = data->callback->number;
    return data.release();
}

TEST_F(CallbacksTest, AreCalledByTheThreadOfTheirSignal) {
    void* const handle = Register(BUS_RESET, &Calls::Record, &calls);
    EXPECT_EQ(nullptr, Access::SignalCallbackThread(Signalled(handle, 7), Set(), bm.members().m_callbackMutex));
    ASSERT_EQ(1U, calls.Count());
    EXPECT_EQ(7U, calls.Get()[0].parameter);
    EXPECT_EQ(std::this_thread::get_id(), calls.Get()[0].thread);
}

TEST_F(CallbacksTest, UnregisteredBeforeTheirThreadRunsAreNeitherCalledNorRead) {
    void* const handle = Register(BUS_RESET, &Calls::Record, &calls);
    Access::CallbackThreadData* const data = Signalled(handle, 0);
    ExpectOk(bm.object.UnregisterCallback(handle));
    // The record is freed memory now.
    EXPECT_EQ(nullptr, Access::SignalCallbackThread(data, Set(), bm.members().m_callbackMutex));
    EXPECT_EQ(0U, calls.Count());
}

TEST_F(CallbacksTest, RegisteredAfterTheSignalAreNotCalledInThePlaceOfAnEarlierOne) {
    void* const handle = Register(BUS_RESET, &Calls::Record, &calls);
    Access::CallbackThreadData* const data = Signalled(handle, 0);
    // As if the earlier record had been freed and this one had got its memory.
    --data->number;
    EXPECT_EQ(nullptr, Access::SignalCallbackThread(data, Set(), bm.members().m_callbackMutex));
    EXPECT_EQ(0U, calls.Count());
}

TEST_F(CallbacksTest, HaveNumbersThatAreNeverUsedTwice) {
    std::set<std::uint64_t> numbers;
    for (int i = 0; i < 10; ++i) {
        void* const handle = Register(BUS_RESET, &DoNothing, nullptr);
        EXPECT_TRUE(numbers.insert(static_cast<Access::CallbackData*>(handle)->number).second);
        ExpectOk(bm.object.UnregisterCallback(handle));
    }
}

// A signal is on its way when its callback is unregistered: the callback before it still runs and holds its thread up.
TEST_F(CallbacksTest, UnregisteredWhileTheirThreadWaitsAreNotCalledAfterThat) {
    for (int round = 0; round < 20; ++round) {
        Blocking blocking;
        Calls signalled;
        void* const first = Register(BUS_RESET, &Blocking::Run, &blocking);
        void* const second = Register(ARRIVAL, &Calls::Record, &signalled);
        ExpectOk(Signal(Resets(), 0));
        ASSERT_TRUE(blocking.gate.WaitUntilReached());
        ExpectOk(Signal(Arrivals(), 0));
        std::future<std::size_t> callsAtReturn = std::async(std::launch::async, [&] {
            ExpectOk(bm.object.UnregisterCallback(second));
            return signalled.Count();  // called before, or never
        });
        blocking.gate.Open();
        const std::size_t atReturn = callsAtReturn.get();
        EXPECT_TRUE(AllThreadsEnd());
        EXPECT_EQ(atReturn, signalled.Count());
        ExpectOk(bm.object.UnregisterCallback(first));
    }
}

TEST_F(CallbacksTest, AreWaitedForByWhoUnregistersThem) {
    Blocking blocking;
    void* const handle = Register(BUS_RESET, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    std::future<int> endedAtReturn = std::async(std::launch::async, [&] {
        ExpectOk(bm.object.UnregisterCallback(handle));
        return blocking.ended.load();
    });
    EXPECT_EQ(std::future_status::timeout, endedAtReturn.wait_for(std::chrono::milliseconds(20)));
    // Who waits for a callback holds no lock that a look-up wants.
    unsigned int count = 0;
    ExpectOk(bm.object.GetNumOfCameras(&count));
    blocking.gate.Open();
    EXPECT_EQ(1, endedAtReturn.get());
    ExpectConsistent(0);
}

TEST_F(CallbacksTest, AreWaitedForByWhoRegistersAnother) {
    Blocking blocking;
    Register(BUS_RESET, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    std::future<int> endedAtReturn = std::async(std::launch::async, [&] {
        Register(ARRIVAL, &DoNothing, nullptr);
        return blocking.ended.load();
    });
    EXPECT_EQ(std::future_status::timeout, endedAtReturn.wait_for(std::chrono::milliseconds(20)));
    blocking.gate.Open();
    EXPECT_EQ(1, endedAtReturn.get());
    ExpectConsistent(2);
}

TEST_F(CallbacksTest, AreCheckedAgainByWhoHadToWaitForOne) {
    Blocking blocking;
    void* const handle = Register(BUS_RESET, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    std::future<Error> registered = std::async(std::launch::async, [&] {
        void* unused = nullptr;
        return bm.object.RegisterCallback(&DoNothing, ARRIVAL, nullptr, &unused);
    });
    std::future<Error> unregistered =
        std::async(std::launch::async, [&] { return bm.object.UnregisterCallback(handle); });
    EXPECT_EQ(std::future_status::timeout, registered.wait_for(std::chrono::milliseconds(20)));
    EXPECT_EQ(std::future_status::timeout, unregistered.wait_for(std::chrono::milliseconds(20)));
    bm.SetInitialized(false);
    blocking.gate.Open();
    ExpectError(registered.get(), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(unregistered.get(), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectConsistent(1);
}

TEST_F(CallbacksTest, ThatBadArgumentsNameAreNotWaitedFor) {
    Blocking blocking;
    Register(BUS_RESET, &Blocking::Run, &blocking);
    ExpectOk(Signal(Resets(), 0));
    ASSERT_TRUE(blocking.gate.WaitUntilReached());
    ExpectError(bm.object.RegisterCallback(&DoNothing, ARRIVAL, nullptr, nullptr), ERROR_INVALID_PARAMETER,
                "Invalid callback handle address.");
    ExpectError(bm.object.UnregisterCallback(nullptr), ERROR_INVALID_PARAMETER, "Invalid callback handle.");
    blocking.gate.Open();
    EXPECT_TRUE(AllThreadsEnd());
}

// ---- Callbacks that use the bus master -----------------------------------------------------------------------------

struct Inside {
    BusMaster* busMaster = nullptr;
    void* ownHandle = nullptr;
    std::vector<Error> answers;
    Gate done;

    static void Run(void* data, unsigned int) {
        auto* const self = static_cast<Inside*>(data);
        void* handle = nullptr;
        self->answers.push_back(self->busMaster->RegisterCallback(&DoNothing, ARRIVAL, nullptr, &handle));
        self->answers.push_back(self->busMaster->RegisterCallback(&DoNothing, ARRIVAL, nullptr, nullptr));
        self->answers.push_back(self->busMaster->UnregisterCallback(self->ownHandle));
        self->answers.push_back(self->busMaster->UnregisterCallback(nullptr));
        self->done.Open();
        self->done.Pass();
    }
};

TEST_F(CallbacksTest, CannotRegisterOrUnregisterAndAreToldSoAtOnce) {
    Inside inside;
    inside.busMaster = &bm.object;
    inside.ownHandle = Register(BUS_RESET, &Inside::Run, &inside);
    {
        // Not even with the main lock taken do they wait.
        const boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);
        ExpectOk(Access::SignalCallbacks(bm.object, Resets(), 0));
        ASSERT_TRUE(inside.done.WaitUntilReached());
    }
    EXPECT_TRUE(AllThreadsEnd());
    ASSERT_EQ(4U, inside.answers.size());
    for (const Error& answer : inside.answers) {
        ExpectError(answer, ERROR_LOW_LEVEL_FAILURE,
                    "Callbacks cannot be registered or unregistered from inside a callback. System error: 35.");
    }
    ExpectConsistent(1);
}

TEST_F(CallbacksTest, MayRegisterWithAnotherBusMaster) {
    BusMasterByHand other;
    other.SetInitialized(true);
    struct Across {
        BusMaster* busMaster;
        Error answer;
        static void Run(void* data, unsigned int) {
            auto* const self = static_cast<Across*>(data);
            void* handle = nullptr;
            self->answer = self->busMaster->RegisterCallback(&DoNothing, ARRIVAL, nullptr, &handle);
        }
    } across{&other.object, InternalError(ERROR_FAILED)};
    Register(BUS_RESET, &Across::Run, &across);
    ExpectOk(Signal(Resets(), 0));
    EXPECT_TRUE(AllThreadsEnd());
    ExpectOk(across.answer);
    EXPECT_EQ(1U, other.members().m_arrivalCallbacks.size());
}

// Calls every look-up there is.
void LookAround(BusMaster& busMaster) {
    unsigned int number = 0;
    ZevoGuid guid;
    HardwareInterface* hw = nullptr;
    InterfaceType type = INTERFACE_NONE;
    CameraInfo info;
    (void)busMaster.GetNumOfCameras(&number);
    (void)busMaster.GetNumOfDevices(&number);
    (void)busMaster.GetCameraFromIndex(0, &guid);
    (void)busMaster.GetDeviceFromIndex(0, &guid);
    (void)busMaster.GetCameraSerialNumberFromIndex(0, &number);
    (void)busMaster.GetHwInterfaceFromIndex(0, &hw);
    (void)busMaster.GetCameraFromSerialNumber(1, &guid);
    (void)busMaster.GetHwInterfaceFromSerialNumber(1, &hw);
    (void)busMaster.GetHwInterfaceFromGuid(guid, &hw);
    (void)busMaster.GetInterfaceTypeFromGuid(guid, &type);
    (void)busMaster.GetCameraFromIPAddress(IPAddress{{1, 2, 3, 4}}, &guid);
    (void)busMaster.GetCameraInfo(guid, &info);
    (void)busMaster.GetInitialized();
    (void)busMaster.GetGeneration(1);
}

struct Looking {
    BusMaster* busMaster;
    std::atomic<int> calls{0};

    static void Run(void* data, unsigned int) {
        auto* const self = static_cast<Looking*>(data);
        LookAround(*self->busMaster);
        ++self->calls;
    }
};

// A callback holds the callbacks' mutex and wants the main lock; who registers holds the main lock and wants the
// callbacks' mutex. Taken plainly, the first such meeting would be the last.
TEST_F(CallbacksTest, MayLookUpWhileOthersRegisterAndUnregister) {
    hal.AddGigECamera(1, 0x01020304);
    ExpectOk(Access::GetCameras(bm.object, bm.cameras()));
    Looking looking{&bm.object};
    Register(BUS_RESET, &Looking::Run, &looking);
    std::atomic<bool> stop{false};
    std::vector<std::future<int>> registrars;
    for (int i = 0; i < 2; ++i) {
        registrars.push_back(std::async(std::launch::async, [&] {
            int rounds = 0;
            while (!stop) {
                void* handle = nullptr;
                ExpectOk(bm.object.RegisterCallback(&Looking::Run, ARRIVAL, &looking, &handle));
                ExpectOk(bm.object.UnregisterCallback(handle));
                ++rounds;
            }
            return rounds;
        }));
    }
    for (int i = 0; i < 150; ++i) {
        ExpectOk(Signal(Resets(), 0));
        ExpectOk(Signal(Arrivals(), 1));
    }
    EXPECT_TRUE(AllThreadsEnd());
    stop = true;
    for (std::future<int>& registrar : registrars) {
        ASSERT_EQ(std::future_status::ready, registrar.wait_for(Testing::TestDeadline));
        EXPECT_GT(registrar.get(), 0);
    }
    EXPECT_GE(looking.calls, 150);
    ExpectConsistent(1);
}

// The same with a worker that enumerates: bus resets come in while callbacks look around and registrations change.
TEST(RunningCallbacks, LookUpUnderBusResetsWhileOthersRegisterAndUnregister) {
    Testing::ScriptedHal hal;
    const auto comesAndGoes = hal.AddUsbCamera(7);
    hal.AddGigECamera(1, 0x01020304);
    {
        BusMaster busMaster;
        ExpectOk(busMaster.Initialize());
        Looking looking{&busMaster};
        std::vector<void*> handles(3);
        ExpectOk(busMaster.RegisterCallback(&Looking::Run, BUS_RESET, &looking, &handles[0]));
        ExpectOk(busMaster.RegisterCallback(&Looking::Run, ARRIVAL, &looking, &handles[1]));
        ExpectOk(busMaster.RegisterCallback(&Looking::Run, REMOVAL, &looking, &handles[2]));
        std::atomic<bool> stop{false};
        std::future<void> registrar = std::async(std::launch::async, [&] {
            while (!stop) {
                void* handle = nullptr;
                ExpectOk(busMaster.RegisterCallback(&Looking::Run, BUS_RESET, &looking, &handle));
                ExpectOk(busMaster.UnregisterCallback(handle));
            }
        });
        // Resets that come together are handled together, so they come until there were enough calls.
        const auto deadline = std::chrono::steady_clock::now() + Testing::TestDeadline;
        for (bool attached = true; looking.calls < 30 && std::chrono::steady_clock::now() < deadline;
             attached = !attached) {
            if (attached) {
                hal.Detach(comesAndGoes);
            } else {
                hal.Attach(comesAndGoes);
            }
            EXPECT_EQ(1U, hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB));
            LookAround(busMaster);
        }
        EXPECT_GE(looking.calls, 30);
        stop = true;
        EXPECT_EQ(std::future_status::ready, registrar.wait_for(Testing::TestDeadline));
        for (void* handle : handles) {
            ExpectOk(busMaster.UnregisterCallback(handle));  // looking goes before the bus master does
        }
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

// ---- FreeCallbackList ----------------------------------------------------------------------------------------------

class FreeCallbackListTest : public ::testing::Test {
protected:
    ~FreeCallbackListTest() override { GetDeadlines() = Deadlines(); }

    Access::CallbackData* Add(CallbackList& to) {
        auto* const record = new Access::CallbackData;
        to.push_back(record);
        live.insert(record);
        return record;
    }

    CallbackList list;
    std::set<Access::CallbackData*> live;
    boost::mutex mutex;
};

TEST_F(FreeCallbackListTest, IgnoresANullList) { EXPECT_TRUE(Access::FreeCallbackList(nullptr, live, mutex)); }

TEST_F(FreeCallbackListTest, FreesItsRecordsAndLeavesThoseOfOtherLists) {
    CallbackList others;
    Access::CallbackData* const other = Add(others);
    Add(list);
    Add(list);
    EXPECT_TRUE(Access::FreeCallbackList(&list, live, mutex));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ((std::set<Access::CallbackData*>{other}), live);
    EXPECT_TRUE(Testing::AnotherThreadCanLock(mutex));
    EXPECT_TRUE(Access::FreeCallbackList(&others, live, mutex));
    EXPECT_TRUE(live.empty());
}

TEST_F(FreeCallbackListTest, LeavesEverythingToACallbackThatDoesNotEnd) {
    GetDeadlines().lockAtDestruction = boost::posix_time::milliseconds(10);
    Add(list);
    {
        const boost::unique_lock<boost::mutex> running(mutex);
        EXPECT_FALSE(Access::FreeCallbackList(&list, live, mutex));
        EXPECT_EQ(1U, list.size());
        EXPECT_EQ(1U, live.size());
    }
    EXPECT_TRUE(Access::FreeCallbackList(&list, live, mutex));
}

}  // namespace
}  // namespace Nimbrel2
