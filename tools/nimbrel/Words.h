// SPDX-License-Identifier: Apache-2.0
// Small work with words: enumerations, plurals, what a misspelt word was meant to be, quoting for a shell. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_WORDS_H
#define NIMBREL2_TOOLS_NIMBREL_WORDS_H

#include <cstddef>
#include <string>
#include <vector>

namespace Nimbrel2::Tool {

/// "a", "a and b", "a, b and c".
std::string Enumerate(const std::vector<std::string>& words, const std::string& conjunction = "and");

/// The text with its first letter in upper case.
std::string AsSentence(std::string text);

/// "1 camera", "2 cameras".
std::string CountOf(std::size_t count, const std::string& one);

/// The known word that is most like the given one; empty when none is like it.
std::string NearestWord(const std::string& word, const std::vector<std::string>& known);

/// "; did you mean list?", or nothing.
std::string DidYouMean(const std::string& word, const std::vector<std::string>& known);

/// The text as one word of a POSIX shell's command line, quoted only where it must be.
std::string QuoteForShell(const std::string& text);

}  // namespace Nimbrel2::Tool

#endif
