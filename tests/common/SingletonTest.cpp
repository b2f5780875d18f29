// SPDX-License-Identifier: Apache-2.0
// The one object of a process. Each test has a class of its own, for each can be destroyed but once; what happens at
// exit is looked at from outside, in a child process.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include "common/Posix.h"
#include "common/Singleton.h"
#include "tests/support/Gate.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2 {
namespace {

template <int Number>
class Object : public Singleton<Object<Number>> {
public:
    Object() { ++made; }
    ~Object() override { ++destroyed; }

    static inline std::atomic<int> made{0};
    static inline std::atomic<int> destroyed{0};
};

TEST(Singleton, HasOneVirtualOperationTheDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor_v<Singleton<Object<0>>>);
    EXPECT_EQ(sizeof(void*), sizeof(Object<0>));
}

TEST(Singleton, MakesTheObjectOnFirstUseAndGivesOutTheSameAfterThat) {
    using Subject = Object<1>;
    EXPECT_EQ(0, Subject::made);
    Subject& first = Singleton<Subject>::GetInstance();
    EXPECT_EQ(&first, &Singleton<Subject>::GetInstance());
    EXPECT_EQ(1, Subject::made);
    EXPECT_EQ(0, Subject::destroyed);
}

TEST(Singleton, IsDestroyedOnceHoweverOftenThatIsAskedFor) {
    using Subject = Object<2>;
    Singleton<Subject>::GetInstance();
    Singleton<Subject>::DestroyInstance();
    Singleton<Subject>::DestroyInstance();
    EXPECT_EQ(1, Subject::destroyed);
}

TEST(Singleton, MayBeMadeAfterADestructionThatFoundNone) {
    using Subject = Object<3>;
    Singleton<Subject>::DestroyInstance();
    EXPECT_EQ(0, Subject::destroyed);
    Singleton<Subject>::GetInstance();
    EXPECT_EQ(1, Subject::made);
}

// Its constructor waits until other threads are on their way to it.
class SlowToMake : public Singleton<SlowToMake> {
public:
    SlowToMake() {
        ++made;
        while (callers < 8) {
            std::this_thread::yield();
        }
    }

    static inline std::atomic<int> made{0};
    static inline std::atomic<int> callers{0};
};

TEST(Singleton, IsMadeOnceWhenManyThreadsAreFirst) {
    std::vector<std::thread> threads;
    std::vector<SlowToMake*> seen(8);
    for (auto& place : seen) {
        threads.emplace_back([&place] {
            ++SlowToMake::callers;
            place = &Singleton<SlowToMake>::GetInstance();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, SlowToMake::made);
    EXPECT_EQ(1U, std::set<SlowToMake*>(seen.begin(), seen.end()).size());
}

class ThrowsWhenMade : public Singleton<ThrowsWhenMade> {
public:
    ThrowsWhenMade() {
        if (++attempts == 1) {
            throw std::bad_alloc();
        }
    }
    static inline int attempts = 0;
};

TEST(Singleton, IsTriedAgainWhenMakingItFailed) {
    EXPECT_THROW(Singleton<ThrowsWhenMade>::GetInstance(), std::bad_alloc);
    Singleton<ThrowsWhenMade>::GetInstance();
    EXPECT_EQ(2, ThrowsWhenMade::attempts);
}

// ---- Its end -------------------------------------------------------------------------------------------------------

// Its destructor asks for the object, on its own thread and on another.
class AskedForInItsDestructor : public Singleton<AskedForInItsDestructor> {
public:
    ~AskedForInItsDestructor() override {
        answer = &GetInstance();
        std::thread([] { answerElsewhere = &GetInstance(); }).join();
    }

    static inline AskedForInItsDestructor* answer = nullptr;
    static inline AskedForInItsDestructor* answerElsewhere = nullptr;
};

TEST(Singleton, IsHandedOutUntilItsDestructorHasReturned) {
    AskedForInItsDestructor* const object = &Singleton<AskedForInItsDestructor>::GetInstance();
    Singleton<AskedForInItsDestructor>::DestroyInstance();
    EXPECT_EQ(object, AskedForInItsDestructor::answer);
    EXPECT_EQ(object, AskedForInItsDestructor::answerElsewhere);
}

// ---- Forked processes ----------------------------------------------------------------------------------------------

TEST(SingletonInAForkedProcess, IsTheSameObjectAndIsNotDestroyedThere) {
    using Subject = Object<5>;
    Subject* const object = &Singleton<Subject>::GetInstance();
    EXPECT_EQ(0, Testing::InForkedProcess([object] {
                  Singleton<Subject>::DestroyInstance();
                  const bool isThere = Subject::destroyed == 0 && &Singleton<Subject>::GetInstance() == object;
                  return isThere && Subject::made == 1 ? 0 : 1;
              }));
    Singleton<Subject>::DestroyInstance();
    EXPECT_EQ(1, Subject::destroyed);
}

TEST(SingletonInAForkedProcess, IsMadeThereWhenTheFirstProcessHasNone) {
    using Subject = Object<6>;
    EXPECT_EQ(0, Testing::InForkedProcess([] {
                  Singleton<Subject>::GetInstance();
                  Singleton<Subject>::DestroyInstance();
                  return Subject::made == 1 && Subject::destroyed == 1 ? 0 : 1;
              }));
    EXPECT_EQ(0, Subject::made);
}

// Its constructor waits at a gate, but in a forked process.
class HeldUpWhileMade : public Singleton<HeldUpWhileMade> {
public:
    HeldUpWhileMade() {
        if (CountForks() == 0) {
            gate.Pass();
        }
    }
    static inline Testing::Gate gate;
};

TEST(SingletonInAForkedProcess, IsMadeThereWhenTheFirstProcessWasAboutTo) {
    std::thread maker([] { Singleton<HeldUpWhileMade>::GetInstance(); });
    ASSERT_TRUE(HeldUpWhileMade::gate.WaitUntilReached());
    EXPECT_EQ(0, Testing::InForkedProcess([] {
                  Singleton<HeldUpWhileMade>::GetInstance();
                  return 0;
              }));
    HeldUpWhileMade::gate.Open();
    maker.join();
}

TEST(SingletonInAForkedProcess, EndsItWithAMessageWhenTheFirstProcessHasDestroyedIt) {
    using Subject = Object<7>;
    Singleton<Subject>::GetInstance();
    Singleton<Subject>::DestroyInstance();
    std::thread([] {
        EnterOwnThread("own");  // it blocks in its own process, but this one goes on
        EXPECT_EQ(128 + SIGABRT, Testing::InForkedProcess([] {
                      Singleton<Subject>::GetInstance();
                      return 0;
                  }));
    }).join();
}

using SingletonDeathTest = ::testing::Test;

bool IsAsleep(const std::string& name) {
    const auto threads = Testing::ListThreads();
    return std::any_of(threads.begin(), threads.end(), [&](const Testing::ProcessThread& thread) {
        return thread.name == name && thread.state == 'S';
    });
}

TEST(SingletonDeathTest, MakesAThreadOfTheLibraryWaitForTheEndOfTheProgram) {
    EXPECT_EXIT(
        {
            Singleton<Object<8>>::GetInstance();
            Singleton<Object<8>>::DestroyInstance();
            std::atomic<bool> asks{false};
            std::thread([&asks] {
                EnterOwnThread("left-behind");
                asks = true;
                Singleton<Object<8>>::GetInstance();
                std::_Exit(1);
            }).detach();
            while (!asks || !IsAsleep("left-behind")) {
                std::this_thread::yield();
            }
            std::_Exit(7);
        },
        ::testing::ExitedWithCode(7), "^$");
}

TEST(SingletonDeathTest, EndsTheProgramWhenAskedForAfterItWasDestroyed) {
    EXPECT_DEATH(
        {
            Singleton<Object<4>>::GetInstance();
            Singleton<Object<4>>::DestroyInstance();
            Singleton<Object<4>>::GetInstance();
        },
        "Singleton::GetInstance was called after the object had been destroyed");
}

class SaysWhenDestroyed : public Singleton<SaysWhenDestroyed> {
public:
    ~SaysWhenDestroyed() override { std::fputs("destroyed.", stderr); }
};

TEST(SingletonDeathTest, IsDestroyedOnceAtExit) {
    EXPECT_EXIT(
        {
            Singleton<SaysWhenDestroyed>::GetInstance();
            std::exit(7);
        },
        ::testing::ExitedWithCode(7), "^destroyed\\.$");
}

TEST(SingletonDeathTest, IsNotDestroyedAgainAtExit) {
    EXPECT_EXIT(
        {
            Singleton<SaysWhenDestroyed>::GetInstance();
            Singleton<SaysWhenDestroyed>::DestroyInstance();
            std::exit(7);
        },
        ::testing::ExitedWithCode(7), "^destroyed\\.$");
}

TEST(SingletonDeathTest, CanBeDestroyedAtExitByAnExitHandlerThatCameFirst) {
    EXPECT_EXIT(
        {
            std::atexit([] { Singleton<SaysWhenDestroyed>::DestroyInstance(); });
            Singleton<SaysWhenDestroyed>::GetInstance();
            std::exit(7);
        },
        ::testing::ExitedWithCode(7), "^destroyed\\.$");
}

}  // namespace
}  // namespace Nimbrel2
