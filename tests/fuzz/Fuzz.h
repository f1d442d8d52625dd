#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// What the fuzzers share. Each is a program of its own around one LLVMFuzzerTestOneInput(), which looks at
// more than survival: it compares what must be equal and stops at the first difference.

/** Called by the fuzzer's engine, which judges the input by what it reaches in the code. */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

/** Stops with `what` as a finding unless it holds. */
void Require(bool holds, const char* what);

/** An input, whose first byte chooses between variants and is no part of the text. */
struct ChosenInput {
    unsigned choice = 0;
    std::string_view text;
};
ChosenInput TakeChoice(const std::uint8_t* data, std::size_t size);

/** The text in pieces of one byte up to some dozens, cut as the seed has it; an even seed cuts nothing. */
std::vector<std::string_view> Cut(std::string_view text, unsigned seed);
/** The pieces between the separators, empty ones included; one for a text without any. */
std::vector<std::string_view> Split(std::string_view text, char separator);

/** Lets nothing of what is written to standard output be seen. */
void SilenceStandardOutput();

/** Lets calls that wait go on after the alarm by which the engine looks for inputs that take too long. */
void GoOnAfterAlarms();

/** A new directory under /tmp that goes with the process, unless that finds something. */
const std::string& OwnDirectory();
