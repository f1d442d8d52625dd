#pragma once

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <string_view>

#include <netdb.h>
#include <security/_pam_types.h>
#include <sys/types.h>

/**
 * What a test and the library that is loaded into its daemon share, in a file that both have mapped: which
 * calls are counted, and which one is to fail.
 */
namespace faults
{
/** A call, by the name of its symbol, and the errors that it is made to fail with, most likely first. */
struct Kind {
    std::string_view name;
    std::array<int, 3> errors;
};

inline constexpr Kind Kinds[] = {
#define RUVEL_KIND(NAME, SHAPE, ...) {#NAME, {__VA_ARGS__}},
#include "tests/faults/FaultKinds.inc"
#undef RUVEL_KIND
};
inline constexpr std::size_t KindCount = std::size(Kinds);

/** Where a call of this name stands in the table; what has no row does not compile. */
consteval std::size_t IndexOf(std::string_view name)
{
    for (std::size_t i = 0; i < KindCount; ++i)
        if (Kinds[i].name == name)
            return i;
    throw "a kind that is not in the table";
}

/** Child: workers, and what is to become a command up to its execution. */
enum class Place { Daemon, Child };
inline constexpr std::size_t PlaceCount = 2;

struct Plan {
    /** The library does nothing until this is set. */
    std::atomic<bool> isArmed;
    std::atomic<pid_t> daemon;
    /** Calls since the counts were last set to 0. */
    std::atomic<long> counts[PlaceCount][KindCount];

    // The call that fails: the number-th, from 1, of its kind at its place; none when the number is 0.
    std::atomic<Place> place;
    std::atomic<std::size_t> kind;
    std::atomic<long> number;
    std::atomic<int> error;
    std::atomic<bool> hasFailed;

    /** Reads and writes take a part of what they are given, and what can be interrupted is. */
    std::atomic<bool> isStuttering;
    /** Added to the wall clock, seconds. */
    std::atomic<long> wallClockShift;
};
static_assert(std::atomic<long>::is_always_lock_free && std::atomic<Place>::is_always_lock_free);

/** The environment entry that tells the library the plan's file. */
inline constexpr const char* PlanVariable = "RUVEL_FAULT_PLAN";
} // namespace faults
