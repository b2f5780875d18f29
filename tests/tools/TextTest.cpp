// SPDX-License-Identifier: Apache-2.0
// Texts, tables and values by themselves. The locale of these tests is C.UTF-8.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <locale.h>

#include <algorithm>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;

class Utf8 : public ::testing::Test {
protected:
    Utf8() : m_locale(newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)), m_before(uselocale(m_locale)) {}
    ~Utf8() override {
        uselocale(m_before);
        freelocale(m_locale);
    }

private:
    const locale_t m_locale;
    const locale_t m_before;
};

struct Row {
    const char* name;
    std::string text;
    std::string shown;
};

class TextForTerminal : public Utf8, public ::testing::WithParamInterface<Row> {};

TEST_P(TextForTerminal, IsWhatMayBeShown) { EXPECT_EQ(ForTerminal(GetParam().text), GetParam().shown); }

INSTANTIATE_TEST_SUITE_P(
    Rows, TextForTerminal,
    ::testing::Values(Row{"Empty", "", ""}, Row{"Plain", "Mako G-125B", "Mako G-125B"}, Row{"Blanks", "  a b  ", "a b"},
                      Row{"TwoBytes", "M\xc3\xb6", "M\xc3\xb6"}, Row{"ThreeBytes", "\xe3\x82\xab", "\xe3\x82\xab"},
                      Row{"FourBytes", "\xf0\x9f\x93\xb7", "\xf0\x9f\x93\xb7"}, Row{"Escape", "\x1b[2J", "\uFFFD[2J"},
                      Row{"LineFeed", "a\nb", "a\uFFFDb"}, Row{"Delete", "\x7f", "\uFFFD"},
                      Row{"C1Control", "\xc2\x9b", "\uFFFD"}, Row{"C1ByteAlone", "\x9b", "\uFFFD"},
                      Row{"Overlong", "\xc0\xaf", "\uFFFD\uFFFD"},
                      Row{"OverlongThree", "\xe0\x80\xaf", "\uFFFD\uFFFD\uFFFD"},
                      Row{"Surrogate", "\xed\xa0\x80", "\uFFFD\uFFFD\uFFFD"},
                      Row{"CutShort", "a\xe3\x82", "a\uFFFD\uFFFD"},
                      Row{"BeyondUnicode", "\xf4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
                      Row{"NoLeadByte", "\xff\xfe", "\uFFFD\uFFFD"}, Row{"RightToLeftOverride", "\u202e", "\uFFFD"}),
    [](const auto& test) { return test.param.name; });

TEST(TextAsCharacters, KeepsWhatIsForShowing) { EXPECT_EQ(ToCharacters(" a\u00f6\u65e5\U0001f4f7 "), U" aö日📷 "); }

TEST(TextAsCharacters, ReplacesWhatIsNot) {
    for (const char* text :
         {"\n", "\x1b", "\x7f", "\xff", "\u009b", "\u2028", "\u202e", "\uFFFE", "\uFDD0", "\U0010FFFF"}) {
        EXPECT_EQ(ToCharacters(text), U"\uFFFD") << text;
    }
}

TEST(Speed, IsShownInTheUnitThatPeopleUse) {
    EXPECT_EQ(FormatSpeed(12), "12 Mbit/s");
    EXPECT_EQ(FormatSpeed(999), "999 Mbit/s");
    EXPECT_EQ(FormatSpeed(1000), "1 Gbit/s");
    EXPECT_EQ(FormatSpeed(2500), "2.5 Gbit/s");
    EXPECT_EQ(FormatSpeed(10010), "10.01 Gbit/s");
}

TEST_F(Utf8, KeepsLineFeedsWhereTheyAreWanted) { EXPECT_EQ(ForTerminal(" a\n\tb ", Lines::Kept), " a\n\uFFFDb "); }

TEST_F(Utf8, CountsColumnsAndNotBytes) {
    EXPECT_EQ(DisplayWidth("M\xc3\xb6"), 2u);
    EXPECT_EQ(DisplayWidth("\xe3\x82\xab"), 2u) << "one wide character";
}

TEST_F(Utf8, CutsBetweenCharacters) {
    EXPECT_EQ(CutToWidth("abcdef", 6), "abcdef");
    EXPECT_EQ(CutToWidth("abcdefg", 6), "abc...");
    EXPECT_EQ(CutToWidth("\xe3\x82\xab\xe3\x82\xab\xe3\x82\xab", 5), "\xe3\x82\xab...");
    EXPECT_EQ(CutToWidth("\xe3\x82\xab\xe3\x82\xab\xe3\x82\xab", 4), "...");
    EXPECT_EQ(CutToWidth("abc", 2), "..");
    EXPECT_EQ(CutToWidth("abc", 0), "");
}

TEST(Text, ShowsAsciiOnlyInTheCLocale) { EXPECT_EQ(ForTerminal("M\xc3\xb6\x1b"), "M??"); }

TEST(Field, EndsAtItsFirstZeroOrItsEnd) {
    EXPECT_EQ(FromField({'a', '\0', 'b'}), "a");
    EXPECT_EQ(FromField({'a', 'b'}), "ab");
}

TEST_F(Utf8, AlignsATableByColumns) {
    Table table;
    table.AddColumn("N", Table::Align::Right);
    table.AddColumn("NAME");
    table.AddColumn("X");
    table.AddRow({"9", "M\xc3\xb6", "x"});
    table.AddRow({"10", "abcd", "y"});
    EXPECT_EQ(table.Render(80), " N  NAME  X\n 9  M\xc3\xb6    x\n10  abcd  y\n");
}

TEST(Table, CutsTheWidestFlexibleColumnFirstAndNeverTheOthers) {
    Table table;
    table.AddColumn("FULL");
    table.AddColumn("A", Table::Align::Left, Table::Width::Flexible);
    table.AddColumn("B", Table::Align::Left, Table::Width::Flexible);
    table.AddRow({std::string(20, 'f'), std::string(20, 'a'), std::string(12, 'b')});
    EXPECT_EQ(table.Render(48).substr(table.Render(48).find('\n') + 1),
              std::string(20, 'f') + "  aaaaaaaaa...  " + std::string(12, 'b') + "\n");
    EXPECT_EQ(table.Render(10).substr(table.Render(10).find('\n') + 1), std::string(20, 'f') + "  aaaaa...  bbbbb...\n")
        << "no column becomes useless";
}

TEST(Seconds, AreReadToTheMillisecond) {
    const auto parse = [](const std::string& text) {
        return ParseSeconds("-o", text, milliseconds(10), milliseconds(60000));
    };
    EXPECT_EQ(parse("0.01"), milliseconds(10));
    EXPECT_EQ(parse("0.2"), milliseconds(200));
    EXPECT_EQ(parse(".5"), milliseconds(500));
    EXPECT_EQ(parse("1.2345"), milliseconds(1235));
    EXPECT_EQ(parse("60"), milliseconds(60000));
    for (const char* text : {"", ".", "0", "-1", "+1", "1e1", "0x1", "1.2.3", " 1", "1 ", "1s", "inf", "nan", "61",
                             "99999999999999999999999999", "0.0094"}) {
        EXPECT_THROW(parse(text), CommandError) << text;
    }
}

TEST(SerialNumbers, AreReadOnceEachInOrder) {
    EXPECT_THAT(ParseSerialNumbers("-o", "7,4294967295,0,7"), ElementsAre(7u, 4294967295u, 0u));
    for (const char* text : {"", ",", "1,", ",1", "1,,2", "1 ,2", "-1", "4294967296", "0x10", "a"}) {
        EXPECT_THROW(ParseSerialNumbers("-o", text), CommandError) << text;
    }
}

TEST(Table, KnowsWhetherItFits) {
    Table table;
    table.AddColumn("FULL");
    table.AddColumn("A", Table::Align::Left, Table::Width::Flexible);
    table.AddRow({std::string(20, 'f'), std::string(20, 'a')});
    EXPECT_TRUE(table.Fits(30));
    EXPECT_FALSE(table.Fits(29)) << "8 columns is the least";
}

TEST(Table, ColoursCellsWithoutMovingThem) {
    Table table;
    table.AddColumn("A");
    table.AddColumn("B");
    table.AddRow({{"x", Colour::Red}, "y"});
    table.AddRow({"long", ""});
    EXPECT_EQ(table.Render(80, true), "\033[1mA\033[0m     \033[1mB\033[0m\n\033[31mx\033[0m     y\nlong\n");
    EXPECT_EQ(table.Render(80), "A     B\nx     y\nlong\n");
}

TEST(Words, OfWhichOneWasMeantAreFoundByLikeness) {
    const std::vector<std::string> commands{"list", "watch", "topology", "discover", "doctor"};
    EXPECT_EQ(NearestWord("lis", commands), "list");
    EXPECT_EQ(NearestWord("lsit", commands), "list");
    EXPECT_EQ(NearestWord("topo", commands), "topology");
    EXPECT_EQ(NearestWord("dicsover", commands), "discover");
    EXPECT_EQ(NearestWord("wacth", commands), "watch");
    EXPECT_EQ(NearestWord("doktor", commands), "doctor");
    for (const char* word : {"", "x", "grab", "unplug"}) {
        EXPECT_EQ(NearestWord(word, commands), "") << word;
    }
    EXPECT_EQ(DidYouMean("lis", commands), "; did you mean list?");
    EXPECT_EQ(DidYouMean("grab", commands), "");
}

TEST(Words, AreQuotedForAShellOnlyWhereTheyMustBe) {
    EXPECT_EQ(QuoteForShell("eth0.100"), "eth0.100");
    EXPECT_EQ(QuoteForShell("net.ipv4.conf.all.rp_filter=0"), "net.ipv4.conf.all.rp_filter=0");
    EXPECT_EQ(QuoteForShell(""), "''");
    EXPECT_EQ(QuoteForShell("my wall"), "'my wall'");
    EXPECT_EQ(QuoteForShell("$(reboot)"), "'$(reboot)'");
    EXPECT_EQ(QuoteForShell("it's"), "'it'\\''s'");
    EXPECT_EQ(QuoteForShell("~root"), "'~root'");
}

TEST(Words, ThatCallThisProgramAsRootSayWhereItIsUnlessSudoLooksThere) {
    EXPECT_EQ(SudoNimbrel("/usr/bin/nimbrel"), "sudo nimbrel");
    EXPECT_EQ(SudoNimbrel("/usr/local/bin/nimbrel"), "sudo nimbrel");
    EXPECT_EQ(SudoNimbrel("/home/ann/nimbrel/build/release/bin/nimbrel"),
              "sudo /home/ann/nimbrel/build/release/bin/nimbrel");
    EXPECT_EQ(SudoNimbrel("/home/my own/nimbrel"), "sudo '/home/my own/nimbrel'");
    EXPECT_EQ(SudoNimbrel("/usr/bin/gdb"), "sudo nimbrel") << "another program runs it";
    EXPECT_EQ(SudoNimbrel(""), "sudo nimbrel");
}

TEST(Words, AreCounted) {
    EXPECT_EQ(CountOf(0, "camera"), "0 cameras");
    EXPECT_EQ(CountOf(1, "camera"), "1 camera");
    EXPECT_EQ(CountOf(2, "camera"), "2 cameras");
}

TEST(Words, AreEnumeratedAsPeopleDo) {
    EXPECT_EQ(Enumerate({}), "");
    EXPECT_EQ(Enumerate({"a"}), "a");
    EXPECT_EQ(Enumerate({"a", "b"}), "a and b");
    EXPECT_EQ(Enumerate({"a", "b", "c"}), "a, b and c");
    EXPECT_EQ(FormatSeconds(milliseconds(200)), "0.2 s");
    EXPECT_EQ(FormatSeconds(milliseconds(60000)), "60 s");
    EXPECT_EQ(FormatSeconds(milliseconds(5)), "0.005 s");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
