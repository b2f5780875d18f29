// SPDX-License-Identifier: Apache-2.0
// The bus master in a process that ends, forks or takes signals: programs of their own, looked at from outside. And
// what the kernel says of its threads. The test's thread.
#include <csignal>
#include <sstream>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::HasSubstr;

ProgramResult RunScenario(const std::string& scenario) {
    return RunProgram({NIMBREL_ENDING_PROGRAM, scenario}, std::chrono::seconds(60));
}

// The answers of all operations, by operation.
std::map<std::string, std::string> Answers(const std::string& output) {
    std::map<std::string, std::string> answers;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(": ");
        if (colon != std::string::npos) {
            answers[line.substr(0, colon)] = line.substr(colon + 2);
        }
    }
    return answers;
}

const std::map<std::string, std::string> AnswersInAForkedProcess = {
    {"GetInitialized", "0"},
    {"Initialize", "6 The bus master belongs to the process that this one was forked from."},
    {"EnableVirtualDeviceEnumeration", "0"},
    {"RescanBus", "0"},
    {"WaitUntilQuiet", "0"},
    {"RegisterCallback", "6 Object not initialized."},
    {"UnregisterCallback", "6 Object not initialized."},
    {"GetGeneration", "0"},
    {"GetNumOfCameras", "6 Bus Manager Object not initialized."},
    {"GetNumOfDevices", "6 Bus Manager Object not initialized."},
    {"GetCameraFromIndex", "6 Object not initialized."},
    {"GetDeviceFromIndex", "6 Object not initialized."},
    {"GetCameraSerialNumberFromIndex", "6 Object not initialized."},
    {"GetHwInterfaceFromIndex", "6 Object not initialized."},
    {"GetCameraFromSerialNumber", "6 Object not initialized."},
    {"GetHwInterfaceFromSerialNumber", "6 Object not initialized."},
    {"GetHandleFromGuid", "12 Could not find a device."},
    {"GetHwInterfaceFromGuid", "12 Camera not found with specified guid."},
    {"KeepHwInterface", "12 Camera not found with specified guid."},
    {"GetInterfaceTypeFromGuid", "12 Device with matching ZevoGuid was not found."},
    {"GetCameraFromIPAddress", "12 Device with matching ZevoGuid was not found."},
    {"GetCameraInfo", "12 Camera not found with specified guid."},
    {"FireBusReset", "12 Camera not found with specified guid."},
    {"ReadPhyRegister", "12 Camera not found with specified guid."},
    {"WritePhyRegister", "12 Camera not found with specified guid."},
    {"GetUsbLinkInfo", "12 Camera not found with specified guid."},
    {"GetUsbPortStatus", "12 Camera not found with specified guid."},
    {"GetLinkSpeed", "12 Camera not found with specified guid."},
    {"ForceIPAddressToCamera", "6 Object not initialized."},
    {"ForceAllIPAddressesAutomatically", "6 Object not initialized."},
    {"ForceAllIPAddressesAutomatically of one", "6 Object not initialized."},
    {"DiscoverGigECameras", "6 Object not initialized."},
    {"QueryGigECameraCCPStatus", "17 Unsupported Hardware Interface."},
    {"GetTopology", "6 Object not initialized."},
    // What is tested before anything else is so here, too.
    {"a null handle", "7 Invalid callback handle address."},
    {"a null guid", "7 Invalid guid parameter."},
    {"a null count", "6 Bus Manager Object not initialized."},
};

// ---- The end of the program ----------------------------------------------------------------------------------------

TEST(EndOfTheProgram, IsWaitedForByACallbackThatAsksForTheBusMasterMeanwhile) {
    const ProgramResult result = RunScenario("CallbackAsksWhileTheProgramEnds");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("answer 6\n", result.output);
    EXPECT_EQ("", result.errors);
}

TEST(EndOfTheProgram, IsNotDisturbedByACallbackThatAsksForTheBusMasterAfterItsEnd) {
    const ProgramResult result = RunScenario("CallbackThatWasLeftBehindAsks");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("asleep\n", result.output);
    EXPECT_EQ("", result.errors);
}

TEST(EndOfTheProgram, ThatACallbackBringsAboutDoesNotWaitForThatCallback) {
    const ProgramResult result = RunScenario("ExitInsideACallback");
    EXPECT_EQ(7, result.exitStatus) << result.errors;
    EXPECT_EQ("", result.errors);
}

// ---- Forked processes ----------------------------------------------------------------------------------------------

TEST(ForkedProcess, EndsByExitWhileTheWorkerOfTheFirstHoldsEveryLock) {
    const ProgramResult result = RunScenario("ForkAndExit");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("child 3\nparent 3\n", result.output);
    EXPECT_EQ("", result.errors);
}

TEST(ForkedProcess, RunsAnotherProgram) {
    const ProgramResult result = RunScenario("ForkAndExec");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("child 4\nparent 3\n", result.output);
}

TEST(ForkedProcess, IsAnsweredByEveryOperationWhileTheWorkerOfTheFirstHoldsEveryLock) {
    const ProgramResult result = RunScenario("ForkAndAsk");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ(AnswersInAForkedProcess, Answers(result.output));
    EXPECT_THAT(result.output, HasSubstr("child 5\nparent 3\n"));
}

TEST(ForkedProcess, IsAnsweredAfterItHasAskedForTheDestruction) {
    const ProgramResult result = RunScenario("ForkAndDestroy");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ(AnswersInAForkedProcess, Answers(result.output));
    EXPECT_THAT(result.output, HasSubstr("child 6\nparent 3\n"));
}

TEST(ForkedProcess, MadeInsideACallbackIsAnsweredAndEnds) {
    const ProgramResult result = RunScenario("ForkInsideACallback");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("RegisterCallback: 6 Object not initialized.\nchild 8\n", result.output);
    EXPECT_EQ("", result.errors);
}

TEST(ForkedProcess, DestroysNoObjectOfTheFirst) {
    const ScriptedHal hal;
    {
        BusMaster busMaster;
        ASSERT_TRUE(busMaster.Initialize() == ERROR_OK);
        EXPECT_EQ(0, InForkedProcess([&] {
                      busMaster.~BusMaster();
                      return hal.Count("HAL_CleanupLibrary") == 0 ? 0 : 1;
                  }));
    }
    EXPECT_EQ(1U, hal.Count("HAL_CleanupLibrary"));
}

// ---- Signals and names ---------------------------------------------------------------------------------------------

TEST(Signals, OfAProgramThatReadsThemFromADescriptorAreTakenByNoThreadOfTheBusMaster) {
    const ProgramResult result = RunScenario("ReadsSignals");
    EXPECT_EQ(0, result.exitStatus) << result.errors;
    EXPECT_EQ("signal 15\nsignal 2\nsignal 1\nsignal 10\n", result.output);
}

TEST(Signals, OfAFaultInsideACallbackReachTheHandlerOfTheProgram) {
    const ProgramResult result = RunScenario("FaultInsideACallback");
    EXPECT_EQ(9, result.exitStatus) << result.errors;
}

class ThreadsOfTheBusMaster : public BusMasterFixture {
protected:
    static std::vector<ProcessThread> OwnThreads() { return ListThreads("nimbrel-"); }

    // An ended thread stays in sight for a moment, too.
    static void ExpectThreads(const std::vector<std::string>& names) {
        EXPECT_TRUE(Eventually([&] { return NamesOf(OwnThreads()) == names; }))
            << ::testing::PrintToString(NamesOf(OwnThreads()));
        EXPECT_TRUE(Eventually([] { return WrongMasks(OwnThreads()).empty(); }))
            << ::testing::PrintToString(WrongMasks(OwnThreads()));
    }

    static void Pass(void* gate, unsigned int) { static_cast<Gate*>(gate)->Pass(); }
};

TEST_F(ThreadsOfTheBusMaster, HaveNamesAndTakeNoSignalButThoseOfFaults) {
    hal.AddUsbCamera(21);
    hal.AddUsbCamera(22);
    Start();
    Gate callback;
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Pass, BUS_RESET, &callback, &handle) == ERROR_OK);
    const std::shared_ptr<Gate> listings[] = {hal.Block("HAL_1394GetCameras", 2), hal.Block("HAL_UsbGetCameras", 2),
                                              hal.Block("HAL_GigEGetCameras", 2)};
    RaiseReset();
    ASSERT_TRUE(callback.WaitUntilReached());
    for (const auto& listing : listings) {
        ASSERT_TRUE(listing->WaitUntilReached());
    }
    ExpectThreads({"nimbrel-1394", "nimbrel-call", "nimbrel-gige", "nimbrel-usb", "nimbrel-worker"});
    for (const auto& listing : listings) {
        listing->Open();
    }
    callback.Open();
    ASSERT_TRUE(WaitUntilIdle());

    const auto freeing = hal.Block("HAL_UsbFreeCamera", 0);
    std::thread destroyer = DestroyElsewhere();
    ASSERT_TRUE(freeing->WaitUntilReached(2));
    ExpectThreads({"nimbrel-free", "nimbrel-free"});
    freeing->Open();
    destroyer.join();
}

TEST_F(ThreadsOfTheBusMaster, LeaveTheSignalsOfWhoStartsThemAsTheyWere) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &usr1, &before);
    Start();
    Destroy();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        EXPECT_EQ(number == SIGUSR1 || sigismember(&before, number) == 1, sigismember(&after, number) == 1) << number;
    }
}

}  // namespace
}  // namespace Nimbrel2::Testing
