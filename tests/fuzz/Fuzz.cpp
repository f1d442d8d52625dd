#include "tests/fuzz/Fuzz.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <unistd.h>

void Require(bool holds, const char* what)
{
    if (holds)
        return;
    fprintf(stderr, "not so: %s\n", what);
    abort();
}

ChosenInput TakeChoice(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return {};
    return {data[0], {reinterpret_cast<const char*>(data) + 1, size - 1}};
}

std::vector<std::string_view> Cut(std::string_view text, unsigned seed)
{
    constexpr unsigned multiplier = 1664525;
    constexpr unsigned increment = 1013904223;
    const unsigned longest = 1 + seed / 2 % 61;
    std::vector<std::string_view> pieces;
    for (unsigned state = seed; !text.empty(); text.remove_prefix(pieces.back().size())) {
        state = state * multiplier + increment;
        pieces.push_back(seed % 2 == 0 ? text : text.substr(0, 1 + (state >> 16) % longest));
    }
    return pieces;
}

std::vector<std::string_view> Split(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    for (std::size_t at = 0; (at = text.find(separator)) != std::string_view::npos;
         text.remove_prefix(at + 1))
        pieces.push_back(text.substr(0, at));
    pieces.push_back(text);
    return pieces;
}

void SilenceStandardOutput()
{
    static const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    static const bool done = dup2(null, STDOUT_FILENO) == STDOUT_FILENO;
    Require(done, "standard output can be silenced");
}

void GoOnAfterAlarms()
{
    // Not earlier than with the first input: the engine sets its handler last.
    static const bool done = [] {
        struct sigaction action;
        if (sigaction(SIGALRM, nullptr, &action) != 0)
            return false;
        action.sa_flags |= SA_RESTART;
        return sigaction(SIGALRM, &action, nullptr) == 0;
    }();
    Require(done, "calls can be made to go on");
}

const std::string& OwnDirectory()
{
    static const std::string directory = [] {
        char path[] = "/tmp/ruveltest-fuzz-XXXXXXXX";
        Require(mkdtemp(path) != nullptr, "a directory can be made under /tmp");
        return std::string(path);
    }();
    static const bool registered = atexit([] {
                                       std::error_code ignored;
                                       std::filesystem::remove_all(directory, ignored);
                                   }) == 0;
    Require(registered, "the directory can be removed at the end");
    return directory;
}
