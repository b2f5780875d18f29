// SPDX-License-Identifier: Apache-2.0
// The documents: each command line that they show is run, and each option of the program is in them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "tests/support/NetworkNamespace.h"
#include "tests/tools/ToolFixture.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using Nimbrel2::Testing::NetworkNamespace;
using Nimbrel2::Testing::TemporaryFile;
using ::testing::AllOf;
using ::testing::HasSubstr;

ProgramResult RunDocument(const std::string& file, const std::string& part = "1/1") {
    NetworkNamespace network;
    return network.RunProgram(
        {"/usr/bin/python3", NIMBREL_TESTS "/run_documents.py", "--part", part, RealProgram(), NIMBREL_EXAMPLES, file},
        std::chrono::minutes(4));
}

struct Document {
    const char* name;
    const char* file;
    const char* part;  ///< of long documents, so that no test takes long
};

std::ostream& operator<<(std::ostream& out, const Document& row) { return out << row.name; }

class Documents : public ::testing::TestWithParam<Document> {};

TEST_P(Documents, ShowCommandLinesThatPrintWhatIsShown) {
    const ProgramResult result = RunDocument(std::string(NIMBREL_ROOT "/") + GetParam().file, GetParam().part);
    EXPECT_EQ(result.exitStatus, 0) << result.output << result.errors;
}

INSTANTIATE_TEST_SUITE_P(All, Documents,
                         ::testing::Values(Document{"Readme", "README.md", "1/1"},
                                           Document{"FirstRegister", "docs/first-register.md", "1/1"},
                                           Document{"Nimbrel1", "docs/nimbrel.md", "1/4"},
                                           Document{"Nimbrel2", "docs/nimbrel.md", "2/4"},
                                           Document{"Nimbrel3", "docs/nimbrel.md", "3/4"},
                                           Document{"Nimbrel4", "docs/nimbrel.md", "4/4"},
                                           Document{"Rigs", "docs/rigs.md", "1/1"}),
                         [](const auto& test) { return std::string(test.param.name); });

struct Falsehood {
    const char* name;
    const char* document;
    const char* found;
};

std::ostream& operator<<(std::ostream& out, const Falsehood& row) { return out << row.name; }

class FalseDocuments : public ::testing::TestWithParam<Falsehood> {};

TEST_P(FalseDocuments, AreFound) {
    const TemporaryFile file;
    std::ofstream(file.GetPath()) << GetParam().document;
    const ProgramResult result = RunDocument(file.GetPath());
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.errors, AllOf(HasSubstr(file.GetPath()), HasSubstr(GetParam().found)));
}

INSTANTIATE_TEST_SUITE_P(
    All, FalseDocuments,
    ::testing::Values(
        Falsehood{"WrongOutput", "<!-- run: computer -->\n```\n$ nimbrel --version\nnimbrel 99\n```\n", "nimbrel 99"},
        Falsehood{"MissingLine", "<!-- run: computer -->\n```\n$ nimbrel --version\n```\n",
                  "nimbrel " NIMBREL2_VERSION},
        Falsehood{"LineTooMany",
                  "<!-- run: computer -->\n```\n$ nimbrel --version\nnimbrel " NIMBREL2_VERSION "\nand more\n```\n",
                  "and more"},
        Falsehood{"WatchThatPrintsSomethingElse",
                  "<!-- run: computer -->\n```\n$ nimbrel watch --demo --duration 0.1\nNot this.\n```\n", "Not this."},
        Falsehood{"ScriptThatFails", "<!-- run: computer -->\n```sh\nnimbrel nonsense\n```\n", "unknown command"},
        Falsehood{"BlockWithoutAScene", "```\n$ nimbrel --version\n```\n", "no comment says"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(DocumentOfTheCommandLine, NamesEachOptionOfTheProgramAndNoOther) {
    const ProgramResult result = Nimbrel2::Testing::RunProgram(
        {"/usr/bin/python3", NIMBREL_TESTS "/check_options.py", RealProgram(), NIMBREL_ROOT}, std::chrono::minutes(2));
    EXPECT_EQ(result.exitStatus, 0) << result.output << result.errors;
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
