// SPDX-License-Identifier: Apache-2.0
// Errors: the forms of the builder, the comparisons, the chain of causes.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "common/Error.h"
#include "common/InternalError.h"

namespace Nimbrel2 {
namespace {

Error Located(ErrorType type, const char* message) {
    return InternalError(42, "BusMaster.cpp", "Jan  2 2026", "03:04:05", type, "%s", message);
}

TEST(ErrorType, KeepsItsNumbers) {
    EXPECT_EQ(0, ERROR_OK);
    EXPECT_EQ(1, ERROR_FAILED);
    EXPECT_EQ(2, ERROR_NOT_IMPLEMENTED);
    EXPECT_EQ(5, ERROR_INIT_TIMED_OUT);
    EXPECT_EQ(6, ERROR_NOT_INITIALIZED);
    EXPECT_EQ(7, ERROR_INVALID_PARAMETER);
    EXPECT_EQ(10, ERROR_MEMORY_ALLOCATION_FAILED);
    EXPECT_EQ(11, ERROR_LOW_LEVEL_FAILURE);
    EXPECT_EQ(12, ERROR_NOT_FOUND);
    EXPECT_EQ(13, ERROR_GUID_GENERATION_FAILED);
    EXPECT_EQ(17, ERROR_UNSUPPORTED_INTERFACE);
    EXPECT_EQ(18, ERROR_TIMEOUT);
    EXPECT_EQ(28, ERROR_REGISTER_FAILED);
    EXPECT_EQ(40, ERROR_BUFFER_TOO_SMALL);
}

TEST(Error, IsSuccessWhenDefaultConstructedAndWhenBuiltFromOk) {
    const Error made;
    const Error built = InternalError(ERROR_OK);
    EXPECT_TRUE(made == ERROR_OK);
    EXPECT_TRUE(built == ERROR_OK);
    EXPECT_FALSE(made != ERROR_OK);
    EXPECT_FALSE(built != ERROR_OK);
    EXPECT_FALSE(made != built);
    EXPECT_FALSE(built != made);
    EXPECT_TRUE(made == built);
}

TEST(Error, ComparesAlikeAgainstACodeAndAgainstASuccessConvertedOnTheSpot) {
    const Error failure = Located(ERROR_NOT_FOUND, "gone");
    EXPECT_TRUE(failure != ERROR_OK);
    EXPECT_TRUE(failure != Error(InternalError(ERROR_OK)));
    const Error success = InternalError(ERROR_OK);
    EXPECT_FALSE(success != ERROR_OK);
    EXPECT_FALSE(success != Error(InternalError(ERROR_OK)));
}

TEST(Error, ComparesOnlyCodes) {
    EXPECT_FALSE(Located(ERROR_NOT_FOUND, "here") != Located(ERROR_NOT_FOUND, "there"));
    EXPECT_TRUE(Located(ERROR_NOT_FOUND, "here") != Located(ERROR_FAILED, "here"));
    EXPECT_TRUE(Located(ERROR_NOT_FOUND, "here") == Located(ERROR_NOT_FOUND, "there"));
    EXPECT_FALSE(Located(ERROR_NOT_FOUND, "here") == Located(ERROR_FAILED, "here"));
    EXPECT_TRUE(Located(ERROR_NOT_FOUND, "here") == ERROR_NOT_FOUND);
    EXPECT_FALSE(Located(ERROR_NOT_FOUND, "here") == ERROR_OK);
    EXPECT_FALSE(Located(ERROR_NOT_FOUND, "here") != ERROR_NOT_FOUND);
}

TEST(Error, HasNoTextsAndNoCauseWithoutALocation) {
    const Error bare = InternalError(ERROR_MEMORY_ALLOCATION_FAILED);
    EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, bare.GetType());
    EXPECT_STREQ("", bare.GetMessage());
    EXPECT_STREQ("", bare.GetFile());
    EXPECT_STREQ("", bare.GetBuildDate());
    EXPECT_STREQ("", bare.GetBuildTime());
    EXPECT_EQ(0, bare.GetLine());
    EXPECT_EQ(nullptr, bare.GetCause());
    EXPECT_EQ("out of memory (error 10)", bare.Describe());
}

TEST(Error, WithoutALocationIsDescribedByWhatItsCodeMeans) {
    EXPECT_EQ("success", Error().Describe());
    const std::map<ErrorType, std::string> texts = {
        {ERROR_FAILED, "failed (error 1)"},
        {ERROR_NOT_IMPLEMENTED, "not implemented (error 2)"},
        {ERROR_INIT_TIMED_OUT, "not started in time (error 5)"},
        {ERROR_NOT_INITIALIZED, "not initialized (error 6)"},
        {ERROR_INVALID_PARAMETER, "invalid parameter (error 7)"},
        {ERROR_LOW_LEVEL_FAILURE, "low-level failure (error 11)"},
        {ERROR_NOT_FOUND, "not found (error 12)"},
        {ERROR_GUID_GENERATION_FAILED, "no identifier could be made (error 13)"},
        {ERROR_UNSUPPORTED_INTERFACE, "not supported on this bus (error 17)"},
        {ERROR_TIMEOUT, "not acknowledged in time (error 18)"},
        {ERROR_REGISTER_FAILED, "a register could not be read (error 28)"},
        {ERROR_BUFFER_TOO_SMALL, "the array is too small (error 40)"},
    };
    for (const auto& [type, text] : texts) {
        EXPECT_EQ(text, Error(InternalError(type)).Describe());
    }
}

TEST(Error, ReadsBackWhereItWasRaised) {
    const Error error = Located(ERROR_NOT_FOUND, "Could not find a device.");
    EXPECT_EQ(ERROR_NOT_FOUND, error.GetType());
    EXPECT_STREQ("Could not find a device.", error.GetMessage());
    EXPECT_STREQ("BusMaster.cpp", error.GetFile());
    EXPECT_EQ(42, error.GetLine());
    EXPECT_STREQ("Jan  2 2026", error.GetBuildDate());
    EXPECT_STREQ("03:04:05", error.GetBuildTime());
    EXPECT_EQ(nullptr, error.GetCause());
}

TEST(Error, FormatsTheMessageWithItsArguments) {
    const Error index =
        InternalError(1, "f", "d", "t", ERROR_INVALID_PARAMETER, "Invalid index parameter (%u/%u).", 7U, 3U);
    EXPECT_STREQ("Invalid index parameter (7/3).", index.GetMessage());
    const Error lower = InternalError(1, "f", "d", "t", ERROR_LOW_LEVEL_FAILURE, "Error: 0x%x.", 0xABCDEFU);
    EXPECT_STREQ("Error: 0xabcdef.", lower.GetMessage());
    const Error upper = InternalError(1, "f", "d", "t", ERROR_LOW_LEVEL_FAILURE, "Error: %X", 0xABCDEFU);
    EXPECT_STREQ("Error: ABCDEF", upper.GetMessage());
}

TEST(Error, KeepsMessagesOfAnyLengthAndNone) {
    const std::string text(5000, 'x');
    EXPECT_EQ(text, Located(ERROR_FAILED, text.c_str()).GetMessage());
    EXPECT_STREQ("", Located(ERROR_FAILED, "").GetMessage());
}

TEST(Error, TakesNullPlacesForEmptyOnes) {
    const Error error = InternalError(1, nullptr, nullptr, nullptr, ERROR_FAILED, "%s", "message");
    EXPECT_STREQ("", error.GetFile());
    EXPECT_STREQ("", error.GetBuildDate());
    EXPECT_STREQ("", error.GetBuildTime());
}

TEST(Error, KeepsItsOwnTextsWhenTheBuildersBuffersChange) {
    char file[] = "BusMaster.cpp";
    const Error error = InternalError(1, file, "d", "t", ERROR_FAILED, "%s", "message");
    file[0] = 'X';
    EXPECT_STREQ("BusMaster.cpp", error.GetFile());
}

TEST(Error, ReportsItsOwnCodeAndNotThatOfItsCause) {
    const Error cause = Located(ERROR_FAILED, "the generator failed");
    const Error error = InternalError(7, "BusMaster.cpp", "d", "t", ERROR_GUID_GENERATION_FAILED, InternalError(cause),
                                      "%s %d", "Failed to generate", 9);
    EXPECT_EQ(ERROR_GUID_GENERATION_FAILED, error.GetType());
    EXPECT_STREQ("Failed to generate 9", error.GetMessage());
    ASSERT_NE(nullptr, error.GetCause());
    EXPECT_EQ(ERROR_FAILED, error.GetCause()->GetType());
    EXPECT_STREQ("the generator failed", error.GetCause()->GetMessage());
    EXPECT_EQ(42, error.GetCause()->GetLine());
}

TEST(Error, ChainsAsDeepAsItIsBuilt) {
    Error error = InternalError(ERROR_FAILED);
    for (int depth = 1; depth <= 3; ++depth) {
        error = InternalError(depth, "f", "d", "t", ERROR_NOT_FOUND, InternalError(error), "level %d", depth);
    }
    int depth = 3;
    const Error* link = &error;
    for (; link->GetCause() != nullptr; link = link->GetCause()) {
        EXPECT_EQ(depth--, link->GetLine());
    }
    EXPECT_EQ(0, depth);
    EXPECT_EQ(ERROR_FAILED, link->GetType());
}

TEST(Error, DescribesTheWholeChainForPeople) {
    const Error cause = Located(ERROR_FAILED, "the generator failed");
    const Error error = InternalError(7, "BusMaster.cpp", "d", "t", ERROR_GUID_GENERATION_FAILED, InternalError(cause),
                                      "%s", "Failed to generate the USB GUID.");
    EXPECT_EQ(
        "Failed to generate the USB GUID. (error 13, BusMaster.cpp:7, built d t)\n"
        "  caused by: the generator failed (error 1, BusMaster.cpp:42, built Jan  2 2026 03:04:05)",
        error.Describe());
}

TEST(Error, LivesOnInCopiesAfterTheOriginalIsGone) {
    Error copy;
    {
        const Error original = InternalError(7, "BusMaster.cpp", "d", "t", ERROR_GUID_GENERATION_FAILED,
                                             InternalError(Located(ERROR_FAILED, "cause")), "%s", "message");
        copy = original;
        const Error second(copy);
        EXPECT_STREQ("message", second.GetMessage());
    }
    EXPECT_STREQ("message", copy.GetMessage());
    ASSERT_NE(nullptr, copy.GetCause());
    EXPECT_STREQ("cause", copy.GetCause()->GetMessage());
    copy = Error();
    EXPECT_TRUE(copy == ERROR_OK);
    EXPECT_EQ(nullptr, copy.GetCause());
}

}  // namespace
}  // namespace Nimbrel2
