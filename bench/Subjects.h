#pragma once

#include <set>
#include <string>

#include "bench/Results.h"

using Sense = Target::Sense;
using Of = Target::Of;

/** How much is measured, and what. */
struct Extent {
    bool isQuick = false;
    /** Names of the chosen rows and curves; empty for all. */
    std::set<std::string> chosen = {};

    int Rounds(int full, int quick) const { return isQuick ? quick : full; }
    /** For files that are moved; in quick runs too large enough for the start not to count. */
    long long FileSize() const { return isQuick ? 1LL << 29 : 2LL << 30; }
};

/** A subject measures rows and curves that need the same set-up. */
struct Subject {
    const char* rows; // their names, separated by blanks
    void (*measure)(const Extent&, Results&);

    bool IsChosen(const Extent& extent) const;
};

void MeasureLaunches(const Extent& extent, Results& results);
void MeasureStreams(const Extent& extent, Results& results);
void MeasureTransfers(const Extent& extent, Results& results);
void MeasureContinuation(const Extent& extent, Results& results);
void MeasureCheckSums(const Extent& extent, Results& results);
void MeasureStanding(const Extent& extent, Results& results);
void MeasureLiveCommands(const Extent& extent, Results& results);
void MeasureControl(const Extent& extent, Results& results);
void MeasureCrowds(const Extent& extent, Results& results);
